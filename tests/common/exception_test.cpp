#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "lumo/application_is_not_running_exception.h"
#include "lumo/diffs_found_exception.h"
#include "common/error_builder.h"
#include "lumo/lumo_exception.h"
#include "lumo/new_test_exception.h"
#include "lumo/out_of_bounds_exception.h"
#include "lumo/test_failed_exception.h"

namespace lumo {
namespace {

class OutcomeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    info_.setupWithAgentId("agent", "Shop", "Login", std::nullopt,
                           std::make_shared<AppEnvironment>(), std::make_shared<BatchInfo>("b"),
                           std::nullopt, std::nullopt, std::nullopt, false,
                           std::make_shared<ImageMatchSettings>());
  }

  std::shared_ptr<TestResults> results_ = std::make_shared<TestResults>(
      Json::parse(R"({"apiUrls":{"session":"U"},"appUrls":{},"status":"Unresolved"})"));
  SessionStartInfo info_;
};

TEST_F(OutcomeTest, ErrorsCarryTheDomainCodeAndMessageOfEachType) {
  const Error diffs = ErrorBuilder::errorWithTestResults(results_, info_, TestErrorTypeDiffsFound);
  EXPECT_EQ(diffs.domain(), "com.brixtel.lumo");
  EXPECT_EQ(diffs.code(), 1);
  EXPECT_EQ(diffs.localizedDescription(),
            "Test Login of Shop detected differences! See details at: U");
  EXPECT_EQ(ErrorBuilder::errorWithTestResults(results_, info_, TestErrorTypeFailed)
                .localizedDescription(),
            "Login of Shop. See details at U");
  EXPECT_EQ(ErrorBuilder::errorWithTestResults(results_, info_, TestErrorTypeNewTest)
                .localizedDescription(),
            "Login of Shop. Please approve the new baseline at U");
  for (auto unknown : {0, 4, -1}) {
    const Error e =
        ErrorBuilder::errorWithTestResults(results_, info_, static_cast<TestErrorType>(unknown));
    EXPECT_EQ(e, Error("com.brixtel.lumo", 1, ""));
  }
}

TEST_F(OutcomeTest, MissingValuesPrintAsNull) {
  EXPECT_EQ(ErrorBuilder::errorWithTestResults(std::make_shared<TestResults>(), info_,
                                               TestErrorTypeFailed)
                .localizedDescription(),
            "Login of Shop. See details at (null)");
  EXPECT_EQ(ErrorBuilder::errorWithTestResults(nullptr, SessionStartInfo(), TestErrorTypeNewTest)
                .localizedDescription(),
            "(null) of (null). Please approve the new baseline at (null)");
  EXPECT_EQ(ErrorBuilder::errorWithDescription("--- Time-out"),
            Error("com.brixtel.lumo", 1, "--- Time-out"));
}

TEST_F(OutcomeTest, ExceptionsAreNamedForTheirClassAndKeepTheResults) {
  const TestFailedException failed(results_, info_);
  const DiffsFoundException diffs(results_, info_);
  const NewTestException fresh(results_, info_);
  EXPECT_EQ(failed.name(), "TestFailedException");
  EXPECT_EQ(diffs.name(), "DiffsFoundException");
  EXPECT_EQ(fresh.name(), "NewTestException");
  for (const TestFailedException* e : {&failed, static_cast<const TestFailedException*>(&diffs),
                                       static_cast<const TestFailedException*>(&fresh)}) {
    EXPECT_EQ(e->testResults(), results_);  // the same record, not a copy
    EXPECT_TRUE(e->userInfo().empty());
    EXPECT_STREQ(e->what(), e->reason().c_str());
  }
  // Error value and exception of one outcome say the same words.
  EXPECT_EQ(failed.reason(),
            ErrorBuilder::errorWithTestResults(results_, info_, TestErrorTypeFailed)
                .localizedDescription());
  EXPECT_EQ(diffs.reason(),
            ErrorBuilder::errorWithTestResults(results_, info_, TestErrorTypeDiffsFound)
                .localizedDescription());
  EXPECT_EQ(fresh.reason(),
            ErrorBuilder::errorWithTestResults(results_, info_, TestErrorTypeNewTest)
                .localizedDescription());
}

TEST_F(OutcomeTest, CatchingTheBaseSeesTheConcreteKind) {
  try {
    throw DiffsFoundException(results_, info_);
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "DiffsFoundException");
    EXPECT_NE(dynamic_cast<const TestFailedException*>(&e), nullptr);
  }
}

TEST(TestFailedException, ReasonsAreKeptAsGiven) {
  const TestFailedException timeout("--- Time-out exception");
  EXPECT_EQ(timeout.reason(), "--- Time-out exception");
  EXPECT_EQ(timeout.testResults(), nullptr);
  EXPECT_EQ(TestFailedException("").reason(), "");
  auto results = std::make_shared<TestResults>();
  const TestFailedException withReason(results, "");
  EXPECT_EQ(withReason.reason(), "");
  EXPECT_EQ(withReason.testResults(), results);
}

TEST(ApplicationIsNotRunningException, HasItsFixedReasonAndNoResults) {
  const ApplicationIsNotRunningException e;
  EXPECT_EQ(e.name(), "ApplicationIsNotRunningException");
  EXPECT_EQ(e.testResults(), nullptr);
  EXPECT_EQ(e.reason(),
            "The target application is not running. Please make sure you passed your "
            "XCUIApplication instance to the 'testedApplication' parameter (if necessary), and "
            "that you invoked the 'launch' method for this instance.");
}

TEST(LumoException, MissingOrEmptyReasonBecomesEmptyText) {
  EXPECT_EQ(LumoException(std::nullopt).reason(), "");
  EXPECT_EQ(LumoException("").reason(), "");
  const LumoException e("A test is already running");
  EXPECT_EQ(e.name(), "LumoException");
  EXPECT_EQ(e.reason(), "A test is already running");
  EXPECT_TRUE(e.userInfo().empty());
}

TEST(OutOfBoundsException, QuotesBothRegions) {
  const OutOfBoundsException e(Region(Rect(4.5, 7.5, 10.5, 13.5)), Region(0, 0, 100, 100));
  EXPECT_EQ(e.name(), "OutOfBoundsException");
  EXPECT_EQ(
      e.reason(),
      "Region [{{4.5, 7.5}, {10.5, 13.5}}] is out of screenshot bounds [{{0, 0}, {100, 100}}]");
  EXPECT_NE(dynamic_cast<const LumoException*>(&e), nullptr);
}

TEST(Exception, IllegalArgumentIsAPlainNamedException) {
  const Exception e =
      illegalArgumentException("Match timeout must be set in seconds, and must be > 0");
  EXPECT_EQ(e.name(), "IllegalArgumentException");
  EXPECT_EQ(e.reason(), "Match timeout must be set in seconds, and must be > 0");
  EXPECT_TRUE(e.userInfo().empty());
}

}  // namespace
}  // namespace lumo
