#pragma once

#include <string>

#include "lumo/exception.h"

namespace lumo {

// Raised by the default assertion handler when a guarded precondition fails (see
// ArgumentGuard). The reason is the failure's description; method, file and line say which
// check failed.
class InternalInconsistencyException : public Exception {
 public:
  InternalInconsistencyException(std::string method, std::string file, long line,
                                 std::string description);

  const std::string& method() const noexcept { return method_; }
  const std::string& file() const noexcept { return file_; }
  long line() const noexcept { return line_; }

 private:
  std::string method_;
  std::string file_;
  long line_;
};

}  // namespace lumo
