#pragma once

#include <memory>
#include <string>

#include "lumo/exception.h"
#include "lumo/session_start_info.h"
#include "lumo/test_results.h"

namespace lumo {

// A test that did not pass, or a wait for the server that timed out. Keeps the results it was
// given (shared, possibly null) for the exception's lifetime.
class TestFailedException : public Exception {
 public:
  // Reason "<test> of <app>. See details at <url>".
  TestFailedException(std::shared_ptr<TestResults> testResults,
                      const SessionStartInfo& sessionStartInfo);
  // The reason exactly as given, even when empty.
  TestFailedException(std::shared_ptr<TestResults> testResults, std::string reason);
  // The reason as given; no results.
  explicit TestFailedException(std::string reason);

  const std::shared_ptr<TestResults>& testResults() const noexcept { return testResults_; }

 protected:
  TestFailedException(std::string name, std::shared_ptr<TestResults> testResults,
                      std::string reason);

 private:
  std::shared_ptr<TestResults> testResults_;
};

}  // namespace lumo
