#pragma once

#include <cstdint>
#include <string>

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

}  // namespace lumo
