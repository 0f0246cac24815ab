#include "core/match_window_task.h"

#include <fmt/format.h>

#include <utility>

#include "common/argument_guard.h"
#include "common/logger.h"
#include "common/match_window_data.h"
#include "common/options.h"
#include "connectivity/server_connector.h"
#include "core/app_output.h"
#include "core/app_output_with_screenshot.h"
#include "lumo/match_result.h"
#include "lumo/system_log.h"
#include "lumo/test_failed_exception.h"
#include "platform/expectation.h"
#include "platform/waiter.h"

namespace lumo {
namespace {

constexpr const char* kTimeOutReason = "--- Time-out exception";

// Where a retry round's completion leaves its values for the test thread. The completion may
// still arrive after its wait timed out, hence the lock.
class AttemptSlots {
 public:
  void store(std::shared_ptr<LumoScreenshot> screenshot, std::shared_ptr<MatchResult> result,
             std::optional<Error> error) {
    std::lock_guard lock(mutex_);
    screenshot_ = std::move(screenshot);
    result_ = std::move(result);
    error_ = std::move(error);
  }
  bool asExpected() const {
    std::lock_guard lock(mutex_);
    return result_ && result_->asExpected();
  }
  void deliver(const MatchWindowTask::AttemptHandler& handler) const {
    std::unique_lock lock(mutex_);
    auto screenshot = screenshot_;
    auto result = result_;
    auto error = error_;
    lock.unlock();
    if (handler) {
      handler(std::move(screenshot), std::move(result), std::move(error));
    }
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<LumoScreenshot> screenshot_;
  std::shared_ptr<MatchResult> result_;
  std::optional<Error> error_;
};

// Decides, under its own lock, whether an attempt's answer or its wait's time-out came first.
class AttemptState {
 public:
  // The answer: true when it counts for the wait, false when the wait has already given up.
  bool answer() {
    std::lock_guard lock(mutex_);
    answered_ = !abandoned_;
    return answered_;
  }
  // After the wait: true (and the attempt abandoned) unless the answer came first.
  bool giveUp() {
    std::lock_guard lock(mutex_);
    abandoned_ = !answered_;
    return abandoned_;
  }

