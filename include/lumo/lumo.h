#pragma once

#include <memory>
#include <string>

#include "lumo/check_settings.h"
#include "lumo/lumo_base.h"
#include "lumo/screenshot_source.h"

namespace lumo {

class MatchResult;

// The controller a C++ UI test uses: construct it with a server URL and a screenshot source,
// set the API key, open, check, close.
//
//   lumo::Lumo lumo("https://lumo.example:8088", source);
//   lumo.setApiKey("secret");
//   lumo.open("Shop", "Login", {390, 844});
//   lumo.check("Login screen", lumo::CheckSettings().ignore({clock}));
//   lumo.close(nullptr);  // throws NewTestException, DiffsFoundException, ...
//
// Screenshots come from the source in pixels and are brought to points with its scale ratio
// before they are sent, so regions are always given in points.
class Lumo : public LumoBase {
 public:
  Lumo(std::string serverURL, std::shared_ptr<ScreenshotSource> source);

  // Opens a visual test of `viewportSize` points (see LumoBase::openBase).
  void open(const std::string& appName, const std::string& testName, Size viewportSize);

  // One checkpoint of the whole screen, or of the settings' target region when it is set.
  // Returns the server's judgement (null when none came); mismatches surface at close.
  std::shared_ptr<MatchResult> check(const std::string& tag,
                                     const CheckSettings& settings = CheckSettings());
  // One checkpoint of `region` (in points).
  std::shared_ptr<MatchResult> checkRegion(const Region& region, const std::string& tag,
                                           const CheckSettings& settings = CheckSettings());

  // Cuts the source's status bar off every full-screen checkpoint and shifts the regions.
  using LumoBase::setShouldCropStatusBar;
  using LumoBase::shouldCropStatusBar;

  const std::shared_ptr<ScreenshotSource>& source() const { return source_; }

  // Diagnostics: "New Message: <message>" and a fixed line, both straight to the system log.
  void printMessageInCosole(const std::string& message) const;
  template <typename Matcher>
  void testMethodWithMatcher(const Matcher&) const {
    logTestMethod();
  }

  std::string getOSInfo() const override;
  std::string getDeviceInfo() const override;

 protected:
  std::shared_ptr<LumoScreenshot> screenshot() override;
  double scaleRatio() const override { return source_->scaleRatio(); }
  double statusBarHeight() const override { return source_->statusBarHeight(); }
  std::string sdkName() const override { return "lumo.cpp"; }
  std::string sdkBundleIdentifier() const override { return "com.brixtel.lumo"; }

 private:
  void logTestMethod() const;

  std::shared_ptr<ScreenshotSource> source_;
};

}  // namespace lumo
