#pragma once

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "lumo/server/image_comparer.h"

namespace CLI {
class App;
}

namespace lumo::cli {

// Everything `lumo compare` needs, validated. Regions are in pixels.
struct CompareOptions {
  std::filesystem::path baseline;
  std::filesystem::path current;
  server::CompareSettings settings;  // the level, the regions and ignoreCaret
  std::optional<std::filesystem::path> diffFile;
  bool json = false;
};

// The `compare` subcommand: the server's comparison of two PNG files, without a server.
// Declares its options on the parent app, which must outlive it.
class CompareCommand {
 public:
  explicit CompareCommand(CLI::App& parent);
  CompareCommand(const CompareCommand&) = delete;
  CompareCommand& operator=(const CompareCommand&) = delete;

  // Whether the command line chose `compare`.
  bool selected() const;
  // Validates the parsed arguments. Throws UsageError. Files are not read here.
  CompareOptions options() const;

 private:
  CLI::App* command_;
  std::string matchLevel_;
  RegionTexts regions_;
  bool ignoreCaret_ = false;
  std::string diff_;
  bool json_ = false;
  std::vector<std::string> files_;
};

// Reads both images (throwing UsageError for one that cannot be read or decoded), compares
// them and writes the verdict to `out`: one line, or with `json` an object with "matches",
// "matchLevel", "sizeMismatch", "differentPixels", "toleratedPixels" and "boxes". Writes the
// diff image when asked. Returns kExitPassed when the images match, else kExitDifferences.
int runCompare(const CompareOptions& options, std::ostream& out, std::ostream& err);

}  // namespace lumo::cli
