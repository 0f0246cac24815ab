#pragma once

#include <string>
#include <utility>

namespace lumo {

// An error value: what the library hands to completion handlers and error slots instead of
// throwing. Errors the library makes itself come from ErrorBuilder (domain "com.brixtel.lumo",
// code 1); transport errors of the HTTP client carry their own description of what failed.
class Error {
 public:
  Error() = default;
  Error(std::string domain, long code, std::string localizedDescription)
      : domain_(std::move(domain)),
        code_(code),
        localizedDescription_(std::move(localizedDescription)) {}

  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  const std::string& localizedDescription() const { return localizedDescription_; }

  friend bool operator==(const Error&, const Error&) = default;

 private:
  std::string domain_;
  long code_ = 0;
  std::string localizedDescription_;
};

}  // namespace lumo
