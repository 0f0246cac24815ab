#include "lumo/application_is_not_running_exception.h"

namespace lumo {

ApplicationIsNotRunningException::ApplicationIsNotRunningException()
    : TestFailedException(
          "ApplicationIsNotRunningException", nullptr,
          "The target application is not running. Please make sure you passed your "
          "XCUIApplication instance to the 'testedApplication' parameter (if necessary), and "
          "that you invoked the 'launch' method for this instance.") {}

}  // namespace lumo
