#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "arguments.h"
#include "lumo/geometry.h"
#include "lumo/image.h"
#include "lumo/match_level.h"
#include "lumo/region.h"
#include "lumo/wait_policy.h"

namespace CLI {
class App;
}

namespace lumo::cli {

// One checkpoint of `lumo check`: its tag and where its screen comes from.
struct Checkpoint {
  std::string tag;
  std::filesystem::path file;  // a PNG file; unused when `image` is set or with a capture command
  ImagePtr image;              // a screen already in memory
};

// Everything `lumo check` needs, validated. Regions are in points.
struct CheckOptions {
  std::string serverURL;
  std::string appName;
  std::string testName;
  std::string apiKey;
  std::optional<Size> viewport;  // unset: the first screen's size divided by the scale
  std::optional<MatchLevel> matchLevel;
  std::uint64_t matchTimeout = 2;  // 0 or at least 2, as the library accepts
  std::optional<Region> targetRegion;
  std::vector<Region> ignore;
  std::vector<Region> layout;
  std::vector<Region> strict;
  std::vector<Region> content;
  std::vector<FloatingArgument> floating;
  double scale = 1.0;
  double statusBarHeight = 0.0;
  bool cropStatusBar = false;
  std::optional<std::string> batch;
  std::optional<std::string> branch;
  std::optional<std::string> parentBranch;
  std::optional<std::string> baselineBranch;
  std::optional<std::string> baselineEnv;
  std::optional<bool> saveNewTests;
  std::optional<bool> saveFailedTests;
  bool saveDiffs = false;
  bool ignoreCaret = false;
  std::vector<std::pair<std::string, std::string>> properties;
  std::optional<std::string> captureCommand;  // set: each screen comes from this command
  std::vector<Checkpoint> checkpoints;
  std::optional<std::filesystem::path> reportFile;  // JUnit XML (.xml) or JSON (.json)
  // The waits of the test; null keeps the library's (60 seconds for each answer).
  std::shared_ptr<const WaitPolicy> waitPolicy;
};

// The `check` subcommand: declares its options on the parent app and, once the app has
// parsed, turns what was given into CheckOptions. The parent app must outlive it.
class CheckCommand {
 public:
  explicit CheckCommand(CLI::App& parent);
  CheckCommand(const CheckCommand&) = delete;
  CheckCommand& operator=(const CheckCommand&) = delete;

  // Whether the command line chose `check`.
  bool selected() const;
  // Validates the parsed arguments; the API key falls back to BRIXTEL_API_KEY. Throws
  // UsageError. Files are not read here.
  CheckOptions options() const;

 private:
  CLI::App* command_;
  std::string server_, app_, test_, apiKey_, viewport_, matchLevel_, matchTimeout_, region_;
  RegionTexts regions_;
  std::vector<std::string> properties_;
  std::string scale_, statusBarHeight_;
  bool cropStatusBar_ = false;
  std::string batch_, branch_, parentBranch_, baselineBranch_, baselineEnv_;
  std::string saveNewTests_, saveFailedTests_;
  bool saveDiffs_ = false;
  bool ignoreCaret_ = false;
  std::string capture_;
  std::string report_;
  std::vector<std::string> items_;
};

}  // namespace lumo::cli
