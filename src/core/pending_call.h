#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/expectation.h"
#include "platform/waiter.h"

namespace lumo::detail {

// The handshake of one blocking call: its reply (on the connector's worker thread) and its
// wait (on the test thread) decide under the owner's lock whether the reply came in time. A
// reply always stores its values; one that comes after the wait gave up only leaves alone what
// belonged to that wait. A reply that made it in time counts even if the waiter woke up for its
// time-out at the same moment.
class PendingCall {
 public:
  explicit PendingCall(std::string description)
      : expectation_(std::make_shared<Expectation>(std::move(description))) {}

  // Runs `apply(inTime)` under `mutex`, `inTime` false once the wait has given up, then wakes
  // the waiter.
  template <typename Apply>
  void complete(std::mutex& mutex, Apply&& apply) {
    {
      std::lock_guard lock(mutex);
      apply(!abandoned_);
      done_ = !abandoned_;
    }
    expectation_->fulfill();
  }

  // Waits up to `seconds`; true when the reply counted, false when the call is abandoned.
  bool wait(std::mutex& mutex, double seconds) {
    Waiter::waitForExpectations({expectation_}, std::chrono::duration<double>(seconds));
    std::lock_guard lock(mutex);
    if (!done_) {
      abandoned_ = true;
    }
    return done_;
  }

 private:
  std::shared_ptr<Expectation> expectation_;
  bool done_ = false;       // guarded by the owner's mutex
  bool abandoned_ = false;  // guarded by the owner's mutex
};

}  // namespace lumo::detail
