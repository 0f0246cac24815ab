#include "check_options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <system_error>

#include "exit_status.h"
#include "report.h"

namespace lumo::cli {
namespace {

bool isWebUrl(std::string_view url) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (url.size() > scheme.size() && url.substr(0, scheme.size()) == scheme) {
      return true;
    }
  }
  return false;
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
  addRegionOptions(*c, regions_, "points");
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
    if (!given(option)) {
      return std::nullopt;
    }
    return value;
  };

  CheckOptions o;
  if (!isWebUrl(server_)) {
    throw UsageError(
        fmt::format("--server: expected an http:// or https:// URL, got \"{}\"", server_));
  }
  o.serverURL = server_;
  if (app_.empty()) {
    throw UsageError("--app: the application name is empty");
  }
  if (test_.empty()) {
    throw UsageError("--test: the test name is empty");
  }
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

  if (given("--viewport")) {
    o.viewport = parseViewport("--viewport", viewport_);
  }
  if (given("--match-level")) {
    o.matchLevel = parseMatchLevel("--match-level", matchLevel_);
  }
  if (given("--match-timeout")) {
    o.matchTimeout = parseMatchTimeout("--match-timeout", matchTimeout_);
  }
  if (given("--region")) {
    o.targetRegion = parseRegion("--region", region_);
  }
  for (const auto& r : regions_.ignore) {
    o.ignore.push_back(parseRegion("--ignore", r));
  }
  for (const auto& r : regions_.layout) {
    o.layout.push_back(parseRegion("--layout", r));
  }
  for (const auto& r : regions_.strict) {
    o.strict.push_back(parseRegion("--strict", r));
  }
  for (const auto& r : regions_.content) {
    o.content.push_back(parseRegion("--content", r));
  }
  for (const auto& f : regions_.floating) {
    o.floating.push_back(parseFloating("--floating", f));
  }
  if (given("--scale")) {
    o.scale = parsePositiveNumber("--scale", scale_);
  }
  if (given("--status-bar-height")) {
    o.statusBarHeight = parseNonNegativeNumber("--status-bar-height", statusBarHeight_,
                                               "a number of points, 0 or more");
  }
  o.cropStatusBar = cropStatusBar_;
  o.batch = text("--batch", batch_);
  o.branch = text("--branch", branch_);
  o.parentBranch = text("--parent-branch", parentBranch_);
  o.baselineBranch = text("--baseline-branch", baselineBranch_);
  o.baselineEnv = text("--baseline-env", baselineEnv_);
  if (given("--save-new-tests")) {
    o.saveNewTests = parseYesNo("--save-new-tests", saveNewTests_);
  }
  if (given("--save-failed-tests")) {
    o.saveFailedTests = parseYesNo("--save-failed-tests", saveFailedTests_);
  }
  o.saveDiffs = saveDiffs_;
  o.ignoreCaret = ignoreCaret_;
  for (const auto& p : properties_) {
    o.properties.push_back(parseProperty("--property", p));
  }
  if (given("--report")) {
    reportFormatOf("--report", report_);
    o.reportFile = report_;
  }

  if (given("--capture")) {
    if (capture_.empty()) {
      throw UsageError("--capture: the command is empty");
    }
    o.captureCommand = capture_;
    if (items_.empty()) {
      throw UsageError("no checkpoints: with --capture, name at least one TAG");
    }
    for (const auto& tag : items_) {
      if (tag.empty()) {
        throw UsageError("a checkpoint's tag is empty");
      }
      o.checkpoints.push_back({tag, {}, nullptr});
    }
    return o;
  }
  if (items_.empty()) {
    throw UsageError("no screenshots: name at least one IMAGE[=TAG]");
  }
  for (const auto& item : items_) {
    // A file whose own name holds "=" is still a file.
    std::error_code ec;
    const std::size_t equals = item.find('=');
    std::filesystem::path file = item;
    std::string tag;
    if (equals != std::string::npos && !std::filesystem::is_regular_file(file, ec)) {
      file = item.substr(0, equals);
      tag = item.substr(equals + 1);
      if (tag.empty()) {
        throw UsageError(fmt::format("\"{}\": the tag after \"=\" is empty", item));
      }
    } else {
      tag = file.stem().string();
    }
    if (file.empty()) {
      throw UsageError(fmt::format("\"{}\": no file before \"=\"", item));
    }
    o.checkpoints.push_back({tag, file, nullptr});
  }
  return o;
}

}  // namespace lumo::cli
