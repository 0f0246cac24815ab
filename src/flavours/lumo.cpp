#include "lumo/lumo.h"

#include <fmt/format.h>

#include "common/argument_guard.h"
#include "common/scaled_screenshot.h"
#include "core/fluent/region_provider.h"
#include "lumo/match_result.h"
#include "lumo/system_log.h"

namespace lumo {

Lumo::Lumo(std::string serverURL, std::shared_ptr<ScreenshotSource> source)
    : LumoBase(std::move(serverURL)), source_(std::move(source)) {
  ArgumentGuard::notNil(source_, "source");
}

void Lumo::open(const std::string& appName, const std::string& testName, Size viewportSize) {
  openBase(appName, testName, viewportSize);
}

std::shared_ptr<MatchResult> Lumo::check(const std::string& tag, const CheckSettings& settings) {
  return checkRegion(*settings.getTargetRegion(), tag, settings);
}

std::shared_ptr<MatchResult> Lumo::checkRegion(const Region& region, const std::string& tag,
                                               const CheckSettings& settings) {
  RegionProvider provider(std::make_shared<Region>(region));
  std::shared_ptr<MatchResult> result;
  checkWindowBase(&provider, tag, false, &settings,
                  [&result](std::shared_ptr<MatchResult> matched) { result = std::move(matched); });
  return result;
}

void Lumo::printMessageInCosole(const std::string& message) const {
  systemLog(fmt::format("New Message: {}", message));
}

void Lumo::logTestMethod() const { systemLog("Hey, it's a test method with EarlGrey API!"); }

std::string Lumo::getOSInfo() const {
  return source_->osDescription().value_or(LumoBase::getOSInfo());
}

std::string Lumo::getDeviceInfo() const {
  return source_->deviceName().value_or(LumoBase::getDeviceInfo());
}

std::shared_ptr<LumoScreenshot> Lumo::screenshot() {
  CapturedScreen captured = source_->captureScreen();
  return std::make_shared<ScaledScreenshot>(std::move(captured.image), std::move(captured.png));
}

}  // namespace lumo
