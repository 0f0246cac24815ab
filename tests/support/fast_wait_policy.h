#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "lumo/wait_policy.h"

namespace lumo::test {

// A wait policy for tests: a short bound for server answers, and sleeps that advance a
// virtual clock by whole seconds while really sleeping only a millisecond a second. Elapsed
// time in the retry loop is thus exact and fast; the sleeps are recorded.
//
// A retry loop that stops advancing the clock would spin until CTest gives up; instead the
// first wait past `maxWaits` throws, so the check fails at once. Only that one throws: the
// controller's destructor still waits for its stop.
class FastWaitPolicy : public WaitPolicy {
 public:
  explicit FastWaitPolicy(double serverAnswerSeconds = 2.0, int maxWaits = 60)
      : serverAnswerSeconds_(serverAnswerSeconds), maxWaits_(maxWaits) {}

  double serverAnswerSeconds() const override {
    if (++waits_ == maxWaits_ + 1) {
      throw std::runtime_error("more than " + std::to_string(maxWaits_) +
                               " waits for the server: a retry loop that never ends?");
    }
    return serverAnswerSeconds_;
  }

  void sleepSeconds(std::int64_t seconds) const override {
    {
      std::lock_guard lock(mutex_);
      sleeps_.push_back(seconds);
    }
    if (seconds > 0) {
      virtualSeconds_ += static_cast<double>(seconds);
      std::this_thread::sleep_for(std::chrono::milliseconds(seconds));
    }
  }

  double nowSeconds() const override { return virtualSeconds_.load(); }

  std::vector<std::int64_t> sleeps() const {
    std::lock_guard lock(mutex_);
    return sleeps_;
  }

 private:
  double serverAnswerSeconds_;
  int maxWaits_;
  mutable std::atomic<int> waits_{0};
  mutable std::atomic<double> virtualSeconds_{1000.0};
  mutable std::mutex mutex_;
  mutable std::vector<std::int64_t> sleeps_;
};

}  // namespace lumo::test
