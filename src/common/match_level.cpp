#include "lumo/match_level.h"

namespace lumo {

std::string matchLevelToString(MatchLevel matchLevel) {
  switch (matchLevel) {
    case MatchLevelNone:
      return "None";
    case MatchLevelLayout:
      return "Layout";
    case MatchLevelContent:
      return "Content";
    case MatchLevelExact:
      return "Exact";
    case MatchLevelStrict:
    default:
      // Unknown levels fall back to the default level rather than failing.
      return "Strict";
  }
}

std::optional<MatchLevel> matchLevelFromString(std::string_view name) {
  for (const MatchLevel level :
       {MatchLevelNone, MatchLevelLayout, MatchLevelContent, MatchLevelStrict, MatchLevelExact}) {
    if (name == matchLevelToString(level)) {
      return level;
    }
  }
  return std::nullopt;
}

}  // namespace lumo
