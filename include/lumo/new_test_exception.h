#pragma once

#include <memory>

#include "lumo/session_start_info.h"
#include "lumo/test_failed_exception.h"

namespace lumo {

// A new test whose baseline awaits approval. Reason
// "<test> of <app>. Please approve the new baseline at <url>".
class NewTestException : public TestFailedException {
 public:
  NewTestException(std::shared_ptr<TestResults> testResults,
                   const SessionStartInfo& sessionStartInfo);
};

}  // namespace lumo
