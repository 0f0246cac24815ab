#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "lumo/wait_policy.h"

namespace lumo::test {

// A wait policy for tests: a short bound for server answers, and sleeps that advance a
// virtual clock by whole seconds while really sleeping only a millisecond a second. Elapsed
// time in the retry loop is thus exact and fast; the sleeps are recorded.
class FastWaitPolicy : public WaitPolicy {
 public:
  explicit FastWaitPolicy(double serverAnswerSeconds = 2.0)
      : serverAnswerSeconds_(serverAnswerSeconds) {}

  double serverAnswerSeconds() const override { return serverAnswerSeconds_; }

  void sleepSeconds(std::int64_t seconds) const override {
    {
      std::lock_guard lock(mutex_);
      sleeps_.push_back(seconds);
    }
    if (seconds <= 0) {
      return;
    }
    virtualSeconds_ += static_cast<double>(seconds);
    std::this_thread::sleep_for(std::chrono::milliseconds(seconds));
  }

  double nowSeconds() const override { return virtualSeconds_.load(); }

  std::vector<std::int64_t> sleeps() const {
    std::lock_guard lock(mutex_);
    return sleeps_;
  }

 private:
  double serverAnswerSeconds_;
  mutable std::atomic<double> virtualSeconds_{1000.0};
  mutable std::mutex mutex_;
  mutable std::vector<std::int64_t> sleeps_;
};

}  // namespace lumo::test
