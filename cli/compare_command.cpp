#include "compare_command.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "arguments.h"
#include "exit_status.h"
#include "platform/png.h"

namespace lumo::cli {
namespace {

using server::CompareResult;
using server::ImageComparer;

int narrow(std::int64_t v) {
  return static_cast<int>(std::clamp<std::int64_t>(v, -(std::int64_t{1} << 30), 1 << 30));
}

Rect pixels(const Region& r) {
  return Rect(narrow(r.left()), narrow(r.top()), narrow(r.width()), narrow(r.height()));
}

std::vector<std::uint8_t> readFile(const std::filesystem::path& file) {
  // One read of the whole file: a stream iterator is several times slower on screenshots.
  std::unique_ptr<std::FILE, decltype(&std::fclose)> in(std::fopen(file.c_str(), "rb"),
                                                        &std::fclose);
  if (!in) {
    throw UsageError(fmt::format("cannot read image {}: {}", file.string(), std::strerror(errno)));
  }
  std::vector<std::uint8_t> bytes;
  std::error_code ec;
  const auto size = std::filesystem::file_size(file, ec);
  bytes.resize(ec ? 0 : static_cast<std::size_t>(size));
  std::size_t have = std::fread(bytes.data(), 1, bytes.size(), in.get());
  bytes.resize(have);
  // A file that grew, or one whose size was not known (a pipe), is read to its end.
  std::uint8_t chunk[65536];
  while (std::size_t n = std::fread(chunk, 1, sizeof chunk, in.get())) {
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  if (std::ferror(in.get())) {
    throw UsageError(fmt::format("cannot read image {}", file.string()));
  }
  return bytes;
}

Image readImage(const std::filesystem::path& file) {
  const std::vector<std::uint8_t> bytes = readFile(file);
  try {
    return decodePng(bytes);
  } catch (const PngError& e) {
    throw UsageError(fmt::format("cannot read image {}: {}", file.string(), e.what()));
  }
}

// The comparer's boxes hold whole pixels; they are written as integers.
nlohmann::json boxesJson(const std::vector<Rect>& boxes) {
  nlohmann::json out = nlohmann::json::array();
  for (const Rect& r : boxes) {
    out.push_back({{"left", static_cast<int>(r.origin.x)},
                   {"top", static_cast<int>(r.origin.y)},
                   {"width", static_cast<int>(r.size.width)},
                   {"height", static_cast<int>(r.size.height)}});
  }
  return out;
}

}  // namespace

CompareCommand::CompareCommand(CLI::App& parent) {
  CLI::App* c = parent.add_subcommand(
      "compare", "Compare two PNG files as the server does; exit 0 when they match, 1 if not");
  command_ = c;
  c->add_option("--match-level", matchLevel_, "None, Layout, Content, Strict (default) or Exact")
      ->type_name("LEVEL");
  addRegionOptions(*c, regions_, "pixels");
  c->add_flag("--ignore-caret", ignoreCaret_, "A text caret in one image only does not count");
  c->add_option("--diff", diff_, "Write an image of the differences here")->type_name("OUT.png");
  c->add_flag("--json", json_, "Print the verdict, counts and difference boxes as JSON");
  c->add_option("FILES", files_, "BASELINE.png CURRENT.png")->type_name("PNG");
}

bool CompareCommand::selected() const { return command_->parsed(); }

CompareOptions CompareCommand::options() const {
  CompareOptions o;
  if (files_.size() != 2) {
    throw UsageError(
        fmt::format("expected two images, BASELINE.png CURRENT.png; got {}", files_.size()));
  }
  o.baseline = files_[0];
  o.current = files_[1];
  if (command_->count("--match-level") > 0) {
    o.settings.level = parseMatchLevel("--match-level", matchLevel_);
  }
  for (const auto& r : regions_.ignore) {
    o.settings.ignore.push_back(pixels(parseRegion("--ignore", r)));
  }
  for (const auto& r : regions_.layout) {
    o.settings.layout.push_back(pixels(parseRegion("--layout", r)));
  }
  for (const auto& r : regions_.strict) {
    o.settings.strict.push_back(pixels(parseRegion("--strict", r)));
  }
  for (const auto& r : regions_.content) {
    o.settings.content.push_back(pixels(parseRegion("--content", r)));
  }
  for (const auto& text : regions_.floating) {
    const FloatingArgument f = parseFloating("--floating", text);
    o.settings.floating.push_back({pixels(f.region), narrow(f.maxUp), narrow(f.maxDown),
                                   narrow(f.maxLeft), narrow(f.maxRight)});
  }
  o.settings.ignoreCaret = ignoreCaret_;
  if (command_->count("--diff") > 0) {
    if (diff_.empty()) {
      throw UsageError("--diff: the file name is empty");
    }
    o.diffFile = diff_;
  }
  o.json = json_;
  return o;
}

int runCompare(const CompareOptions& o, std::ostream& out, std::ostream& err) {
  // The two decodes are independent: one on another thread, the other here.
  auto baselineImage = std::async(std::launch::async, [&] { return readImage(o.baseline); });
  Image current;
  try {
    current = readImage(o.current);
  } catch (...) {
    baselineImage.wait();
    throw;
  }
  const Image baseline = baselineImage.get();

  const ImageComparer comparer;
  const CompareResult result = comparer.compare(baseline, current, o.settings);
  if (o.diffFile) {
    const std::vector<std::uint8_t> png =
        encodePng(comparer.diffImage(baseline, current, o.settings, result));
    std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(o.diffFile->c_str(), "wb"),
                                                            &std::fclose);
    if (!file || std::fwrite(png.data(), 1, png.size(), file.get()) != png.size() ||
        std::fflush(file.get()) != 0) {
      fmt::print(err, "lumo compare: cannot write {}: {}\n", o.diffFile->string(),
                 std::strerror(errno));
      return kExitUsage;
    }
  }
  if (o.json) {
    const nlohmann::json verdict = {{"matches", result.matches},
                                    {"matchLevel", matchLevelToString(o.settings.level)},
                                    {"sizeMismatch", result.sizeMismatch},
                                    {"differentPixels", result.differentPixels},
                                    {"toleratedPixels", result.toleratedPixels},
                                    {"boxes", boxesJson(result.boxes)}};
    fmt::print(out, "{}\n", verdict.dump());
  } else if (result.sizeMismatch) {
    fmt::print(out, "different: the images are {}x{} and {}x{} pixels\n", baseline.width(),
               baseline.height(), current.width(), current.height());
  } else if (result.matches) {
    fmt::print(out, "match at {} ({} pixels tolerated)\n", matchLevelToString(o.settings.level),
               result.toleratedPixels);
  } else {
    fmt::print(out, "different at {}: {} pixels differ, {} tolerated, in {} areas\n",
               matchLevelToString(o.settings.level), result.differentPixels, result.toleratedPixels,
               result.boxes.size());
  }
  return result.matches ? kExitPassed : kExitDifferences;
}

}  // namespace lumo::cli
