#include "check_command.h"

#include <errno.h>
#include <fmt/format.h>
#include <fmt/ostream.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <mutex>
#include <ostream>

#include "exit_status.h"
#include "lumo/batch_info.h"
#include "lumo/check_settings.h"
#include "lumo/error.h"
#include "lumo/exception.h"
#include "lumo/lumo.h"
#include "lumo/match_result.h"
#include "lumo/running_session.h"
#include "lumo/screenshot_source.h"
#include "lumo/system_log.h"
#include "lumo/test_failed_exception.h"
#include "lumo/test_results.h"
#include "platform/png.h"
#include "report.h"

namespace lumo::cli {
namespace {

// The screen of the checkpoint being made. A check may capture several times (its retries),
// and every capture must show the same screen, so the queueing sources do not fit.
class CheckpointSource : public ScreenshotSource {
 public:
  void setScreen(CapturedScreen screen) { screen_ = std::move(screen); }
  ImagePtr capture() override { return screen_.image; }
  CapturedScreen captureScreen() override { return screen_; }

 private:
  CapturedScreen screen_;
};

// The file's bytes, which a checkpoint that keeps the screen as it is sends as they are.
CapturedScreen readPng(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    throw UsageError(fmt::format("cannot read image {}: {}", file.string(), std::strerror(errno)));
  }
  std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                  std::istreambuf_iterator<char>()};
  if (in.bad()) {
    throw UsageError(fmt::format("cannot read image {}", file.string()));
  }
  try {
    checkPng(bytes);
  } catch (const PngError& e) {
    throw UsageError(fmt::format("cannot read image {}: {}", file.string(), e.what()));
  }
  // Decoded only if the checkpoint needs the pixels (a region, a status-bar cut, a scale).
  return {nullptr, std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes))};
}

// A screen's size in pixels, from its header when it is not decoded.
Size pixelSize(const CapturedScreen& screen) {
  if (screen.image) {
    return {static_cast<double>(screen.image->width()),
            static_cast<double>(screen.image->height())};
  }
  const auto [width, height] = checkPng(*screen.png);
  return {static_cast<double>(width), static_cast<double>(height)};
}

// The target region must lie on every screen, or the library would fail mid-test.
void checkRegionFits(const Region& region, Size pixels, double scale, std::string_view screen) {
  const Rect bounds(0, 0, pixels.width / scale, pixels.height / scale);
  if (!bounds.contains(region.rect())) {
    throw UsageError(fmt::format("--region {},{},{},{} does not lie on {} ({}x{} points)",
                                 region.left(), region.top(), region.width(), region.height(),
                                 screen, bounds.size.width, bounds.size.height));
  }
}

CheckSettings settingsOf(const CheckOptions& o) {
  CheckSettings settings = CheckSettings().timeoutInSeconds(o.matchTimeout);
  if (o.ignoreCaret) {
    settings = settings.ignoreCaret();
  }
  if (!o.ignore.empty()) {
    settings = settings.ignore(o.ignore);
  }
  if (!o.layout.empty()) {
    settings = settings.layout(o.layout);
  }
  if (!o.strict.empty()) {
    settings = settings.strict(o.strict);
  }
  if (!o.content.empty()) {
    settings = settings.content(o.content);
  }
  for (const FloatingArgument& f : o.floating) {
    settings = settings.floating(f.region, f.maxUp, f.maxDown, f.maxRight, f.maxLeft);
  }
  return settings;
}

// "<app> <test> <local date and time>": a batch a reviewer can tell apart in the server's list
// without --batch. A batch name from the environment still wins, as the library gives it.
std::optional<std::string> batchName(const CheckOptions& o) {
  if (o.batch) {
    return o.batch;
  }
  const char* fromEnvironment = std::getenv("BRIXTEL_BATCH_NAME");
  if (fromEnvironment && *fromEnvironment) {
    return std::nullopt;
  }
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char when[32];
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", &local);
  return fmt::format("{} {} {}", o.appName, o.testName, when);
}

void configure(Lumo& lumo, const CheckOptions& o) {
  lumo.setApiKey(o.apiKey);
  if (const auto name = batchName(o)) {
    lumo.setBatch(std::make_shared<BatchInfo>(*name));
  }
  if (o.branch) {
    lumo.setBranchName(*o.branch);
  }
  if (o.parentBranch) {
    lumo.setParentBranchName(*o.parentBranch);
  }
  if (o.baselineBranch) {
    lumo.setBaselineBranchName(*o.baselineBranch);
  }
  if (o.baselineEnv) {
    lumo.setBaselineEnvName(*o.baselineEnv);
  }
  if (o.matchLevel) {
    lumo.setMatchLevel(*o.matchLevel);
  }
  lumo.setMatchTimeout(o.matchTimeout);
  if (o.saveNewTests) {
    lumo.setSaveNewTests(*o.saveNewTests);
  }
  if (o.saveFailedTests) {
    lumo.setSaveFailedTests(*o.saveFailedTests);
  }
  lumo.setSaveDiffs(o.saveDiffs);
  for (const auto& [name, value] : o.properties) {
    lumo.addProperty(name, value);
  }
  lumo.setShouldCropStatusBar(o.cropStatusBar);
  if (o.waitPolicy) {
    lumo.setWaitPolicy(o.waitPolicy);
  }
}

