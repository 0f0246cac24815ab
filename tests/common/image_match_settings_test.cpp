#include "lumo/image_match_settings.h"

#include <gtest/gtest.h>

#include <optional>
#include <utility>

namespace lumo::test {
namespace {

// Each known level is named and parsed back by its exact name only; unknown levels are kept
// but named and written as Strict.
TEST(MatchLevel, NamesAndParsesLevelsAndFallsBackToStrict) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {MatchLevelNone, "None"},     {MatchLevelLayout, "Layout"}, {MatchLevelContent, "Content"},
      {MatchLevelStrict, "Strict"}, {MatchLevelExact, "Exact"},   {6, "Strict"}};
  for (const auto& [level, name] : cases) {
    ImageMatchSettings settings;
    settings.setMatchLevel(static_cast<MatchLevel>(level));
    EXPECT_EQ(ImageMatchSettings::matchLevelToString(static_cast<MatchLevel>(level)), name);
    EXPECT_EQ(settings.dictionary()["matchLevel"], name);
    EXPECT_EQ(settings.matchLevel(), static_cast<MatchLevel>(level));
    if (level != 6) {
      EXPECT_EQ(matchLevelFromString(name), static_cast<MatchLevel>(level));
    }
  }
  EXPECT_EQ(matchLevelFromString("strict"), std::nullopt);
}

TEST(ImageMatchSettings, FreshSettingsWriteAllSevenKeysWithEmptyLists) {
  const Json expected = Json::parse(R"({"matchLevel": "Strict", "ignoreCaret": false,
      "Ignore": [], "Layout": [], "Strict": [], "Content": [], "Floating": []})");
  EXPECT_EQ(ImageMatchSettings().dictionary(), expected);
  EXPECT_EQ(ImageMatchSettings::defaultImageMatchSettings().dictionary(), expected);
}

TEST(ImageMatchSettings, ListsGoUnderTheirOwnKeys) {
  ImageMatchSettings settings(MatchLevelLayout);
  settings.setIgnoreCaret(true);
  settings.setIgnoredRegions(std::vector<Region>{Region(10, 20, 30, 40)});
  settings.setLayoutRegions(std::vector<Region>{Region(2, 0, 0, 0)});
  settings.setContentRegions(std::vector<Region>{Region(Rect(1.9, 2.9, 3.9, 4.9))});
  settings.setFloatingRegions(
      std::vector<FloatingMatchSettings>{FloatingMatchSettings(1, 2, 3, 4, -5, 6, -7, 8)});

  const Json expected = Json::parse(R"({
    "matchLevel": "Layout", "ignoreCaret": true,
    "Ignore": [{"left": 10, "top": 20, "width": 30, "height": 40}],
    "Layout": [{"left": 2, "top": 0, "width": 0, "height": 0}],
    "Strict": [],
    "Content": [{"left": 1, "top": 2, "width": 3, "height": 4}],
    "Floating": [{"left": 1, "top": 2, "width": 3, "height": 4, "maxUpOffset": -5,
                  "maxDownOffset": 6, "maxLeftOffset": -7, "maxRightOffset": 8}]})");
  EXPECT_EQ(settings.dictionary(), expected);
  EXPECT_EQ(settings.description(), "Match level: Layout");
}

}  // namespace
}  // namespace lumo::test
