#pragma once

#include <memory>

#include "lumo/session_start_info.h"
#include "lumo/test_failed_exception.h"

namespace lumo {

// Differences found against an existing baseline. Reason
// "Test <test> of <app> detected differences! See details at: <url>".
class DiffsFoundException : public TestFailedException {
 public:
  DiffsFoundException(std::shared_ptr<TestResults> testResults,
                      const SessionStartInfo& sessionStartInfo);
};

}  // namespace lumo
