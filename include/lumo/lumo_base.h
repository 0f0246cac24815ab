#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "lumo/detail/app_output_provider_protocol.h"
#include "lumo/error.h"
#include "lumo/geometry.h"
#include "lumo/image_match_settings.h"
#include "lumo/match_level.h"
#include "lumo/region.h"
#include "lumo/wait_policy.h"

namespace lumo {
namespace detail {
class PendingCall;
}

class AppEnvironment;
class AppOutputWithScreenshot;
class BatchInfo;
class CheckSettingsInternalProtocol;
class LumoScreenshot;
class MatchResult;
class MatchWindowTask;
class PropertyHandlerProtocol;
class RegionProviderProtocol;
class RunningSession;
class ServerConnector;
class SessionStartInfo;
class TestResults;

// The session controller: the one object a UI test holds for a visual test. It carries the
// configuration, opens a test, starts the server session lazily on the first check, performs
// checks and closes the test with a verdict. Every public operation runs on the test's
// thread and blocks until the server has answered (at most one server-answer bound of the
// wait policy per step). Flavours subclass it and supply the screenshot through the protected
// hooks. Not copyable; destroying it while an abort's reply is on its way is safe.
class LumoBase : public AppOutputProviderProtocol {
 public:
  using CheckHandler = std::function<void(std::shared_ptr<MatchResult> result)>;
  using MatchHandler =
      std::function<void(std::shared_ptr<MatchResult> result, std::optional<Error> error)>;

  explicit LumoBase(std::string serverURL);
  ~LumoBase() override;
  LumoBase(const LumoBase&) = delete;
  LumoBase& operator=(const LumoBase&) = delete;

  // The service's public HTTPS endpoint (host only, no trailing slash).
  static std::string defaultServerURL();

  // --- Configuration -------------------------------------------------------------------
  const std::string& serverURL() const { return serverURL_; }
  void setServerURL(std::string serverURL) { serverURL_ = std::move(serverURL); }
  const std::optional<std::string>& apiKey() const { return apiKey_; }
  void setApiKey(std::optional<std::string> apiKey) { apiKey_ = std::move(apiKey); }
  // Replaced by a nameless batch at session start when unset (the property stays unset).
  const std::shared_ptr<BatchInfo>& batch() const { return batch_; }
  void setBatch(std::shared_ptr<BatchInfo> batch) { batch_ = std::move(batch); }
  // Each falls back to its environment variable at session start when empty.
  const std::optional<std::string>& branchName() const { return branchName_; }
  void setBranchName(std::optional<std::string> name) { branchName_ = std::move(name); }
  const std::optional<std::string>& parentBranchName() const { return parentBranchName_; }
  void setParentBranchName(std::optional<std::string> name) { parentBranchName_ = std::move(name); }
  const std::optional<std::string>& baselineBranchName() const { return baselineBranchName_; }
  void setBaselineBranchName(std::optional<std::string> name) {
    baselineBranchName_ = std::move(name);
  }
  const std::optional<std::string>& baselineEnvName() const { return baselineEnvName_; }
  // Stores the name with every blank removed; an empty name stores nothing.
  void setBaselineEnvName(const std::optional<std::string>& name);
  // Whole seconds a check may retry until the screen matches (default 2).
  std::uint64_t matchTimeout() const { return matchTimeout_; }
  // Accepts 0 and anything from 2 up; 1 throws "IllegalArgumentException".
  void setMatchTimeout(std::uint64_t seconds);
  const std::shared_ptr<ImageMatchSettings>& defaultMatchSettings() const {
    return defaultMatchSettings_;
  }
  void setDefaultMatchSettings(std::shared_ptr<ImageMatchSettings> settings) {
    defaultMatchSettings_ = std::move(settings);
  }
  // Forward to the default match settings.
  MatchLevel matchLevel() const;
  void setMatchLevel(MatchLevel matchLevel);
  bool ignoreCaret() const;
  void setIgnoreCaret(bool ignoreCaret);
  bool saveNewTests() const { return saveNewTests_; }
  void setSaveNewTests(bool save) { saveNewTests_ = save; }
  bool saveFailedTests() const { return saveFailedTests_; }
  void setSaveFailedTests(bool save) { saveFailedTests_ = save; }
  bool saveDiffs() const { return saveDiffs_; }
  void setSaveDiffs(bool save) { saveDiffs_ = save; }
  // User overrides of the environment description (hostOS is kept but not sent).
  const std::optional<std::string>& hostOS() const { return hostOS_; }
  void setHostOS(std::optional<std::string> text) { hostOS_ = std::move(text); }
  const std::optional<std::string>& osInfo() const { return osInfo_; }
  void setOsInfo(std::optional<std::string> text) { osInfo_ = std::move(text); }
  const std::optional<std::string>& hostingAppInfo() const { return hostingAppInfo_; }
  void setHostingAppInfo(std::optional<std::string> text) { hostingAppInfo_ = std::move(text); }
  const std::optional<std::string>& deviceInfo() const { return deviceInfo_; }
  void setDeviceInfo(std::optional<std::string> text) { deviceInfo_ = std::move(text); }
  // Optional prefix of the agent id sent with each session.
  const std::optional<std::string>& agentId() const { return agentId_; }
  void setAgentId(std::optional<std::string> agentId) { agentId_ = std::move(agentId); }
  // The waits and sleeps of every later operation; tests shorten them.
  const std::shared_ptr<const WaitPolicy>& waitPolicy() const { return waitPolicy_; }
  void setWaitPolicy(std::shared_ptr<const WaitPolicy> policy);

