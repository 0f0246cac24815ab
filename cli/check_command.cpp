#include "check_command.h"

#include <errno.h>
#include <fmt/format.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <mutex>
#include <ostream>
#include <system_error>

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

bool isWebURL(std::string_view url) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (url.size() > scheme.size() && url.substr(0, scheme.size()) == scheme) return true;
  }
  return false;
}

double parseNumber(std::string_view option, const std::string& text, double minimum,
                   std::string_view expected) {
  double value = 0;
  const char* end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || next != end || text.empty() || !std::isfinite(value) ||
      value < minimum) {
    throw UsageError(fmt::format("{}: expected {}, got \"{}\"", option, expected, text));
  }
  return value;
}

// The file's pixels with its bytes, which a checkpoint that keeps the pixels sends as they are.
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
    auto image = std::make_shared<const Image>(decodePng(bytes));
    return {std::move(image), std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes))};
  } catch (const PngError& e) {
    throw UsageError(fmt::format("cannot read image {}: {}", file.string(), e.what()));
  }
}

// The target region must lie on every screen, or the library would fail mid-test.
void checkRegionFits(const Region& region, const Image& image, double scale,
                     std::string_view screen) {
  const Rect bounds(0, 0, image.width() / scale, image.height() / scale);
  if (!bounds.contains(region.rect())) {
    throw UsageError(fmt::format("--region {},{},{},{} does not lie on {} ({}x{} points)",
                                 region.left(), region.top(), region.width(), region.height(),
                                 screen, bounds.size.width, bounds.size.height));
  }
}

CheckSettings settingsOf(const CheckOptions& o) {
  CheckSettings settings = CheckSettings().timeoutInSeconds(o.matchTimeout);
  if (o.ignoreCaret) settings = settings.ignoreCaret();
  if (!o.ignore.empty()) settings = settings.ignore(o.ignore);
  if (!o.layout.empty()) settings = settings.layout(o.layout);
  if (!o.strict.empty()) settings = settings.strict(o.strict);
  if (!o.content.empty()) settings = settings.content(o.content);
  for (const FloatingArgument& f : o.floating) {
    settings = settings.floating(f.region, f.maxUp, f.maxDown, f.maxRight, f.maxLeft);
  }
  return settings;
}

// "<app> <test> <local date and time>": a batch a reviewer can tell apart in the server's list
// without --batch. A batch name from the environment still wins, as the library gives it.
std::optional<std::string> batchName(const CheckOptions& o) {
  if (o.batch) return o.batch;
  const char* fromEnvironment = std::getenv("BRIXTEL_BATCH_NAME");
  if (fromEnvironment && *fromEnvironment) return std::nullopt;
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char when[32];
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", &local);
  return fmt::format("{} {} {}", o.appName, o.testName, when);
}

void configure(Lumo& lumo, const CheckOptions& o) {
  lumo.setApiKey(o.apiKey);
  if (const auto name = batchName(o)) lumo.setBatch(std::make_shared<BatchInfo>(*name));
  if (o.branch) lumo.setBranchName(*o.branch);
  if (o.parentBranch) lumo.setParentBranchName(*o.parentBranch);
  if (o.baselineBranch) lumo.setBaselineBranchName(*o.baselineBranch);
  if (o.baselineEnv) lumo.setBaselineEnvName(*o.baselineEnv);
  if (o.matchLevel) lumo.setMatchLevel(*o.matchLevel);
  lumo.setMatchTimeout(o.matchTimeout);
  if (o.saveNewTests) lumo.setSaveNewTests(*o.saveNewTests);
  if (o.saveFailedTests) lumo.setSaveFailedTests(*o.saveFailedTests);
  lumo.setSaveDiffs(o.saveDiffs);
  for (const auto& [name, value] : o.properties) lumo.addProperty(name, value);
  lumo.setShouldCropStatusBar(o.cropStatusBar);
  if (o.waitPolicy) lumo.setWaitPolicy(o.waitPolicy);
}

std::string checkpointState(const RunningSession& session,
                            const std::shared_ptr<MatchResult>& result) {
  if (!result) return "no answer";
  if (session.isNewSession()) return "new";
  return result->asExpected() ? "matched" : "did not match";
}

}  // namespace

