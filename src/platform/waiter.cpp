#include "platform/waiter.h"

#include <algorithm>

namespace lumo {

WaiterResult Waiter::waitForExpectations(
    const std::vector<std::shared_ptr<Expectation>>& expectations,
    std::chrono::duration<double> timeout) {
  using Clock = std::chrono::steady_clock;
  // Capped so that a huge timeout cannot overflow the deadline; a year is forever here.
  const std::chrono::duration<double> kLongest = std::chrono::hours(24 * 365);
  const auto bound = std::clamp(timeout, std::chrono::duration<double>::zero(), kLongest);
  const Clock::time_point deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(bound);

  // All must be fulfilled, so waiting for each in turn against the one deadline is enough.
  for (const auto& expectation : expectations) {
    if (!expectation) {
      continue;
    }
    std::unique_lock lock(expectation->mutex_);
    if (!expectation->fulfilled_.wait_until(lock, deadline,
                                            [&] { return expectation->isFulfilled_; })) {
      return WaiterResult::TimedOut;
    }
  }
  return WaiterResult::Completed;
}

}  // namespace lumo
