#include "lumo/diffs_found_exception.h"

#include "common/test_outcome_message.h"

namespace lumo {

DiffsFoundException::DiffsFoundException(std::shared_ptr<TestResults> testResults,
                                         const SessionStartInfo& sessionStartInfo)
    : TestFailedException("DiffsFoundException", testResults,
                          detail::testOutcomeMessage(TestErrorTypeDiffsFound, testResults.get(),
                                                     sessionStartInfo)) {}

}  // namespace lumo
