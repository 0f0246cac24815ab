#include "lumo/new_test_exception.h"

#include "common/test_outcome_message.h"

namespace lumo {

NewTestException::NewTestException(std::shared_ptr<TestResults> testResults,
                                   const SessionStartInfo& sessionStartInfo)
    : TestFailedException(
          "NewTestException", testResults,
          detail::testOutcomeMessage(TestErrorTypeNewTest, testResults.get(), sessionStartInfo)) {}

}  // namespace lumo
