#include "core/fluent/match_settings_translation.h"

#include <gtest/gtest.h>

#include "lumo/check_settings.h"

namespace lumo::test {
namespace {

// Every list is moved up by the status bar exactly once; "None" takes the default level.
// Regions are read now: a shared one changed after the settings were built goes as it is then.
TEST(MatchSettingsTranslation, ShiftsEachRegionOnceAndFillsEveryList) {
  auto moving = std::make_shared<Region>(1, 2, 3, 4);
  const CheckSettings settings = CheckSettings()
                                     .ignore({Region(5, 100, 50, 60)})
                                     .strict(moving)
                                     .content({Region(0, 20, 1, 1)})
                                     .floating(Region(0, 30, 10, 10), 1, 2, 3, 4)
                                     .ignoreCaret();
  *moving = Region(0, 40, 1, 1);
  struct Case {
    double statusBar;
    bool crop;
    std::int64_t shift;
  };
  for (const Case& c : {Case{20, true, 20}, Case{20, false, 0}, Case{0, true, 0}}) {
    SCOPED_TRACE(c.shift);
    const ImageMatchSettings s =
        MatchSettingsTranslation::translate(settings, MatchLevelLayout, c.statusBar, c.crop);
    EXPECT_EQ(s.matchLevel(), MatchLevelLayout);
    EXPECT_TRUE(s.ignoreCaret());
    EXPECT_EQ(s.ignoredRegions(), std::vector<Region>{Region(5, 100 - c.shift, 50, 60)});
    EXPECT_EQ(s.contentRegions(), std::vector<Region>{Region(0, 20 - c.shift, 1, 1)});
    EXPECT_EQ(s.floatingRegions(), std::vector<FloatingMatchSettings>{
                                       FloatingMatchSettings(0, 30 - c.shift, 10, 10, 1, 2, 4, 3)});
    EXPECT_EQ(s.layoutRegions(), std::vector<Region>{}) << "set, not missing";
    EXPECT_EQ(s.strictRegions(), std::vector<Region>{Region(0, 40 - c.shift, 1, 1)});
  }
  EXPECT_EQ(MatchSettingsTranslation::translate(settings.exact(), MatchLevelLayout, 0, false)
                .matchLevel(),
            MatchLevelExact);
}

}  // namespace
}  // namespace lumo::test
