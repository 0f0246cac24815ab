#pragma once

#include "lumo/test_failed_exception.h"

namespace lumo {

// For callers whose application under test is not running; carries no results.
class ApplicationIsNotRunningException : public TestFailedException {
 public:
  ApplicationIsNotRunningException();
};

}  // namespace lumo
