#include "lumo/app_environment.h"

#include <fmt/format.h>

namespace lumo {
namespace {

bool hasText(const std::optional<std::string>& value) { return value && !value->empty(); }

std::string_view orQuestionMark(const std::optional<std::string>& value) {
  return hasText(value) ? std::string_view(*value) : std::string_view("?");
}

}  // namespace

Json AppEnvironment::dictionary() const {
  Json json = {{"displaySize", {{"width", viewportSize_.width}, {"height", viewportSize_.height}}}};
  if (hasText(osInfo_)) {
    json["OSInfo"] = *osInfo_;
  }
  if (hasText(hostingAppInfo_)) {
    json["HostingAppInfo"] = *hostingAppInfo_;
  }
  if (hasText(deviceInfo_)) {
    json["DeviceInfo"] = *deviceInfo_;
  }
  return json;
}

std::string AppEnvironment::description() const {
  return fmt::format("[osInfo = {} hostingAppInfo = {} deviceInfo = {} displaySize = {:f}x{:f}]",
                     orQuestionMark(osInfo_), orQuestionMark(hostingAppInfo_),
                     orQuestionMark(deviceInfo_), viewportSize_.width, viewportSize_.height);
}

}  // namespace lumo
