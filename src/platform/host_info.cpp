#include "platform/host_info.h"

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>

namespace lumo {

std::string HostInfo::operatingSystem() {
  utsname name{};
  if (uname(&name) != 0) {
    return "Unknown OS";
  }
  return fmt::format("{} {}", name.sysname, name.release);
}

std::string HostInfo::deviceName() {
  std::array<char, 256> host{};
  // One byte short of the buffer: a name that fills it is not terminated by gethostname.
  if (gethostname(host.data(), host.size() - 1) != 0) {
    return "Unknown device";
  }
  return host.data();
}

}  // namespace lumo