CheckCommand::CheckCommand(CLI::App& parent) {
  CLI::App* c = parent.add_subcommand(
      "check", "Run a visual test: check each screenshot against its baseline on the server");
  command_ = c;
  c->add_option("--server", server_, "URL of the visual-testing server")->required();
  c->add_option("--app", app_, "Application name")->required();
  c->add_option("--test", test_, "Test name")->required();
  c->add_option("--api-key", apiKey_, "API key (default: $BRIXTEL_API_KEY)");
  c->add_option("--viewport", viewport_, "Viewport in points (default: first screen / scale)")
      ->type_name("WxH");
  c->add_option("--match-level", matchLevel_, "None, Layout, Content, Strict or Exact")
      ->type_name("LEVEL");
  c->add_option("--match-timeout", matchTimeout_,
                "Seconds a check retries until the screen matches (default 2; 0: once)")
      ->type_name("SECONDS");
  c->add_option("--region", region_, "Check only this region of every screen")
      ->type_name("L,T,W,H");
  c->add_option("--ignore", ignore_, "Region to ignore (repeatable)")
      ->allow_extra_args(false)
      ->type_name("L,T,W,H");
  c->add_option("--layout", layout_, "Region compared by layout (repeatable)")
      ->allow_extra_args(false)
      ->type_name("L,T,W,H");
  c->add_option("--strict", strict_, "Region compared strictly (repeatable)")
      ->allow_extra_args(false)
      ->type_name("L,T,W,H");
  c->add_option("--content", content_, "Region compared by content (repeatable)")
      ->allow_extra_args(false)
      ->type_name("L,T,W,H");
  c->add_option("--floating", floating_, "Region whose content may move (repeatable)")
      ->allow_extra_args(false)
      ->type_name("L,T,W,H,UP,DOWN,LEFT,RIGHT");
  c->add_option("--scale", scale_, "Pixels per point of the screenshots (default 1)")
      ->type_name("RATIO");
  c->add_option("--status-bar-height", statusBarHeight_, "Status bar height in points")
      ->type_name("N");
  c->add_flag("--crop-status-bar", cropStatusBar_, "Cut the status bar off every screen");
  c->add_option("--batch", batch_, "Batch name");
  c->add_option("--branch", branch_, "Branch name");
  c->add_option("--parent-branch", parentBranch_, "Parent branch name");
  c->add_option("--baseline-branch", baselineBranch_, "Baseline branch name");
  c->add_option("--baseline-env", baselineEnv_, "Baseline environment name");
  c->add_option("--save-new-tests", saveNewTests_, "Save a new test as baseline (default yes)")
      ->type_name("yes|no");
  c->add_option("--save-failed-tests", saveFailedTests_,
                "Save a test with differences as baseline (default no)")
      ->type_name("yes|no");
  c->add_flag("--save-diffs", saveDiffs_, "Ask the server to keep the differences");
  c->add_flag("--ignore-caret", ignoreCaret_, "A text caret in one image only does not count");
  c->add_option("--property", properties_, "Property of the test (repeatable)")
      ->allow_extra_args(false)
      ->type_name("NAME=VALUE");
  c->add_option("--capture", capture_,
                "Command printing a PNG of the screen, run for each checkpoint; the "
                "arguments are then tags")
      ->type_name("COMMAND");
  c->add_option("--report", report_, "Write a report for CI: JUnit XML (.xml) or JSON (.json)")
      ->type_name("FILE");
  c->add_option("IMAGE", items_, "PNG file of a screen, optionally tagged (TAG with --capture)")
      ->type_name("IMAGE[=TAG]");
}

bool CheckCommand::selected() const { return command_->parsed(); }

