#include "common/argument_guard.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/assertion_handler.h"
#include "lumo/internal_inconsistency_exception.h"

namespace lumo {
namespace {

// Runs `check` and returns the exception it raised through the default handler.
template <typename Check>
InternalInconsistencyException failureOf(Check check) {
  try {
    check();
  } catch (const InternalInconsistencyException& e) {
    return e;
  }
  ADD_FAILURE() << "the guard did not fail";
  return InternalInconsistencyException("", "", 0, "");
}

TEST(ArgumentGuard, NotNilPassesPresentValuesOfEveryKind) {
  int value = 1;
  EXPECT_NO_THROW(ArgumentGuard::notNil(&value, "pointer"));
  EXPECT_NO_THROW(ArgumentGuard::notNil(std::make_shared<int>(1), "shared"));
  EXPECT_NO_THROW(ArgumentGuard::notNil(std::optional<std::string>(""), "optional"));
}

TEST(ArgumentGuard, NotNilFailsWithParamNameMethodAndLine) {
  for (const auto& e :
       {failureOf([] { ArgumentGuard::notNil(static_cast<const int*>(nullptr), "agentId"); }),
        failureOf([] { ArgumentGuard::notNil(std::shared_ptr<int>(), "agentId"); }),
        failureOf([] { ArgumentGuard::notNil(std::optional<int>(), "agentId"); }),
        failureOf([] { ArgumentGuard::notNil(nullptr, "agentId"); })}) {
    EXPECT_EQ(e.reason(), "agentId is nil");
    EXPECT_STREQ(e.what(), "agentId is nil");
    EXPECT_EQ(e.name(), "InternalInconsistencyException");
    EXPECT_EQ(e.method(), "notNil");
    EXPECT_EQ(e.line(), 15);
    EXPECT_NE(e.file().find("argument_guard"), std::string::npos);
    EXPECT_TRUE(e.userInfo().empty());
  }
}

TEST(ArgumentGuard, NotNilOrEmptyTellsNilFromEmpty) {
  auto nil = failureOf([] { ArgumentGuard::notNilOrEmpty(std::nullopt, "batchId"); });
  EXPECT_EQ(nil.reason(), "batchId is nil");
  EXPECT_EQ(nil.method(), "notNil");
  EXPECT_EQ(nil.line(), 15);

  auto empty = failureOf([] { ArgumentGuard::notNilOrEmpty(std::string(), "batchId"); });
  EXPECT_EQ(empty.reason(), "batchId is empty");
  EXPECT_EQ(empty.method(), "notNilOrEmpty");
  EXPECT_EQ(empty.line(), 21);

  EXPECT_NO_THROW(ArgumentGuard::notNilOrEmpty(std::string(" "), "batchId"));
}

TEST(ArgumentGuard, IsValidStateUsesTheMessageLiterally) {
  EXPECT_NO_THROW(ArgumentGuard::isValidState(true, "unused"));
  auto e = failureOf([] { ArgumentGuard::isValidState(false, "100% {} %@ %s broken"); });
  EXPECT_EQ(e.reason(), "100% {} %@ %s broken");
  EXPECT_EQ(e.method(), "isValidState");
  EXPECT_EQ(e.line(), 26);
}

TEST(ArgumentGuard, GreaterThanOrEqualToZeroAcceptsZeroAndRejectsNegatives) {
  EXPECT_NO_THROW(ArgumentGuard::greaterThanOrEqualToZero(0, "timeout"));
  EXPECT_NO_THROW(ArgumentGuard::greaterThanOrEqualToZero(INT64_MAX, "timeout"));
  for (std::int64_t value : {std::int64_t{-1}, INT64_MIN}) {
    auto e = failureOf([value] { ArgumentGuard::greaterThanOrEqualToZero(value, "timeout"); });
    EXPECT_EQ(e.reason(), "timeout < 0");
    EXPECT_EQ(e.method(), "greaterThanOrEqualToZero");
    EXPECT_EQ(e.line(), 31);
  }
}

TEST(AssertionHandler, ReplacementSeesFailuresAndDefaultComesBack) {
  std::vector<AssertionFailure> seen;
  auto previous =
      AssertionHandler::setCurrentHandler([&](const AssertionFailure& f) { seen.push_back(f); });
  // A handler that returns lets the guard go on: a nil string is reported once, as nil.
  ArgumentGuard::notNilOrEmpty(std::nullopt, "name");
  ArgumentGuard::greaterThanOrEqualToZero(-5, "count");
  AssertionHandler::setCurrentHandler(previous);

  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].description, "name is nil");
  EXPECT_EQ(seen[0].object, "ArgumentGuard");
  EXPECT_EQ(seen[1].description, "count < 0");
  EXPECT_EQ(seen[1].line, 31);

  EXPECT_THROW(ArgumentGuard::notNil(nullptr, "x"), InternalInconsistencyException);
  // An empty handler also restores the default.
  AssertionHandler::setCurrentHandler([](const AssertionFailure&) {});
  AssertionHandler::setCurrentHandler({});
  EXPECT_THROW(ArgumentGuard::notNil(nullptr, "x"), InternalInconsistencyException);
}

}  // namespace
}  // namespace lumo
