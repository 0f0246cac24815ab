#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "lumo/detail/app_output_provider_protocol.h"
#include "lumo/error.h"
#include "lumo/image_match_settings.h"
#include "lumo/region.h"
#include "lumo/wait_policy.h"

namespace lumo {

class AppOutputWithScreenshot;
class LumoScreenshot;
class MatchResult;
class RunningSession;
class ServerConnector;

// Performs the checkpoints of one running session: asks its provider for the application's
// output, posts it as a match-window record and, with a retry timeout, repeats once a second
// (ignoring mismatches) until the server answers as expected or the time is spent, then makes
// a last attempt with the caller's own flag. Made and used by the controller on the test
// thread; always owned by a shared_ptr, since completions refer to it weakly.
class MatchWindowTask : public std::enable_shared_from_this<MatchWindowTask> {
 public:
  using CompletionHandler =
      std::function<void(std::shared_ptr<MatchResult> result, std::optional<Error> error)>;
  using AttemptHandler =
      std::function<void(std::shared_ptr<LumoScreenshot> screenshot,
                         std::shared_ptr<MatchResult> result, std::optional<Error> error)>;

  // Guards each of the three collaborators against null ("serverConnector", "runningSession",
  // "appOutputProvider"). The provider is not owned and must outlive the task.
  static std::shared_ptr<MatchWindowTask> create(
      std::shared_ptr<ServerConnector> serverConnector, std::shared_ptr<RunningSession> session,
      std::int64_t retryTimeout, AppOutputProviderProtocol* appOutputProvider,
      std::shared_ptr<const WaitPolicy> waitPolicy = WaitPolicy::standard());

  // One checkpoint. A negative retry timeout means the default one. With a non-zero timeout
  // and `shouldMatchWindowRunOnceOnTimeout` off, runs the retry loop and blocks the calling
  // thread until the handler has been called; otherwise makes one attempt (after sleeping the
  // timeout when the flag is on) whose handler runs on the connector's worker thread. Throws
  // TestFailedException "--- Time-out exception" when a retry round or the last attempt gets
  // no answer in time. `lastScreenshot` is accepted and unused: the provider is always given
  // the task's own.
  void matchWindow(const std::optional<Region>& region,
                   const std::shared_ptr<LumoScreenshot>& lastScreenshot, const std::string& tag,
                   bool shouldMatchWindowRunOnceOnTimeout, bool ignoreMismatch,
                   const std::shared_ptr<ImageMatchSettings>& imageMatchSettings,
                   std::int64_t retryTimeout, CompletionHandler completionHandler);

  // Chooses between one attempt and the retry loop.
  void takeScreenshotRegion(const std::optional<Region>& region, const std::string& tag,
                            bool shouldMatchWindowRunOnceOnTimeout, bool ignoreMismatch,
                            const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                            std::int64_t retryTimeout, AttemptHandler completionHandler);
  // One capture and post.
  void tryTakeScreenshotOfRegion(const std::optional<Region>& region, const std::string& tag,
                                 bool ignoreMismatch,
                                 const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                                 AttemptHandler completionHandler);
  // Rounds one second apart until as expected or out of time, then a last attempt.
  void retryTakingScreenshotOfRegion(const std::optional<Region>& region, const std::string& tag,
                                     bool ignoreMismatch,
                                     const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                                     std::int64_t retryTimeout, AttemptHandler completionHandler);
  // Wraps the output into a match-window record and posts it.
  void performMatchWithAppOutput(const std::shared_ptr<AppOutputWithScreenshot>& appOutput,
                                 const std::string& tag, bool ignoreMismatch,
                                 const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                                 CompletionHandler completionHandler);
  // Keeps `screenshot` as the last one; null leaves the stored one in place.
  void updateLastScreenshot(const std::shared_ptr<LumoScreenshot>& screenshot);

  const std::shared_ptr<ServerConnector>& serverConnector() const { return serverConnector_; }
  const std::shared_ptr<RunningSession>& runningSession() const { return runningSession_; }
  std::shared_ptr<LumoScreenshot> lastScreenshot() const;
  std::int64_t defaultRetryTimeout() const { return defaultRetryTimeout_; }

 private:
  MatchWindowTask(std::shared_ptr<ServerConnector> serverConnector,
                  std::shared_ptr<RunningSession> session, std::int64_t retryTimeout,
                  AppOutputProviderProtocol* appOutputProvider,
                  std::shared_ptr<const WaitPolicy> waitPolicy);

  std::shared_ptr<ServerConnector> serverConnector_;
  std::shared_ptr<RunningSession> runningSession_;
  AppOutputProviderProtocol* appOutputProvider_;
  std::int64_t defaultRetryTimeout_;
  std::shared_ptr<const WaitPolicy> waitPolicy_;

  // A single attempt's completion updates the last screenshot on the worker thread.
  mutable std::mutex mutex_;
  std::shared_ptr<LumoScreenshot> lastScreenshot_;
};

}  // namespace lumo
