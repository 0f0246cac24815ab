#include "platform/expectation.h"

#include <utility>

namespace lumo {

Expectation::Expectation(std::string description) : description_(std::move(description)) {}

void Expectation::fulfill() {
  // Notified under the lock: once the waiter sees the flag it may destroy the expectation, and
  // by then this call no longer touches it.
  std::lock_guard lock(mutex_);
  isFulfilled_ = true;
  fulfilled_.notify_all();
}

bool Expectation::isFulfilled() const {
  std::lock_guard lock(mutex_);
  return isFulfilled_;
}

}  // namespace lumo
