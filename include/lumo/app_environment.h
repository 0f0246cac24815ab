#pragma once

#include <optional>
#include <string>

#include "lumo/detail/json.h"
#include "lumo/geometry.h"

namespace lumo {

// The environment a test runs in, as the server groups baselines by it: OS, hosting
// application, device and viewport size in points. Plain mutable value.
class AppEnvironment {
 public:
  AppEnvironment() = default;
  // Only `inferred` set; it is never written to the wire.
  explicit AppEnvironment(std::optional<std::string> inferred) : inferred_(std::move(inferred)) {}
  AppEnvironment(std::optional<std::string> osInfo, std::optional<std::string> hostingAppInfo,
                 std::optional<std::string> deviceInfo, Size viewportSize)
      : osInfo_(std::move(osInfo)),
        hostingAppInfo_(std::move(hostingAppInfo)),
        deviceInfo_(std::move(deviceInfo)),
        viewportSize_(viewportSize) {}

  const std::optional<std::string>& inferred() const { return inferred_; }
  void setInferred(std::optional<std::string> value) { inferred_ = std::move(value); }
  const std::optional<std::string>& osInfo() const { return osInfo_; }
  void setOsInfo(std::optional<std::string> value) { osInfo_ = std::move(value); }
  const std::optional<std::string>& hostingAppInfo() const { return hostingAppInfo_; }
  void setHostingAppInfo(std::optional<std::string> value) { hostingAppInfo_ = std::move(value); }
  const std::optional<std::string>& deviceInfo() const { return deviceInfo_; }
  void setDeviceInfo(std::optional<std::string> value) { deviceInfo_ = std::move(value); }
  Size viewportSize() const { return viewportSize_; }
  void setViewportSize(Size value) { viewportSize_ = value; }

  // {"displaySize": {"width", "height"}} plus "OSInfo", "HostingAppInfo", "DeviceInfo" when
  // not empty.
  Json dictionary() const;
  // "[osInfo = … hostingAppInfo = … deviceInfo = … displaySize = 375.000000x667.000000]", with
  // "?" for an empty or missing string.
  std::string description() const;

 private:
  std::optional<std::string> inferred_;
  std::optional<std::string> osInfo_;
  std::optional<std::string> hostingAppInfo_;
  std::optional<std::string> deviceInfo_;
  Size viewportSize_;
};

}  // namespace lumo
