#pragma once

#include <optional>
#include <string>

#include "lumo/exception.h"

namespace lumo {

// Misuse of the library (no API key, a second open, ...), raised at once.
class LumoException : public Exception {
 public:
  // A missing or empty reason becomes "".
  explicit LumoException(const std::optional<std::string>& reason);

 protected:
  LumoException(std::string name, const std::optional<std::string>& reason);
};

}  // namespace lumo
