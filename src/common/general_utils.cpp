#include "common/general_utils.h"

#include <chrono>
#include <thread>

namespace lumo {

void GeneralUtils::sleep(std::int64_t seconds) {
  if (seconds > 0) {
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
  }
}

}  // namespace lumo
