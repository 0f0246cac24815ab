#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "lumo/error.h"
#include "lumo/session_start_info.h"
#include "lumo/test_results.h"

namespace lumo {

// Selects the message of a test-outcome error. The numbering is fixed.
enum TestErrorType : std::int64_t {
  TestErrorTypeDiffsFound = 1,
  TestErrorTypeFailed = 2,
  TestErrorTypeNewTest = 3,
};

// Makes every error value the library hands out: domain "com.brixtel.lumo", code 1, the
// message as description (the cause is told only by the message). Stateless; never fails.
class ErrorBuilder {
 public:
  static constexpr const char* kErrorDomain = "com.brixtel.lumo";
  static constexpr long kErrorCode = 1;

  static Error errorWithDescription(std::string description);
  // The outcome message of `errorType` filled with the start record's test and application
  // names and the results' url ("(null)" for any that is missing, also for null results); an
  // unknown type gives an empty description.
  static Error errorWithTestResults(const std::shared_ptr<TestResults>& results,
                                    const SessionStartInfo& sessionStartInfo,
                                    TestErrorType errorType);
};

}  // namespace lumo
