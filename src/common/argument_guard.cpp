#include "common/argument_guard.h"

#include <fmt/format.h>

#include <string>
#include <utility>

#include "platform/assertion_handler.h"

namespace lumo {
namespace {

// Each check reports a fixed line number of its own; callers and tests rely on these values,
// so they stay put even when this file is edited.
constexpr long kNotNilLine = 15;
constexpr long kNotNilOrEmptyLine = 21;
constexpr long kIsValidStateLine = 26;
constexpr long kGreaterThanOrEqualToZeroLine = 31;

void fail(const char* method, long line, std::string description) {
  AssertionHandler::handleFailure(
      AssertionFailure{method, "ArgumentGuard", __FILE__, line, std::move(description)});
}

}  // namespace

void ArgumentGuard::failNil(std::string_view paramName) {
  fail("notNil", kNotNilLine, fmt::format("{} is nil", paramName));
}

void ArgumentGuard::notNilOrEmpty(const std::optional<std::string>& value,
                                  std::string_view paramName) {
  notNil(value, paramName);
  // A replaced handler may return from the nil failure; there is no string to measure then.
  if (value && value->empty()) {
    fail("notNilOrEmpty", kNotNilOrEmptyLine, fmt::format("{} is empty", paramName));
  }
}

void ArgumentGuard::isValidState(bool state, std::string_view errorMessage) {
  if (!state) {
    fail("isValidState", kIsValidStateLine, std::string(errorMessage));
  }
}

void ArgumentGuard::greaterThanOrEqualToZero(std::int64_t value, std::string_view paramName) {
  if (value < 0) {
    fail("greaterThanOrEqualToZero", kGreaterThanOrEqualToZeroLine,
         fmt::format("{} < 0", paramName));
  }
}

}  // namespace lumo