CheckOptions CheckCommand::options() const {
  const auto given = [this](const char* option) { return command_->count(option) > 0; };
  const auto text = [&](const char* option,
                        const std::string& value) -> std::optional<std::string> {
    if (!given(option)) return std::nullopt;
    return value;
  };

  CheckOptions o;
  if (!isWebURL(server_)) {
    throw UsageError(
        fmt::format("--server: expected an http:// or https:// URL, got \"{}\"", server_));
  }
  o.serverURL = server_;
  if (app_.empty()) throw UsageError("--app: the application name is empty");
  if (test_.empty()) throw UsageError("--test: the test name is empty");
  o.appName = app_;
  o.testName = test_;

  if (given("--api-key")) {
    o.apiKey = apiKey_;
  } else if (const char* key = std::getenv("BRIXTEL_API_KEY")) {
    o.apiKey = key;
  }
  if (o.apiKey.empty()) {
    throw UsageError("no API key: give --api-key KEY or set BRIXTEL_API_KEY");
  }

  if (given("--viewport")) o.viewport = parseViewport("--viewport", viewport_);
  if (given("--match-level")) o.matchLevel = parseMatchLevel("--match-level", matchLevel_);
  if (given("--match-timeout")) {
    std::uint64_t seconds = 0;
    const char* end = matchTimeout_.data() + matchTimeout_.size();
    const auto [next, error] = std::from_chars(matchTimeout_.data(), end, seconds);
    if (error != std::errc() || next != end || matchTimeout_.empty() || seconds == 1) {
      throw UsageError(fmt::format(
          "--match-timeout: expected whole seconds, 0 or at least 2, got \"{}\"", matchTimeout_));
    }
    o.matchTimeout = seconds;
  }
  if (given("--region")) o.targetRegion = parseRegion("--region", region_);
  for (const auto& r : ignore_) o.ignore.push_back(parseRegion("--ignore", r));
  for (const auto& r : layout_) o.layout.push_back(parseRegion("--layout", r));
  for (const auto& r : strict_) o.strict.push_back(parseRegion("--strict", r));
  for (const auto& r : content_) o.content.push_back(parseRegion("--content", r));
  for (const auto& f : floating_) o.floating.push_back(parseFloating("--floating", f));
  if (given("--scale")) {
    o.scale = parseNumber("--scale", scale_, 0, "a positive number");
    if (o.scale == 0) throw UsageError("--scale: expected a positive number, got \"0\"");
  }
  if (given("--status-bar-height")) {
    o.statusBarHeight =
        parseNumber("--status-bar-height", statusBarHeight_, 0, "a number of points, 0 or more");
  }
  o.cropStatusBar = cropStatusBar_;
  o.batch = text("--batch", batch_);
  o.branch = text("--branch", branch_);
  o.parentBranch = text("--parent-branch", parentBranch_);
  o.baselineBranch = text("--baseline-branch", baselineBranch_);
  o.baselineEnv = text("--baseline-env", baselineEnv_);
  if (given("--save-new-tests")) o.saveNewTests = parseYesNo("--save-new-tests", saveNewTests_);
  if (given("--save-failed-tests")) {
    o.saveFailedTests = parseYesNo("--save-failed-tests", saveFailedTests_);
  }
  o.saveDiffs = saveDiffs_;
  o.ignoreCaret = ignoreCaret_;
  for (const auto& p : properties_) o.properties.push_back(parseProperty("--property", p));
  if (given("--report")) {
    reportFormatOf("--report", report_);
    o.reportFile = report_;
  }

  if (given("--capture")) {
    if (capture_.empty()) throw UsageError("--capture: the command is empty");
    o.captureCommand = capture_;
    if (items_.empty()) throw UsageError("no checkpoints: with --capture, name at least one TAG");
    for (const auto& tag : items_) {
      if (tag.empty()) throw UsageError("a checkpoint's tag is empty");
      o.checkpoints.push_back({tag, {}, nullptr});
    }
    return o;
  }
  if (items_.empty()) throw UsageError("no screenshots: name at least one IMAGE[=TAG]");
  for (const auto& item : items_) {
    // A file whose own name holds "=" is still a file.
    std::error_code ec;
    const std::size_t equals = item.find('=');
    std::filesystem::path file = item;
    std::string tag;
    if (equals != std::string::npos && !std::filesystem::is_regular_file(file, ec)) {
      file = item.substr(0, equals);
      tag = item.substr(equals + 1);
      if (tag.empty()) throw UsageError(fmt::format("\"{}\": the tag after \"=\" is empty", item));
    } else {
      tag = file.stem().string();
    }
    if (file.empty()) throw UsageError(fmt::format("\"{}\": no file before \"=\"", item));
    o.checkpoints.push_back({tag, file, nullptr});
  }
  return o;
}

namespace {

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
      checkRegionFits(*o.targetRegion, *screens[i].image, o.scale, screen);
    }
  }
  source->setScaleRatio(o.scale);
  source->setStatusBarHeight(o.statusBarHeight);
  const Size viewport = o.viewport.value_or(
      Size{screens.front().image->width() / o.scale, screens.front().image->height() / o.scale});

  Lumo lumo(o.serverURL, source);
  configure(lumo, o);
  const CheckSettings settings = settingsOf(o);
  std::optional<std::string> sessionURL;
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
    sessionURL = session->url();
    report.sessionUrl = sessionURL;
    for (std::size_t i = 0; i < o.checkpoints.size(); ++i) {
      const std::string& tag = o.checkpoints[i].tag;
      if (checkpointSource) checkpointSource->setScreen(screens[i]);
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
               results->url().value_or(sessionURL.value_or("(null)")));
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