std::string checkpointState(const RunningSession& session,
                            const std::shared_ptr<MatchResult>& result) {
  if (!result) {
    return "no answer";
  }
  if (session.isNewSession()) {
    return "new";
  }
  return result->asExpected() ? "matched" : "did not match";
}

int runTest(const CheckOptions& o, std::ostream& out, std::ostream& err, TestReport& report) {
  // Every screen is read before the server hears of the test.
  std::shared_ptr<ScreenshotSource> source;
  std::shared_ptr<CheckpointSource> checkpointSource;
  std::vector<CapturedScreen> screens;
  if (o.captureCommand) {
    auto command = std::make_shared<CommandScreenshotSource>(*o.captureCommand);
    try {
      screens.push_back({command->capture(), nullptr});
    } catch (const std::exception& e) {
      throw UsageError(fmt::format("cannot capture the screen: {}", e.what()));
    }
    source = command;
  } else {
    for (const Checkpoint& checkpoint : o.checkpoints) {
      screens.push_back(checkpoint.image ? CapturedScreen{checkpoint.image, nullptr}
                                         : readPng(checkpoint.file));
    }
    checkpointSource = std::make_shared<CheckpointSource>();
    source = checkpointSource;
  }
  if (o.targetRegion) {
    for (std::size_t i = 0; i < screens.size(); ++i) {
      const std::string screen = o.captureCommand || o.checkpoints[i].image
                                     ? fmt::format("the screen \"{}\"", o.checkpoints[i].tag)
                                     : o.checkpoints[i].file.string();
      checkRegionFits(*o.targetRegion, pixelSize(screens[i]), o.scale, screen);
    }
  }
  source->setScaleRatio(o.scale);
  source->setStatusBarHeight(o.statusBarHeight);
  const Size first = pixelSize(screens.front());
  const Size viewport = o.viewport.value_or(Size{first.width / o.scale, first.height / o.scale});

  Lumo lumo(o.serverURL, source);
  configure(lumo, o);
  const CheckSettings settings = settingsOf(o);
  try {
    lumo.open(o.appName, o.testName, viewport);
    // Started before the first checkpoint, so that a server that cannot be reached or will
    // not start a session is told apart from one that judges the screens.
    lumo.ensureRunningSession();
    const auto session = lumo.runningSession();
    if (!session) {
      const auto startError = lumo.sessionStartError();
      fmt::print(err, "lumo check: cannot reach the server at {}: {}\n", o.serverURL,
                 startError ? startError->localizedDescription()
                            : std::string("it did not start a session"));
      return kExitUnreachable;
    }
    if (!session->sessionId()) {
      lumo.abortIfNotClosed();
      fmt::print(err,
                 "lumo check: the server at {} did not start a session (is the API key right?)\n",
                 o.serverURL);
      return kExitUnreachable;
    }
    report.sessionUrl = session->url();
    for (std::size_t i = 0; i < o.checkpoints.size(); ++i) {
      const std::string& tag = o.checkpoints[i].tag;
      if (checkpointSource) {
        checkpointSource->setScreen(screens[i]);
      }
      const auto result = o.targetRegion ? lumo.checkRegion(*o.targetRegion, tag, settings)
                                         : lumo.check(tag, settings);
      report.checkpoints[i].verdict = checkpointState(*session, result);
      fmt::print(out, "{}: {}\n", tag, report.checkpoints[i].verdict);
      out.flush();
    }
  } catch (const TestFailedException& e) {
    // The library's only failure while checking: a wait for the server that ran out.
    lumo.abortIfNotClosed();
    fmt::print(err, "lumo check: the server at {} did not answer in time ({})\n", o.serverURL,
               e.reason());
    return kExitUnreachable;
  } catch (const Exception& e) {
    lumo.abortIfNotClosed();
    fmt::print(err, "lumo check: the test failed: {}\n", e.reason());
    return kExitDifferences;
  }

  Error error;
  std::shared_ptr<TestResults> results;
  // Close hands back the earlier results when the stop got no verdict; only new ones count.
  const auto earlier = lumo.testResult();
  try {
    results = lumo.closeWithThrow(false, &error);
    report.results = results;
  } catch (const TestFailedException& e) {
    fmt::print(err, "lumo check: the server at {} did not answer in time ({})\n", o.serverURL,
               e.reason());
    return kExitUnreachable;
  }
  if (!results || results == earlier) {
    fmt::print(err, "lumo check: the server at {} gave no verdict\n", o.serverURL);
    return kExitUnreachable;
  }
  if (results->status() == TestResultsStatusPassed) {
    fmt::print(out, "Test passed. See details at {}\n",
               results->url().value_or(report.sessionUrl.value_or("(null)")));
    return kExitPassed;
  }
  fmt::print(out, "{}\n", error.localizedDescription());
  const bool isNew = results->status() == TestResultsStatusUnresolved && results->isNew();
  return isNew ? kExitNewTest : kExitDifferences;
}

}  // namespace

int runCheck(const CheckOptions& o, std::ostream& out, std::ostream& err) {
  TestReport report{o.appName, o.testName, o.batch, {}, std::nullopt, nullptr, 0};
  for (const Checkpoint& checkpoint : o.checkpoints) {
    report.checkpoints.push_back({checkpoint.tag});
  }
  report.exitStatus = runTest(o, out, err, report);
  // The exit status stays the test's; a report that cannot be written is said on `err`.
  if (o.reportFile) {
    writeReport(*o.reportFile, report, err);
  }
  return report.exitStatus;
}

}  // namespace lumo::cli
