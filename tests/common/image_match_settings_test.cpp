#include "lumo/image_match_settings.h"

#include <gtest/gtest.h>

namespace lumo::test {
namespace {

TEST(MatchLevel, NamesKnownLevelsAndFallsBackToStrict) {
  EXPECT_EQ(matchLevelToString(MatchLevelNone), "None");
  EXPECT_EQ(matchLevelToString(MatchLevelLayout), "Layout");
  EXPECT_EQ(matchLevelToString(MatchLevelContent), "Content");
  EXPECT_EQ(matchLevelToString(MatchLevelStrict), "Strict");
  EXPECT_EQ(matchLevelToString(MatchLevelExact), "Exact");
  for (std::int64_t other : {0, 6, -1}) {
    EXPECT_EQ(ImageMatchSettings::matchLevelToString(static_cast<MatchLevel>(other)), "Strict");
  }
}

TEST(ImageMatchSettings, FreshSettingsWriteAllSevenKeysWithEmptyLists) {
  const Json expected = Json::parse(R"({"matchLevel": "Strict", "ignoreCaret": false,
      "Ignore": [], "Layout": [], "Strict": [], "Content": [], "Floating": []})");
  EXPECT_EQ(ImageMatchSettings().dictionary(), expected);
  EXPECT_EQ(ImageMatchSettings::defaultImageMatchSettings().dictionary(), expected);
  EXPECT_FALSE(ImageMatchSettings().ignoredRegions().has_value());
}

TEST(ImageMatchSettings, ListsKeepOrderAndDuplicatesUnderTheirOwnKeys) {
  ImageMatchSettings settings(MatchLevelLayout);
  settings.setIgnoreCaret(true);
  settings.setIgnoredRegions(std::vector<Region>{Region(10, 20, 30, 40)});
  settings.setLayoutRegions(
      std::vector<Region>{Region(2, 0, 0, 0), Region(1, 0, 0, 0), Region(2, 0, 0, 0)});
  settings.setStrictRegions(std::vector<Region>{});
  settings.setContentRegions(std::vector<Region>{Region(Rect(1.9, 2.9, 3.9, 4.9))});
  settings.setFloatingRegions(
      std::vector<FloatingMatchSettings>{FloatingMatchSettings(1, 2, 3, 4, -5, 6, -7, 8)});

  const Json expected = Json::parse(R"({
    "matchLevel": "Layout", "ignoreCaret": true,
    "Ignore": [{"left": 10, "top": 20, "width": 30, "height": 40}],
    "Layout": [{"left": 2, "top": 0, "width": 0, "height": 0},
               {"left": 1, "top": 0, "width": 0, "height": 0},
               {"left": 2, "top": 0, "width": 0, "height": 0}],
    "Strict": [],
    "Content": [{"left": 1, "top": 2, "width": 3, "height": 4}],
    "Floating": [{"left": 1, "top": 2, "width": 3, "height": 4, "maxUpOffset": -5,
                  "maxDownOffset": 6, "maxLeftOffset": -7, "maxRightOffset": 8}]})");
  EXPECT_EQ(settings.dictionary(), expected);
  EXPECT_EQ(settings.description(), "Match level: Layout");
}

TEST(ImageMatchSettings, UnknownLevelIsWrittenAsStrict) {
  ImageMatchSettings settings;
  settings.setMatchLevel(static_cast<MatchLevel>(0));
  EXPECT_EQ(settings.dictionary()["matchLevel"], "Strict");
  EXPECT_EQ(settings.matchLevel(), 0);
}

TEST(FloatingMatchSettings, CopyKeepsAllEightValues) {
  const FloatingMatchSettings original(1, 2, 3, 4, 5, 6, 7, 8);
  const FloatingMatchSettings copy(original);
  EXPECT_EQ(copy, original);
  EXPECT_EQ(copy.maxUpOffset(), 5);
  EXPECT_EQ(copy.maxRightOffset(), 8);
  EXPECT_EQ(copy.dictionary(), original.dictionary());
}

}  // namespace
}  // namespace lumo::test
