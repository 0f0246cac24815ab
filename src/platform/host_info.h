#pragma once

#include <string>

namespace lumo {

// What the machine running the test says about itself, for the environment of a session.
class HostInfo {
 public:
  // "<system> <release>" from uname, or "Unknown OS" when it cannot be read.
  static std::string operatingSystem();
  // The host name, or "Unknown device" when it cannot be read.
  static std::string deviceName();
};

}  // namespace lumo
