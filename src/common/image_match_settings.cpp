#include "lumo/image_match_settings.h"

namespace lumo {
namespace {

template <typename T>
Json dictionaries(const std::optional<std::vector<T>>& list) {
  Json array = Json::array();
  if (list) {
    for (const T& element : *list) {
      array.push_back(element.dictionary());
    }
  }
  return array;
}

}  // namespace

ImageMatchSettings ImageMatchSettings::defaultImageMatchSettings() {
  return ImageMatchSettings(MatchLevelStrict);
}

std::string ImageMatchSettings::matchLevelToString(MatchLevel matchLevel) {
  return lumo::matchLevelToString(matchLevel);
}

std::string ImageMatchSettings::description() const {
  return "Match level: " + matchLevelToString(matchLevel_);
}

Json ImageMatchSettings::dictionary() const {
  // The list keys are capitalised beside camel-case scalars: the server expects exactly this.
  return Json{
      {"matchLevel", matchLevelToString(matchLevel_)}, {"ignoreCaret", ignoreCaret_},
      {"Ignore", dictionaries(ignoredRegions_)},       {"Layout", dictionaries(layoutRegions_)},
      {"Strict", dictionaries(strictRegions_)},        {"Content", dictionaries(contentRegions_)},
      {"Floating", dictionaries(floatingRegions_)}};
}

}  // namespace lumo