 private:
  std::mutex mutex_;
  bool answered_ = false;
  bool abandoned_ = false;
};

}  // namespace

std::shared_ptr<MatchWindowTask> MatchWindowTask::create(
    std::shared_ptr<ServerConnector> serverConnector, std::shared_ptr<RunningSession> session,
    std::int64_t retryTimeout, AppOutputProviderProtocol* appOutputProvider,
    std::shared_ptr<const WaitPolicy> waitPolicy) {
  ArgumentGuard::notNil(serverConnector, "serverConnector");
  ArgumentGuard::notNil(session, "runningSession");
  ArgumentGuard::notNil(appOutputProvider, "appOutputProvider");
  return std::shared_ptr<MatchWindowTask>(
      new MatchWindowTask(std::move(serverConnector), std::move(session), retryTimeout,
                          appOutputProvider, std::move(waitPolicy)));
}

MatchWindowTask::MatchWindowTask(std::shared_ptr<ServerConnector> serverConnector,
                                 std::shared_ptr<RunningSession> session, std::int64_t retryTimeout,
                                 AppOutputProviderProtocol* appOutputProvider,
                                 std::shared_ptr<const WaitPolicy> waitPolicy)
    : serverConnector_(std::move(serverConnector)),
      runningSession_(std::move(session)),
      appOutputProvider_(appOutputProvider),
      defaultRetryTimeout_(retryTimeout),
      waitPolicy_(waitPolicy ? std::move(waitPolicy) : WaitPolicy::standard()) {}

void MatchWindowTask::matchWindow(const std::optional<Region>& region,
                                  const std::shared_ptr<LumoScreenshot>& /*lastScreenshot*/,
                                  const std::string& tag, bool shouldMatchWindowRunOnceOnTimeout,
                                  bool ignoreMismatch,
                                  const std::shared_ptr<ImageMatchSettings>& imageMatchSettings,
                                  std::int64_t retryTimeout, CompletionHandler completionHandler) {
  if (retryTimeout < 0) {
    retryTimeout = defaultRetryTimeout_;
  }
  Logger::logWithFormat("retryTimeout = {}", retryTimeout);
  std::weak_ptr<MatchWindowTask> weakSelf = weak_from_this();
  takeScreenshotRegion(region, tag, shouldMatchWindowRunOnceOnTimeout, ignoreMismatch,
                       imageMatchSettings, retryTimeout,
                       [weakSelf, ignoreMismatch, handler = std::move(completionHandler)](
                           std::shared_ptr<LumoScreenshot> screenshot,
                           std::shared_ptr<MatchResult> result, std::optional<Error> error) {
                         if (!ignoreMismatch) {
                           if (auto self = weakSelf.lock()) {
                             self->updateLastScreenshot(screenshot);
                           }
                         }
                         if (handler) {
                           handler(std::move(result), std::move(error));
                         }
                       });
}

void MatchWindowTask::takeScreenshotRegion(
    const std::optional<Region>& region, const std::string& tag,
    bool shouldMatchWindowRunOnceOnTimeout, bool ignoreMismatch,
    const std::shared_ptr<ImageMatchSettings>& imageMatchSetings, std::int64_t retryTimeout,
    AttemptHandler completionHandler) {
  if (retryTimeout != 0 && !shouldMatchWindowRunOnceOnTimeout) {
    retryTakingScreenshotOfRegion(region, tag, ignoreMismatch, imageMatchSetings, retryTimeout,
                                  std::move(completionHandler));
    return;
  }
  // After a mismatch (or in a new session) the screen gets the whole timeout to settle, then
  // exactly one attempt.
  if (shouldMatchWindowRunOnceOnTimeout) {
    waitPolicy_->sleepSeconds(retryTimeout);
  }
  tryTakeScreenshotOfRegion(region, tag, ignoreMismatch, imageMatchSetings,
                            std::move(completionHandler));
}

void MatchWindowTask::tryTakeScreenshotOfRegion(
    const std::optional<Region>& region, const std::string& tag, bool ignoreMismatch,
    const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
    AttemptHandler completionHandler) {
  auto appOutput = appOutputProvider_->appOutputForRegion(region, lastScreenshot());
  auto screenshot = appOutput ? appOutput->screenshot() : nullptr;
  performMatchWithAppOutput(appOutput, tag, ignoreMismatch, imageMatchSetings,
                            [screenshot, handler = std::move(completionHandler)](
                                std::shared_ptr<MatchResult> result, std::optional<Error> error) {
                              if (handler) {
                                handler(screenshot, std::move(result), std::move(error));
                              }
                            });
}

void MatchWindowTask::retryTakingScreenshotOfRegion(
    const std::optional<Region>& region, const std::string& tag, bool ignoreMismatch,
    const std::shared_ptr<ImageMatchSettings>& imageMatchSetings, std::int64_t retryTimeout,
    AttemptHandler completionHandler) {
  auto slots = std::make_shared<AttemptSlots>();
  // The caller's handler is shared with the attempts: an attempt answered after its wait gave
  // up (the check has then failed with the time-out) hands its late answer straight to it, so
  // that the controller still records it.
  auto handler = std::make_shared<const AttemptHandler>(completionHandler);
  auto attempt = [&](const char* description, bool ignore) {
    auto expectation = std::make_shared<Expectation>(description);
    auto state = std::make_shared<AttemptState>();
    tryTakeScreenshotOfRegion(
        region, tag, ignore, imageMatchSetings,
        [slots, expectation, state, handler](std::shared_ptr<LumoScreenshot> screenshot,
                                             std::shared_ptr<MatchResult> result,
                                             std::optional<Error> error) {
          if (!state->answer()) {
            if (*handler) {
              (*handler)(std::move(screenshot), std::move(result), std::move(error));
            }
            return;
          }
          slots->store(std::move(screenshot), std::move(result), std::move(error));
          expectation->fulfill();
        });
    Waiter::waitForExpectations({expectation},
                                std::chrono::duration<double>(waitPolicy_->serverAnswerSeconds()));
    // An answer that raced the time-out counts as in time.
    return state->giveUp() ? WaiterResult::TimedOut : WaiterResult::Completed;
  };

  const double start = waitPolicy_->nowSeconds();
  double elapsed = 0;
  while (static_cast<std::int64_t>(elapsed) < retryTimeout) {
    waitPolicy_->sleepSeconds(1);
    // Every round ignores mismatches, so that the server does not record a transient screen.
    const WaiterResult waited = attempt("Take screenshot expectation", true);
    if (slots->asExpected()) {
      break;
    }
    if (waited == WaiterResult::TimedOut) {
      throw TestFailedException(kTimeOutReason);
    }
    elapsed = waitPolicy_->nowSeconds() - start;
    // Goes to the system log untagged and prints the seconds spent, as it always has.
    systemLog(fmt::format("Retry timeout seconds left = {}", static_cast<std::int64_t>(elapsed)));
  }
  if (!slots->asExpected()) {
    if (attempt("Last attempt expectation", ignoreMismatch) == WaiterResult::TimedOut) {
      throw TestFailedException(kTimeOutReason);
    }
  }
  slots->deliver(completionHandler);
}

void MatchWindowTask::performMatchWithAppOutput(
    const std::shared_ptr<AppOutputWithScreenshot>& appOutput, const std::string& tag,
    bool ignoreMismatch, const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
    CompletionHandler completionHandler) {
  Options options(tag, ignoreMismatch, false, false, false, imageMatchSetings);
  // Only the title and image travel; the screenshot object stays on the client.
  auto matchData = std::make_shared<MatchWindowData>(
      appOutput ? appOutput->appOutput() : AppOutput(), tag, std::move(options));
  serverConnector_->matchWindowForSession(runningSession_, matchData, std::move(completionHandler));
}

void MatchWindowTask::updateLastScreenshot(const std::shared_ptr<LumoScreenshot>& screenshot) {
  if (!screenshot) {
    return;
  }
  std::lock_guard lock(mutex_);
  lastScreenshot_ = screenshot;
}

std::shared_ptr<LumoScreenshot> MatchWindowTask::lastScreenshot() const {
  std::lock_guard lock(mutex_);
  return lastScreenshot_;
}

}  // namespace lumo
