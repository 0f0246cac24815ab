#include "core/fluent/match_settings_translation.h"

#include <gtest/gtest.h>

#include "lumo/check_settings.h"

namespace lumo::test {
namespace {

// Every list is moved up by the status bar exactly once, each top truncated toward zero; "None"
// takes the default level and an empty list is sent empty. Regions are read now: a shared one
// changed after the settings were built goes as it is then.
TEST(MatchSettingsTranslation, ShiftsEachRegionOnceAndFillsEveryList) {
  auto moving = std::make_shared<Region>(1, 2, 3, 4);
  const CheckSettings settings = CheckSettings()
                                     .ignore({Region(5, 100, 50, 60)})
                                     .layout({Region(0, 50, 1, 1)})
                                     .strict(moving)
                                     .content({Region(0, 20, 1, 1)})
                                     .floating(Region(0, 30, 10, 10), 1, 2, 3, 4)
                                     .ignoreCaret();
  *moving = Region(0, 40, 1, 1);
  struct Case {
    double statusBar;
    bool crop;
    std::int64_t ignore, layout, strict, content, floating;  // the tops sent
  };
  // The shift goes first: one that moved the settings' own regions would show in the rows after.
  for (const Case& c : {Case{20.5, true, 79, 29, 19, 0, 9}, Case{20, false, 100, 50, 40, 20, 30},
                        Case{0, true, 100, 50, 40, 20, 30}}) {
    SCOPED_TRACE(c.statusBar);
    const ImageMatchSettings s =
        MatchSettingsTranslation::translate(settings, MatchLevelLayout, c.statusBar, c.crop);
    EXPECT_EQ(s.matchLevel(), MatchLevelLayout);
    EXPECT_TRUE(s.ignoreCaret());
    EXPECT_EQ(s.ignoredRegions(), std::vector<Region>{Region(5, c.ignore, 50, 60)});
    EXPECT_EQ(s.layoutRegions(), std::vector<Region>{Region(0, c.layout, 1, 1)});
    EXPECT_EQ(s.strictRegions(), std::vector<Region>{Region(0, c.strict, 1, 1)});
    EXPECT_EQ(s.contentRegions(), std::vector<Region>{Region(0, c.content, 1, 1)});
    EXPECT_EQ(s.floatingRegions(), std::vector<FloatingMatchSettings>{
                                       FloatingMatchSettings(0, c.floating, 10, 10, 1, 2, 4, 3)});
  }
  const ImageMatchSettings plain =
      MatchSettingsTranslation::translate(CheckSettings().exact(), MatchLevelLayout, 0, false);
  EXPECT_EQ(plain.matchLevel(), MatchLevelExact);
  EXPECT_EQ(plain.layoutRegions(), std::vector<Region>{}) << "set, not missing";
}

}  // namespace
}  // namespace lumo::test
