#include "lumo/lumo_base.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "common/argument_guard.h"
#include "common/environment_helper.h"
#include "common/error_builder.h"
#include "common/logger.h"
#include "common/lumo_screenshot.h"
#include "common/rectangle_size.h"
#include "connectivity/server_connector.h"
#include "core/app_output_with_screenshot.h"
#include "core/checkpoint_capture.h"
#include "core/fluent/match_settings_translation.h"
#include "core/fluent/region_provider_protocol.h"
#include "core/match_window_task.h"
#include "core/property_handler_protocol.h"
#include "core/simple_property_handler.h"
#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "lumo/detail/check_settings_internal_protocol.h"
#include "lumo/diffs_found_exception.h"
#include "lumo/exception.h"
#include "lumo/lumo_exception.h"
#include "lumo/match_result.h"
#include "lumo/new_test_exception.h"
#include "lumo/running_session.h"
#include "lumo/session_start_info.h"
#include "lumo/start_session_property.h"
#include "lumo/test_failed_exception.h"
#include "lumo/test_results.h"
#include "lumo/version.h"
#include "pending_call.h"
#include "platform/expectation.h"
#include "platform/host_info.h"
#include "platform/waiter.h"

namespace lumo {
namespace {

constexpr const char* kTimeOutReason = "--- Time-out exception";
constexpr std::uint64_t kMinimumMatchTimeout = 2;

bool isEmpty(const std::optional<std::string>& text) { return !text || text->empty(); }

// The property when set, else the environment variable: the configuration always wins.
std::optional<std::string> propertyOrEnvironment(const std::optional<std::string>& property,
                                                 const char* variable) {
  return isEmpty(property) ? EnvironmentHelper::environmentVariableForKey(variable) : property;
}

// Versions of the bundles this process knows by identifier; the library is its own bundle.
std::optional<std::string> bundleShortVersionString(const std::string& identifier) {
  if (identifier == "com.brixtel.lumo") {
    return kVersion;
  }
  return std::nullopt;
}

}  // namespace

struct LumoBase::SharedState {
  std::mutex mutex;
  std::shared_ptr<RunningSession> runningSession;
  std::shared_ptr<TestResults> testResult;
  std::shared_ptr<LumoScreenshot> lastScreenshot;
  std::shared_ptr<MatchResult> matchResult;
  bool shouldMatchWindowRunOnceOnTimeout = false;
  std::optional<Error> sessionStartError;
};

LumoBase::LumoBase(std::string serverURL)
    : serverURL_(std::move(serverURL)),
      defaultMatchSettings_(
          std::make_shared<ImageMatchSettings>(ImageMatchSettings::defaultImageMatchSettings())),
      sessionStartInfo_(std::make_shared<SessionStartInfo>()),
      shared_(std::make_shared<SharedState>()) {
  auto handler = std::make_shared<SimplePropertyHandler>();
  handler->setProperty(nullptr);
  viewportSizeHandler_ = std::move(handler);
}

LumoBase::~LumoBase() = default;

std::string LumoBase::defaultServerURL() { return "https://lumo.brixtel.com"; }

void LumoBase::setBaselineEnvName(const std::optional<std::string>& name) {
  if (isEmpty(name)) {
    baselineEnvName_.reset();
    return;
  }
  std::string stripped = *name;
  std::erase(stripped, ' ');
  baselineEnvName_ = std::move(stripped);
}

void LumoBase::setMatchTimeout(std::uint64_t seconds) {
  if (seconds != 0 && seconds < kMinimumMatchTimeout) {
    // The reason quotes the rejected value, not the minimum; callers have come to expect "> 1".
    throw illegalArgumentException(
        fmt::format("Match timeout must be set in seconds, and must be > {}", seconds));
  }
  matchTimeout_ = seconds;
}

MatchLevel LumoBase::matchLevel() const { return defaultMatchSettings_->matchLevel(); }
void LumoBase::setMatchLevel(MatchLevel matchLevel) {
  defaultMatchSettings_->setMatchLevel(matchLevel);
}
bool LumoBase::ignoreCaret() const { return defaultMatchSettings_->ignoreCaret(); }
void LumoBase::setIgnoreCaret(bool ignoreCaret) {
  defaultMatchSettings_->setIgnoreCaret(ignoreCaret);
}

void LumoBase::setWaitPolicy(std::shared_ptr<const WaitPolicy> policy) {
  waitPolicy_ = policy ? std::move(policy) : WaitPolicy::standard();
}

void LumoBase::addProperty(const std::optional<std::string>& name,
                           const std::optional<std::string>& value) {
  ArgumentGuard::notNilOrEmpty(name, "property name");
  ArgumentGuard::notNilOrEmpty(value, "property value");
  sessionStartInfo_->addProperty(StartSessionProperty(*name, *value));
}

std::string LumoBase::getBaseAgentId() const {
  return fmt::format("{}/{}", sdkName(),
                     textOrNull(bundleShortVersionString(sdkBundleIdentifier())));
}

std::string LumoBase::getFullAgentId() const {
  if (agentId_) {
    return fmt::format("{} [{}]", *agentId_, getBaseAgentId());
  }
  return getBaseAgentId();
}

std::string LumoBase::title() const { return "Base title"; }

std::shared_ptr<AppEnvironment> LumoBase::appEnvironment() const {
  Size viewport;
  if (auto size = viewportSizeHandler_->property<RectangleSize>()) {
    viewport = Size{size->width(), size->height()};
  }
  return std::make_shared<AppEnvironment>(
      isEmpty(osInfo_) ? getOSInfo() : *osInfo_,
      isEmpty(hostingAppInfo_) ? getHostingAppInfo() : *hostingAppInfo_,
      isEmpty(deviceInfo_) ? getDeviceInfo() : *deviceInfo_, viewport);
}

std::string LumoBase::getOSInfo() const { return HostInfo::operatingSystem(); }

std::string LumoBase::getHostingAppInfo() const { return "Test app"; }

std::string LumoBase::getDeviceInfo() const { return HostInfo::deviceName(); }

// --- Opening ---------------------------------------------------------------------------

void LumoBase::openBase(const std::optional<std::string>& appName,
                        const std::optional<std::string>& testName, Size viewportSize) {
  appName_ = isEmpty(appName) ? "Application name" : *appName;
  testName_ = isEmpty(testName) ? "Test name" : *testName;
  validateApiKey();
  validateSessionOpen();
  Logger::logWithFormat("Lumo server URL is {}", serverURL_);
  Logger::logWithFormat("Default match settings = {}", defaultMatchSettings_->description());
  viewportSizeHandler_->setProperty(std::make_shared<RectangleSize>(viewportSize));
  serverConnector_ = ServerConnector::connectorWithServerURL(serverURL_, apiKey_);
  isOpen_ = true;
}

void LumoBase::validateApiKey() {
  if (isEmpty(apiKey_)) {
    constexpr const char* kMessage = "API key is missing! Please set it using setApiKey()";
    Logger::log(kMessage);
    throw LumoException(kMessage);
  }
}

void LumoBase::validateSessionOpen() {
  if (isOpen_) {
    abortIfNotClosed();
    constexpr const char* kMessage = "A test is already running";
    Logger::log(kMessage);
    throw LumoException(kMessage);
  }
}

void LumoBase::startSession(std::function<void(std::optional<Error>)> completionHandler) {
  startSessionCall(nullptr, std::move(completionHandler));
}

void LumoBase::startSessionCall(std::shared_ptr<detail::PendingCall> call,
                                std::function<void(std::optional<Error>)> completionHandler) {
  Logger::log("No running session, calling start session..");
  auto environment = appEnvironment();
  auto batch = batch_;
  if (!batch) {
    Logger::log("No batch set");
    batch = std::make_shared<BatchInfo>(std::nullopt);
  }
  sessionStartInfo_->setupWithAgentId(
      getFullAgentId(), appName_, testName_, baselineEnvName_, environment, batch,
      propertyOrEnvironment(branchName_, "BRIXTEL_BRANCH"),
      propertyOrEnvironment(parentBranchName_, "BRIXTEL_PARENT_BRANCH"),
      propertyOrEnvironment(baselineBranchName_, "BRIXTEL_BASELINE_BRANCH"), saveDiffs_,
      defaultMatchSettings_);
  Logger::log("Starting server session...");
  {
    std::lock_guard lock(shared_->mutex);
    shared_->sessionStartError.reset();
  }
  auto text = fmt::format("'{}' of '{}' {}", textOrNull(testName_), textOrNull(appName_),
                          environment->description());
  serverConnector_->startSessionWithInfo(
      *sessionStartInfo_, [weakShared = std::weak_ptr<SharedState>(shared_), call,
                           text = std::move(text), handler = std::move(completionHandler)](
                              std::shared_ptr<RunningSession> session, std::optional<Error> error) {
        auto shared = weakShared.lock();
        if (!shared) {
          return;
        }
        auto apply = [&](bool inTime) {
          if (error) {
            shared->sessionStartError = error;
          }
          if (error || !session) {
            return;
          }
          // A start answered after its wait gave up is still the test's session, unless a later
          // start has already put one in place.
          if (!inTime && shared->runningSession) {
            return;
          }
          shared->runningSession = session;
          shared->shouldMatchWindowRunOnceOnTimeout = session->isNewSession();
          if (session->isNewSession()) {
            Logger::logWithFormat("--- New test started - {}", text);
          } else {
            Logger::logWithFormat("--- Test started - {}", text);
          }
          Logger::log("Done!");
        };
        if (call) {
          // The blocking caller's handler only logs; it must run before the waiter wakes.
          call->complete(shared->mutex, [&](bool inTime) {
            apply(inTime);
            if (handler) {
              handler(error);
            }
          });
        } else {
          {
            std::lock_guard lock(shared->mutex);
            apply(true);
          }
          if (handler) {
            handler(error);
          }
        }
      });
}

// --- Checks ----------------------------------------------------------------------------

void LumoBase::checkWindowBase(const RegionProviderProtocol* regionProvider,
                               const std::optional<std::string>& tag, bool ignoreMismatch,
                               const CheckSettingsInternalProtocol* checkSettings,
                               CheckHandler completionHandler) {
  const std::string checkTag = tag.value_or("");
  ensureRunningSession();
  auto call = std::make_shared<detail::PendingCall>("Check window expectation");
  // This check's own result, for its handler: a late answer of an earlier check may change
  // matchResult meanwhile.
  auto answered = std::make_shared<std::shared_ptr<MatchResult>>();
  matchWindow(regionProvider, checkTag, ignoreMismatch, checkSettings,
              [weakShared = std::weak_ptr<SharedState>(shared_), call, answered, checkTag,
               ignoreMismatch](std::shared_ptr<MatchResult> result, std::optional<Error> error) {
                auto shared = weakShared.lock();
                if (!shared) {
                  return;
                }
                // Stored even when the wait has given up: a late mismatch still makes later
                // checks run once.
                call->complete(shared->mutex, [&](bool inTime) {
                  if (error) {
                    Logger::logWithFormat("Failed to check: {}", error->localizedDescription());
                  }
                  shared->matchResult = result;
                  if (inTime) {
                    *answered = result;
                  }
                  if (result && result->asExpected()) {
                    shared->lastScreenshot = result->screenshot();
                  } else {
                    if (!ignoreMismatch) {
                      shared->lastScreenshot = result ? result->screenshot() : nullptr;
                    }
                    validateResultLocked(*shared, result, checkTag);
                  }
                  Logger::log("Done!");
                });
              });
  if (!call->wait(shared_->mutex, waitPolicy_->serverAnswerSeconds())) {
    throw TestFailedException(kTimeOutReason);
  }
  std::shared_ptr<MatchResult> result;
  {
    std::lock_guard lock(shared_->mutex);
    result = *answered;
  }
  if (completionHandler) {
    completionHandler(result);
  }
}

void LumoBase::ensureRunningSession() {
  if (auto session = runningSession()) {
    // A start answered after its wait gave up left a session but no task for it.
    if (!matchWindowTask_ || matchWindowTask_->runningSession() != session) {
      matchWindowTask_ = MatchWindowTask::create(
          serverConnector_, session, static_cast<std::int64_t>(matchTimeout_), this, waitPolicy_);
    }
    return;
  }
  Logger::log("No running session, calling start session..");
  auto call = std::make_shared<detail::PendingCall>("Start session expectation");
  startSessionCall(call, [](std::optional<Error> error) {
    if (error) {
      Logger::logWithFormat("Failed to start session: {}", error->localizedDescription());
    }
  });
  if (!call->wait(shared_->mutex, waitPolicy_->serverAnswerSeconds())) {
    throw TestFailedException(kTimeOutReason);
  }
  auto session = runningSession();
  if (!session) {
    close(nullptr);
    return;
  }
  matchWindowTask_ = MatchWindowTask::create(
      serverConnector_, session, static_cast<std::int64_t>(matchTimeout_), this, waitPolicy_);
}

void LumoBase::matchWindow(const RegionProviderProtocol* regionProvider, const std::string& tag,
                           bool ignoreMismatch, const CheckSettingsInternalProtocol* settings,
                           MatchHandler completionHandler) {
  std::shared_ptr<ImageMatchSettings> imageMatchSettings;
  std::int64_t retryTimeout = -1;
  if (settings) {
    retryTimeout = static_cast<std::int64_t>(settings->getTimeoutInSeconds());
    imageMatchSettings = std::make_shared<ImageMatchSettings>(MatchSettingsTranslation::translate(
        *settings, defaultMatchSettings_->matchLevel(), statusBarHeight(), shouldCropStatusBar_));
  }
  Logger::log("Calling match window...");
  std::optional<Region> region;
  if (regionProvider) {
    if (auto provided = regionProvider->getRegion()) {
      region = *provided;
    }
  }
  if (!matchWindowTask_ || matchWindowTask_->runningSession() != runningSession()) {
    // The session start was refused and the test closed. Nothing could answer this check (or
    // only the stopped session of an earlier test, through its task), so its wait could only
    // run out: it fails at once with the time-out's own exception instead of after the bound.
    throw TestFailedException(kTimeOutReason);
  }
  matchWindowTask_->matchWindow(region, lastScreenshot(), tag, shouldMatchWindowRunOnceOnTimeout(),
                                ignoreMismatch, imageMatchSettings, retryTimeout,
                                std::move(completionHandler));
}

std::shared_ptr<AppOutputWithScreenshot> LumoBase::appOutputForRegion(
    const std::optional<Region>& region, const std::shared_ptr<LumoScreenshot>& lastSreenshot) {
  return appOutputWithScreenshotForRegion(region, lastSreenshot);
}

std::shared_ptr<AppOutputWithScreenshot> LumoBase::appOutputWithScreenshotForRegion(
    const std::optional<Region>& region, const std::shared_ptr<LumoScreenshot>& /*last*/) {
  Logger::log("Getting screenshot...");
  auto shot = screenshot();
  if (!shot) {
    return nullptr;
  }
  Logger::log("Done getting screenshot!");
  return CheckpointCapture::capture(
      shot, {region, scaleRatio(), shouldCropStatusBar_, statusBarHeight()}, title());
}

std::string LumoBase::base64ScreenshotStringFromScreenshot(
    const std::shared_ptr<LumoScreenshot>& screenshot) const {
  return CheckpointCapture::base64Png(screenshot);
}

void LumoBase::validateResult(const std::shared_ptr<MatchResult>& result, const std::string& tag) {
  std::lock_guard lock(shared_->mutex);
  validateResultLocked(*shared_, result, tag);
}

void LumoBase::validateResultLocked(SharedState& shared, const std::shared_ptr<MatchResult>& result,
                                    const std::string& tag) {
  if (result && result->asExpected()) {
    return;
  }
  // After a mismatch the screen is known to differ: later checks make one attempt only.
  shared.shouldMatchWindowRunOnceOnTimeout = true;
  if (shared.runningSession && !shared.runningSession->isNewSession()) {
    Logger::logWithFormat("Mismatch! ({})", tag);
  }
}

// --- Closing ---------------------------------------------------------------------------

std::shared_ptr<TestResults> LumoBase::close(Error* error) { return closeWithThrow(true, error); }

std::shared_ptr<TestResults> LumoBase::closeWithThrow(bool throwException, Error* error) {
  isOpen_ = false;
  auto session = runningSession();
  if (!session) {
    Logger::log("Server session was not started");
    Logger::log("--- Empty test ended.");
    return std::make_shared<TestResults>();
  }
  Logger::log("Ending server session...");
  const bool save = session->isNewSession() ? saveNewTests_ : saveFailedTests_;
  Logger::logWithFormat("Automatically save test? {}", yesNo(save));
  const std::optional<std::string> url = session->url();

  // The verdict's two slots: filled by the reply, read only after the wait.
  auto slots = std::make_shared<std::pair<std::optional<Error>, std::exception_ptr>>();

  auto call = std::make_shared<detail::PendingCall>("Check window expectation");
  serverConnector_->stopSession(
      *session, false, save,
      [weakShared = std::weak_ptr<SharedState>(shared_), call, slots, url, throwException, session,
       startInfo = sessionStartInfo_](std::shared_ptr<TestResults> results,
                                      std::optional<Error> /*error*/) {
        auto shared = weakShared.lock();
        if (!shared) {
          return;
        }
        // Applied even after the wait gave up, so that the next test does not reuse the
        // stopped session; a session started since then stays.
        call->complete(shared->mutex, [&](bool inTime) {
          if (results) {
            shared->testResult = results;
            judge(results, *startInfo, url, throwException, slots->first, slots->second);
          }
          if (inTime || shared->runningSession == session) {
            shared->lastScreenshot = nullptr;
          }
          if (shared->runningSession == session) {
            shared->runningSession = nullptr;
          }
        });
      });
  if (!call->wait(shared_->mutex, waitPolicy_->serverAnswerSeconds())) {
    // The time-out error is made and deliberately never delivered: the exception says it all.
    (void)ErrorBuilder::errorWithDescription("--- Time-out");
    throw TestFailedException(kTimeOutReason);
  }
  if (slots->second) {
    std::rethrow_exception(slots->second);
  }
  if (slots->first) {
    ArgumentGuard::notNil(error, "error");
    *error = *slots->first;
  }
  return testResult();
}

void LumoBase::judge(const std::shared_ptr<TestResults>& results, const SessionStartInfo& startInfo,
                     const std::optional<std::string>& url, bool throwException,
                     std::optional<Error>& error, std::exception_ptr& exception) {
  switch (results->status()) {
    case TestResultsStatusUnresolved:
      if (results->isNew()) {
        Logger::logWithFormat("--- New test ended. Please approve the new baseline at {}",
                              textOrNull(url));
        error = ErrorBuilder::errorWithTestResults(results, startInfo, TestErrorTypeNewTest);
        if (throwException) {
          exception = std::make_exception_ptr(NewTestException(results, startInfo));
        }
      } else {
        Logger::logWithFormat("--- Failed test ended. See details at {}", textOrNull(url));
        error = ErrorBuilder::errorWithTestResults(results, startInfo, TestErrorTypeDiffsFound);
        if (throwException) {
          exception = std::make_exception_ptr(DiffsFoundException(results, startInfo));
        }
      }
      break;
    case TestResultsStatusFailed:
      Logger::logWithFormat("--- Failed test ended. See details at {}", textOrNull(url));
      error = ErrorBuilder::errorWithTestResults(results, startInfo, TestErrorTypeFailed);
      if (throwException) {
        exception = std::make_exception_ptr(TestFailedException(results, startInfo));
      }
      break;
    default:
      Logger::logWithFormat("--- Test passed. See details at {}", textOrNull(url));
      break;
  }
}

void LumoBase::abortIfNotClosed() {
  auto session = runningSession();
  if (!session) {
    Logger::log("Closed");
    return;
  }
  isOpen_ = false;
  serverConnector_->stopSession(
      *session, true, false,
      [weakShared = std::weak_ptr<SharedState>(shared_), session](
          std::shared_ptr<TestResults> results, std::optional<Error> error) {
        auto shared = weakShared.lock();
        if (!shared) {
          return;
        }
        std::lock_guard lock(shared->mutex);
        shared->testResult = std::move(results);
        shared->lastScreenshot = nullptr;
        Logger::log("--- Test aborted.");
        // A later test may have started its own session meanwhile; that one stays.
        if (shared->runningSession == session) {
          shared->runningSession = nullptr;
        }
        if (error) {
          Logger::logWithFormat("Failed to abort server session: {}",
                                error->localizedDescription());
        }
      });
}

// --- State -----------------------------------------------------------------------------

std::shared_ptr<RunningSession> LumoBase::runningSession() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->runningSession;
}

std::shared_ptr<TestResults> LumoBase::testResult() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->testResult;
}

std::shared_ptr<LumoScreenshot> LumoBase::lastScreenshot() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->lastScreenshot;
}

std::shared_ptr<MatchResult> LumoBase::matchResult() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->matchResult;
}

std::optional<Error> LumoBase::sessionStartError() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->sessionStartError;
}

bool LumoBase::shouldMatchWindowRunOnceOnTimeout() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->shouldMatchWindowRunOnceOnTimeout;
}

std::shared_ptr<LumoScreenshot> LumoBase::screenshot() { return nullptr; }

}  // namespace lumo
