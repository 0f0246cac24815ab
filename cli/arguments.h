#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumo/geometry.h"
#include "lumo/match_level.h"
#include "lumo/region.h"

namespace CLI {  // NOLINT(readability-identifier-naming): CLI11's
class App;
}

namespace lumo::cli {

// The texts of the region options `check` and `compare` share, one per occurrence.
struct RegionTexts {
  std::vector<std::string> ignore, layout, strict, content, floating;
};

// Declares --ignore, --layout, --strict, --content and --floating on `command`, each
// repeatable; `unit` ("points" or "pixels") is what their numbers count.
void addRegionOptions(CLI::App& command, RegionTexts& texts, std::string_view unit);

// A floating region with how far its content may move each way (in points).
struct FloatingArgument {
  Region region;
  std::int64_t maxUp = 0;
  std::int64_t maxDown = 0;
  std::int64_t maxLeft = 0;
  std::int64_t maxRight = 0;
};

// Parsers of the command's argument forms. Each throws UsageError naming `option` and the
// text it could not use.

// "WxH" with positive numbers, e.g. "390x844".
Size parseViewport(std::string_view option, std::string_view text);
// "L,T,W,H" in whole points; width and height must be positive.
Region parseRegion(std::string_view option, std::string_view text);
// "L,T,W,H,UP,DOWN,LEFT,RIGHT"; the offsets must not be negative.
FloatingArgument parseFloating(std::string_view option, std::string_view text);
// "NAME=VALUE" with both parts non-empty; the value may itself contain "=".
std::pair<std::string, std::string> parseProperty(std::string_view option, std::string_view text);
// A whole number from 0 to 65535.
int parsePort(std::string_view option, std::string_view text);
// Whole seconds of a match time-out: 0 (check once) or at least 2, as the library accepts.
std::uint64_t parseMatchTimeout(std::string_view option, std::string_view text);
// A finite decimal number above 0.
double parsePositiveNumber(std::string_view option, std::string_view text);
// A finite decimal number of 0 or more; `expected` says what it counts in the message.
double parseNonNegativeNumber(std::string_view option, std::string_view text,
                              std::string_view expected);
// "yes" or "no".
bool parseYesNo(std::string_view option, std::string_view text);
// "None", "Layout", "Content", "Strict" or "Exact", in any letter case.
MatchLevel parseMatchLevel(std::string_view option, std::string_view text);

}  // namespace lumo::cli
