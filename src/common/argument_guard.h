#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace lumo {

// Precondition checks for arguments and state. A violation goes through
// AssertionHandler::handleFailure, whose default throws InternalInconsistencyException with
// the description ("<param> is nil", "<param> is empty", "<param> < 0" or the message) as
// reason. Stateless; callable from any thread.
class ArgumentGuard {
 public:
  // Fails with "<paramName> is nil" when the object is missing.
  template <typename T>
  static void notNil(const T* object, std::string_view paramName) {
    if (object == nullptr) {
      failNil(paramName);
    }
  }
  template <typename T>
  static void notNil(const std::shared_ptr<T>& object, std::string_view paramName) {
    if (!object) {
      failNil(paramName);
    }
  }
  template <typename T>
  static void notNil(const std::optional<T>& object, std::string_view paramName) {
    if (!object) {
      failNil(paramName);
    }
  }
  static void notNil(std::nullptr_t, std::string_view paramName) { failNil(paramName); }

  // A missing string fails as notNil does ("<paramName> is nil"); an empty one with
  // "<paramName> is empty".
  static void notNilOrEmpty(const std::optional<std::string>& value, std::string_view paramName);

  // Fails with `errorMessage` itself as the description (taken literally, never formatted).
  static void isValidState(bool state, std::string_view errorMessage);

  // Fails with "<paramName> < 0" when the value is negative.
  static void greaterThanOrEqualToZero(std::int64_t value, std::string_view paramName);

 private:
  static void failNil(std::string_view paramName);
};

}  // namespace lumo
