#include "lumo/default_match_settings.h"

#include "common/json_reader.h"
#include "common/test_results_keys.h"

namespace lumo {
namespace {

void readRegions(const Json& dictionary, const char* key, DefaultMatchSettings::Regions& out) {
  if (const Json* array = detail::memberArray(dictionary, key)) {
    out = DefaultMatchSettings::regionsFromDictionaries(*array);
  }
}

void writeRegions(Json& json, const char* key, const DefaultMatchSettings::Regions& regions) {
  if (regions) {
    json[key] = DefaultMatchSettings::dictionariesFromRegions(*regions);
  }
}

}  // namespace

DefaultMatchSettings::DefaultMatchSettings(const Json& dictionary) {
  readRegions(dictionary, ContentKey, content_);
  readRegions(dictionary, FloatingKey, floating_);
  readRegions(dictionary, IgnoreKey, ignore_);
  detail::readBool(dictionary, IgnoreCaretKey, ignoreCaret_);
  readRegions(dictionary, LayoutKey, layout_);
  detail::readString(dictionary, MatchLevelKey, matchLevel_);
  detail::readBool(dictionary, RemainderKey, reminder_);
  detail::readFloat(dictionary, ScaleKey, scale_);
  detail::readBool(dictionary, SplitBottomHeightKey, splitBottomHeight_);
  detail::readBool(dictionary, SplitTopHeightKey, splitTopHeight_);
  readRegions(dictionary, StrictKey, strict_);
}

std::vector<Region> DefaultMatchSettings::regionsFromDictionaries(const Json& dictionaries) {
  std::vector<Region> regions;
  if (!dictionaries.is_array()) {
    return regions;
  }
  regions.reserve(dictionaries.size());
  for (const Json& entry : dictionaries) {
    std::int64_t left = 0, top = 0, width = 0, height = 0;
    detail::readInteger(entry, LeftKey, left);
    detail::readInteger(entry, TopKey, top);
    detail::readInteger(entry, WidthKey, width);
    detail::readInteger(entry, HeightKey, height);
    regions.emplace_back(left, top, width, height);
  }
  return regions;
}

Json DefaultMatchSettings::dictionariesFromRegions(const std::vector<Region>& regions) {
  Json array = Json::array();
  for (const Region& region : regions) {
    array.push_back(region.dictionary());
  }
  return array;
}

Json DefaultMatchSettings::dictionary() const {
  Json json = Json::object();
  writeRegions(json, ContentKey, content_);
  writeRegions(json, FloatingKey, floating_);
  writeRegions(json, IgnoreKey, ignore_);
  json[IgnoreCaretKey] = ignoreCaret_;
  writeRegions(json, LayoutKey, layout_);
  if (matchLevel_) {
    json[MatchLevelKey] = *matchLevel_;
  }
  json[RemainderKey] = reminder_;
  json[ScaleKey] = scale_;
  json[SplitBottomHeightKey] = splitBottomHeight_;
  json[SplitTopHeightKey] = splitTopHeight_;
  writeRegions(json, StrictKey, strict_);
  return json;
}

}  // namespace lumo
