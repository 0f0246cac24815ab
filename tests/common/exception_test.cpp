#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/error_builder.h"
#include "lumo/application_is_not_running_exception.h"
#include "lumo/diffs_found_exception.h"
#include "lumo/lumo_exception.h"
#include "lumo/new_test_exception.h"
#include "lumo/test_failed_exception.h"

namespace lumo::test {
namespace {

class OutcomeTest : public ::testing::Test {
 protected:
  std::shared_ptr<TestResults> results_ = std::make_shared<TestResults>();
  SessionStartInfo info_;  // never set up: the texts say "(null)" for its names
};

// The words of each outcome are pinned through the controller's close; here the corners: a
// missing value says "(null)" and an unknown type says nothing.
TEST_F(OutcomeTest, ErrorsCarryTheDomainCodeAndMessageOfEachType) {
  const auto error = [](const char* text) { return Error("com.brixtel.lumo", 1, text); };
  EXPECT_EQ(ErrorBuilder::errorWithTestResults(results_, info_, static_cast<TestErrorType>(4)),
            error(""));
  EXPECT_EQ(ErrorBuilder::errorWithTestResults(nullptr, info_, TestErrorTypeNewTest),
            error("(null) of (null). Please approve the new baseline at (null)"));
  EXPECT_EQ(ErrorBuilder::errorWithDescription("--- Time-out"), error("--- Time-out"));
}

// Each kind's name, reason and results; an outcome's exception says the words of its error.
TEST_F(OutcomeTest, ExceptionsAreNamedForTheirClassAndSayTheirReason) {
  const auto said = [&](TestErrorType type) {
    return ErrorBuilder::errorWithTestResults(results_, info_, type).localizedDescription();
  };
  const TestFailedException failed(results_, info_);
  const DiffsFoundException diffs(results_, info_);
  const NewTestException fresh(results_, info_);
  const ApplicationIsNotRunningException notRunning;
  const LumoException nil(std::nullopt);
  struct Case {
    const Exception& e;
    const char* name;
    std::string reason;
    std::shared_ptr<TestResults> results;
  };
  for (const Case& c : {
           Case{failed, "TestFailedException", said(TestErrorTypeFailed), results_},
           Case{diffs, "DiffsFoundException", said(TestErrorTypeDiffsFound), results_},
           Case{fresh, "NewTestException", said(TestErrorTypeNewTest), results_},
           Case{notRunning, "ApplicationIsNotRunningException",
                "The target application is not running. Please make sure you passed your "
                "XCUIApplication instance to the 'testedApplication' parameter (if "
                "necessary), and that you invoked the 'launch' method for this instance.",
                nullptr},
           Case{nil, "LumoException", "", nullptr},
       }) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.e.name(), c.name);
    EXPECT_EQ(c.e.reason(), c.reason);
    EXPECT_STREQ(c.e.what(), c.reason.c_str());
    if (const auto* outcome = dynamic_cast<const TestFailedException*>(&c.e)) {
      EXPECT_EQ(outcome->testResults(), c.results);  // the same record, not a copy
    }
  }
}

}  // namespace
}  // namespace lumo::test
