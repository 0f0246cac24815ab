#include "lumo/check_settings.h"

#include <gtest/gtest.h>

#include "lumo/floating_region_by_rectangle.h"
#include "lumo/ignore_region_by_rectangle.h"

namespace lumo::test {
namespace {

std::vector<Region> regionsOf(const CheckSettingsInternalProtocol::RegionProviders& providers) {
  std::vector<Region> regions;
  for (const auto& provider : providers) {
    regions.push_back(*provider->getRegion());
  }
  return regions;
}

TEST(CheckSettings, FluentOperationsLeaveTheReceiverUntouched) {
  const CheckSettings base = CheckSettings().ignore({Region(1, 2, 3, 4)});
  const CheckSettings refined = base.layout()
                                    .ignore({Region(5, 6, 7, 8)})
                                    .timeoutInSeconds(5)
                                    .ignoreCaret()
                                    .withStatusBar()
                                    .fully();
  EXPECT_EQ(base.getMatchLevel(), MatchLevelNone);
  EXPECT_EQ(base.getTimeoutInSeconds(), 0u);
  EXPECT_FALSE(base.getIgnoreCaret() || base.getWithStatusBar() || base.getStitchContent());
  EXPECT_EQ(base.getIgnoredRegions().size(), 1u);

  EXPECT_EQ(refined.getMatchLevel(), MatchLevelLayout);
  EXPECT_EQ(refined.getTimeoutInSeconds(), 5u);
  EXPECT_TRUE(refined.getIgnoreCaret() && refined.getWithStatusBar() && refined.getStitchContent());
  EXPECT_EQ(regionsOf(refined.getIgnoredRegions()),
            (std::vector<Region>{Region(1, 2, 3, 4), Region(5, 6, 7, 8)}));
}

TEST(CheckSettings, CopiesShareProvidersAndRegionsButNotLists) {
  const CheckSettings base = CheckSettings().strict({Region(1, 1, 1, 1)});
  const CheckSettings copy = base.strict({Region(2, 2, 2, 2)});
  ASSERT_EQ(copy.getStrictRegions().size(), 2u);
  EXPECT_EQ(copy.getStrictRegions()[0], base.getStrictRegions()[0]);
  // The Region inside a shared provider is one object for both settings.
  base.getStrictRegions()[0]->getRegion()->updateWithRect(Rect(9, 9, 9, 9));
  EXPECT_EQ(*copy.getStrictRegions()[0]->getRegion(), Region(9, 9, 9, 9));
  EXPECT_EQ(base.getTargetRegion(), copy.getTargetRegion());
}

// An element's region is its frame when asked, truncated to whole points. The floating builder
// takes up, down, right, left; the region's offsets read up, down, left, right. One offset
// serves every region of a list.
TEST(CheckSettings, ElementAndFloatingRegions) {
  auto button = std::make_shared<MovableElement>(Rect(0, 0, 1, 1));
  const CheckSettings settings = CheckSettings()
                                     .ignore(button)
                                     .floating(button, 1, 2, 3, 4)
                                     .floating({Region(0, 0, 1, 1), Region(2, 2, 1, 1)}, 5);
  button->setFrame(Rect(50.9, -0.9, 70, 80.9));
  EXPECT_EQ(settings.getIgnoredRegions()[0]->getRegion()->dictionary(),
            Region(50, 0, 70, 80).dictionary());
  ASSERT_EQ(settings.getFloatingRegions().size(), 3u);
  EXPECT_EQ(*settings.getFloatingRegions()[0]->getRegion(),
            FloatingMatchSettings(50, 0, 70, 80, 1, 2, 4, 3));
  EXPECT_EQ(*settings.getFloatingRegions()[2]->getRegion(),
            FloatingMatchSettings(2, 2, 1, 1, 5, 5, 5, 5));
}

}  // namespace
}  // namespace lumo::test
