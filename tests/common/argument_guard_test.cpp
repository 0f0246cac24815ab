#include "common/argument_guard.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumo/internal_inconsistency_exception.h"
#include "platform/assertion_handler.h"

namespace lumo::test {
namespace {

struct GuardCase {
  std::function<void()> check;
  const char* reason;
  const char* method;
  int line;  // the guard's own line, as the assertion reports it
};

TEST(ArgumentGuard, EachFailureNamesTheParameterMethodAndLine) {
  const std::vector<GuardCase> cases = {
      {[] { ArgumentGuard::notNil(static_cast<const int*>(nullptr), "agentId"); }, "agentId is nil",
       "notNil", 15},
      {[] { ArgumentGuard::notNilOrEmpty(std::nullopt, "batchId"); }, "batchId is nil", "notNil",
       15},
      {[] { ArgumentGuard::notNilOrEmpty(std::string(), "batchId"); }, "batchId is empty",
       "notNilOrEmpty", 21},
      {[] { ArgumentGuard::isValidState(false, "100% {} %@ %s broken"); }, "100% {} %@ %s broken",
       "isValidState", 26},
      {[] { ArgumentGuard::greaterThanOrEqualToZero(-1, "timeout"); }, "timeout < 0",
       "greaterThanOrEqualToZero", 31},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    try {
      c.check();
      ADD_FAILURE() << "the guard did not fail";
    } catch (const InternalInconsistencyException& e) {
      EXPECT_EQ(e.reason(), c.reason);
      EXPECT_EQ(e.method(), c.method);
      EXPECT_EQ(e.line(), c.line);
    }
  }
}

// A handler that returns lets the guard go on: a nil string is reported once, as nil.
TEST(AssertionHandler, ReplacementSeesFailuresAndDefaultComesBack) {
  std::vector<AssertionFailure> seen;
  auto previous =
      AssertionHandler::setCurrentHandler([&](const AssertionFailure& f) { seen.push_back(f); });
  ArgumentGuard::notNilOrEmpty(std::nullopt, "name");
  AssertionHandler::setCurrentHandler(previous);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].object, "ArgumentGuard");
  EXPECT_THROW(ArgumentGuard::notNil(nullptr, "x"), InternalInconsistencyException);
}

}  // namespace
}  // namespace lumo::test