  // Adds a free-form property to the start record of the next session. Both must be
  // non-empty ("property name", "property value").
  void addProperty(const std::optional<std::string>& name, const std::optional<std::string>& value);

  // "<sdkName>/<version>", and with an agent id "<agentId> [<sdkName>/<version>]".
  std::string getBaseAgentId() const;
  std::string getFullAgentId() const;
  // Title of every checkpoint's output.
  virtual std::string title() const;
  // The environment sent with the session, from the overrides or the detected values.
  std::shared_ptr<AppEnvironment> appEnvironment() const;
  virtual std::string getOSInfo() const;
  virtual std::string getHostingAppInfo() const;
  virtual std::string getDeviceInfo() const;

  // --- Opening and the session ---------------------------------------------------------
  // Opens a test; no request is sent until the first check. Throws LumoException when the
  // API key is missing or a test is already open (after aborting that test).
  void openBase(const std::optional<std::string>& appName,
                const std::optional<std::string>& testName, Size viewportSize);
  // Starts the server session; the handler gets the connector's error, if any, on the
  // connector's worker thread.
  void startSession(std::function<void(std::optional<Error>)> completionHandler);

  // --- Checks --------------------------------------------------------------------------
  // One checkpoint of the area the provider gives (the whole screen when it gives nothing or
  // an empty region). Blocks until the server has judged it; the handler is called on this
  // thread with the result (null when none came). A mismatch is no error here: it surfaces at
  // close. Throws TestFailedException "--- Time-out exception" when the server stays silent.
  void checkWindowBase(const RegionProviderProtocol* regionProvider,
                       const std::optional<std::string>& tag, bool ignoreMismatch,
                       const CheckSettingsInternalProtocol* checkSettings,
                       CheckHandler completionHandler);
  void ensureRunningSession();
  void matchWindow(const RegionProviderProtocol* regionProvider, const std::string& tag,
                   bool ignoreMismatch, const CheckSettingsInternalProtocol* settings,
                   MatchHandler completionHandler);
  std::shared_ptr<AppOutputWithScreenshot> appOutputForRegion(
      const std::optional<Region>& region,
      const std::shared_ptr<LumoScreenshot>& lastSreenshot) override;
  // Takes, crops, downscales and encodes one screenshot; null when there is none.
  std::shared_ptr<AppOutputWithScreenshot> appOutputWithScreenshotForRegion(
      const std::optional<Region>& region, const std::shared_ptr<LumoScreenshot>& lastScreenshot);
  // PNG in base64 with CR LF after every 64 characters.
  std::string base64ScreenshotStringFromScreenshot(
      const std::shared_ptr<LumoScreenshot>& screenshot) const;
  void validateResult(const std::shared_ptr<MatchResult>& result, const std::string& tag);

  // --- Closing -------------------------------------------------------------------------
  // closeWithThrow(true, error).
  std::shared_ptr<TestResults> close(Error* error);
  // Ends the test and returns the server's results (empty ones when no session was started).
  // A new test, differences or a failed test raise NewTestException, DiffsFoundException or
  // TestFailedException when `throwException` is on, and are written to `error` otherwise
  // (which must then not be null). A silent server raises "--- Time-out exception" either way.
  std::shared_ptr<TestResults> closeWithThrow(bool throwException, Error* error);
  // Stops a running session as aborted without waiting; only logs "Closed" when there is none.
  void abortIfNotClosed();

