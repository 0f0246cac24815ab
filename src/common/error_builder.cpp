#include "common/error_builder.h"

#include <fmt/format.h>

#include <utility>

#include "common/logger.h"
#include "common/test_outcome_message.h"

namespace lumo {

namespace detail {

std::string testOutcomeMessage(TestErrorType errorType, const TestResults* results,
                               const SessionStartInfo& sessionStartInfo) {
  const std::string testName = textOrNull(sessionStartInfo.testName());
  const std::string appName = textOrNull(sessionStartInfo.appName());
  const std::string url = textOrNull(results != nullptr ? results->url() : std::nullopt);
  // Only the differences message has a colon after "See details at"; keep them apart.
  switch (errorType) {
    case TestErrorTypeDiffsFound:
      return fmt::format("Test {} of {} detected differences! See details at: {}", testName,
                         appName, url);
    case TestErrorTypeFailed:
      return fmt::format("{} of {}. See details at {}", testName, appName, url);
    case TestErrorTypeNewTest:
      return fmt::format("{} of {}. Please approve the new baseline at {}", testName, appName, url);
  }
  return "";
}

}  // namespace detail

Error ErrorBuilder::errorWithDescription(std::string description) {
  return Error(kErrorDomain, kErrorCode, std::move(description));
}

Error ErrorBuilder::errorWithTestResults(const std::shared_ptr<TestResults>& results,
                                         const SessionStartInfo& sessionStartInfo,
                                         TestErrorType errorType) {
  return errorWithDescription(
      detail::testOutcomeMessage(errorType, results.get(), sessionStartInfo));
}

}  // namespace lumo
