#include "common/environment_helper.h"

#include <cstdlib>

namespace lumo {

std::optional<std::string> EnvironmentHelper::environmentVariableForKey(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  if (value == nullptr) {
    return std::nullopt;
  }
  return std::string(value);
}

}  // namespace lumo
