#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "platform/expectation.h"

namespace lumo {

// How a wait ended. The numbering is fixed: callers compare against it.
enum class WaiterResult { Completed = 1, TimedOut = 2 };

class Waiter {
 public:
  // Blocks the calling thread until every expectation is fulfilled (completed) or `timeout`
  // has passed on the steady clock (timedOut). An empty list completes at once; a timeout of
  // zero or less only looks.
  static WaiterResult waitForExpectations(
      const std::vector<std::shared_ptr<Expectation>>& expectations,
      std::chrono::duration<double> timeout);
};

}  // namespace lumo
