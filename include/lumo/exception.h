#pragma once

#include <exception>
#include <map>
#include <string>

namespace lumo {

// The root of every exception the library raises: a name that tells the kind (each subclass
// uses its own class name), a human-readable reason and a user-information map (always empty
// for the library's own exceptions). Catch this type once to handle every Lumo failure.
class Exception : public std::exception {
 public:
  using UserInfo = std::map<std::string, std::string>;

  Exception(std::string name, std::string reason, UserInfo userInfo = {});

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const UserInfo& userInfo() const noexcept { return userInfo_; }
  // The reason, so that a plain `catch (const std::exception&)` still shows the message.
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  UserInfo userInfo_;
};

// Name of the plain exception raised for an invalid argument value (no class of its own).
inline constexpr const char* kIllegalArgumentExceptionName = "IllegalArgumentException";

// A plain `Exception` named "IllegalArgumentException" with the given reason.
Exception illegalArgumentException(std::string reason);

}  // namespace lumo