  // --- State, for flavours and tests ---------------------------------------------------
  bool isOpen() const { return isOpen_; }
  const std::optional<std::string>& appName() const { return appName_; }
  const std::optional<std::string>& testName() const { return testName_; }
  const std::shared_ptr<SessionStartInfo>& sessionStartInfo() const { return sessionStartInfo_; }
  const std::shared_ptr<ServerConnector>& serverConnector() const { return serverConnector_; }
  const std::shared_ptr<MatchWindowTask>& matchWindowTask() const { return matchWindowTask_; }
  std::shared_ptr<RunningSession> runningSession() const;
  std::shared_ptr<TestResults> testResult() const;
  std::shared_ptr<LumoScreenshot> lastScreenshot() const;
  std::shared_ptr<MatchResult> matchResult() const;
  bool shouldMatchWindowRunOnceOnTimeout() const;
  // Why the latest session start failed, as the connector reported it; empty before any start,
  // after a successful one, and when the server answered without a usable session.
  std::optional<Error> sessionStartError() const;

 protected:
  // --- Hooks a flavour overrides -------------------------------------------------------
  const std::shared_ptr<PropertyHandlerProtocol>& viewportSizeHandler() const {
    return viewportSizeHandler_;
  }
  void setViewportSizeHandler(std::shared_ptr<PropertyHandlerProtocol> handler) {
    viewportSizeHandler_ = std::move(handler);
  }
  // The base getter always answers the zero size, whatever was stored.
  virtual Size viewportSize() const { return {}; }
  virtual void setViewportSize(Size size) { viewportSize_ = size; }
  // The current screen, or null.
  virtual std::shared_ptr<LumoScreenshot> screenshot();
  bool shouldCropStatusBar() const { return shouldCropStatusBar_; }
  void setShouldCropStatusBar(bool crop) { shouldCropStatusBar_ = crop; }
  // Pixels per point of the screenshot.
  virtual double scaleRatio() const { return 1.0; }
  // In points.
  virtual double statusBarHeight() const { return 0.0; }
  virtual std::string sdkName() const { return ""; }
  virtual std::string sdkBundleIdentifier() const { return ""; }

  void validateApiKey();
  void validateSessionOpen();

 private:
  struct SharedState;
  void startSessionCall(std::shared_ptr<detail::PendingCall> call,
                        std::function<void(std::optional<Error>)> completionHandler);
  static void validateResultLocked(SharedState& shared, const std::shared_ptr<MatchResult>& result,
                                   const std::string& tag);
  // Turns the results into the verdict's log line, error and (when throwing) exception.
  static void judge(const std::shared_ptr<TestResults>& results, const SessionStartInfo& startInfo,
                    const std::optional<std::string>& url, bool throwException,
                    std::optional<Error>& error, std::exception_ptr& exception);

  std::string serverURL_;
  std::optional<std::string> apiKey_;
  std::shared_ptr<BatchInfo> batch_;
  std::optional<std::string> branchName_;
  std::optional<std::string> parentBranchName_;
  std::optional<std::string> baselineBranchName_;
  std::optional<std::string> baselineEnvName_;
  std::uint64_t matchTimeout_ = 2;
  std::shared_ptr<ImageMatchSettings> defaultMatchSettings_;
  bool saveNewTests_ = true;
  bool saveFailedTests_ = false;
  bool saveDiffs_ = false;
  std::optional<std::string> hostOS_;
  std::optional<std::string> osInfo_;
  std::optional<std::string> hostingAppInfo_;
  std::optional<std::string> deviceInfo_;
  std::optional<std::string> agentId_;
  std::shared_ptr<const WaitPolicy> waitPolicy_ = WaitPolicy::standard();

  std::shared_ptr<PropertyHandlerProtocol> viewportSizeHandler_;
  Size viewportSize_;
  bool shouldCropStatusBar_ = false;

  std::shared_ptr<ServerConnector> serverConnector_;
  std::shared_ptr<SessionStartInfo> sessionStartInfo_;
  std::shared_ptr<MatchWindowTask> matchWindowTask_;
  std::optional<std::string> appName_;
  std::optional<std::string> testName_;
  bool isOpen_ = false;
  // What replies change on the connector's worker thread. Replies hold it weakly, so they
  // never keep a destroyed controller's state alive, and change it under its lock.
  std::shared_ptr<SharedState> shared_;
};

}  // namespace lumo
