#include "lumo/wait_policy.h"

#include <chrono>

#include "common/general_utils.h"

namespace lumo {

std::shared_ptr<const WaitPolicy> WaitPolicy::standard() {
  static const auto policy = std::make_shared<const WaitPolicy>();
  return policy;
}

void WaitPolicy::sleepSeconds(std::int64_t seconds) const { GeneralUtils::sleep(seconds); }

double WaitPolicy::nowSeconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace lumo
