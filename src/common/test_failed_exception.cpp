#include "lumo/test_failed_exception.h"

#include <utility>

#include "common/test_outcome_message.h"

namespace lumo {

TestFailedException::TestFailedException(std::shared_ptr<TestResults> testResults,
                                         const SessionStartInfo& sessionStartInfo)
    : TestFailedException(
          "TestFailedException", testResults,
          detail::testOutcomeMessage(TestErrorTypeFailed, testResults.get(), sessionStartInfo)) {}

TestFailedException::TestFailedException(std::shared_ptr<TestResults> testResults,
                                         std::string reason)
    : TestFailedException("TestFailedException", std::move(testResults), std::move(reason)) {}

TestFailedException::TestFailedException(std::string reason)
    : TestFailedException("TestFailedException", nullptr, std::move(reason)) {}

TestFailedException::TestFailedException(std::string name, std::shared_ptr<TestResults> testResults,
                                         std::string reason)
    : Exception(std::move(name), std::move(reason)), testResults_(std::move(testResults)) {}

}  // namespace lumo
