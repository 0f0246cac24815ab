#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumo {

// How strictly the server compares a checkpoint with its baseline. Any 64-bit value may be
// stored; values outside 1..5 are written as "Strict".
enum MatchLevel : std::int64_t {
  MatchLevelNone = 1,
  MatchLevelLayout = 2,
  MatchLevelContent = 3,
  MatchLevelStrict = 4,
  MatchLevelExact = 5,
};

// "None", "Layout", "Content", "Strict" or "Exact"; any other value gives "Strict".
std::string matchLevelToString(MatchLevel matchLevel);

// The level named exactly (case-sensitive) "None", "Layout", "Content", "Strict" or "Exact";
// nullopt for any other text.
std::optional<MatchLevel> matchLevelFromString(std::string_view name);

}  // namespace lumo
