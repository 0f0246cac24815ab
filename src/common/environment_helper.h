#pragma once

#include <optional>
#include <string>

namespace lumo {

// Reads the process environment afresh on every call (nothing is cached).
class EnvironmentHelper {
 public:
  // The variable's value, "" when it is set but empty, or nullopt when it is not set.
  static std::optional<std::string> environmentVariableForKey(const std::string& name);
};

}  // namespace lumo
