#include "arguments.h"

#include <gtest/gtest.h>

#include "exit_status.h"

namespace lumo::cli {
namespace {

TEST(Arguments, ViewportTakesPositiveWidthAndHeight) {
  EXPECT_EQ(parseViewport("--viewport", "390x844"), (Size{390, 844}));
  EXPECT_EQ(parseViewport("--viewport", "187.5x406"), (Size{187.5, 406}));
  for (const char* bad : {"390", "390x", "x844", "0x844", "390x-1", "390x844x2", "abcxdef", ""}) {
    EXPECT_THROW(parseViewport("--viewport", bad), UsageError) << bad;
  }
}

TEST(Arguments, RegionIsFourWholeNumbersWithAPositiveSize) {
  const Region region = parseRegion("--ignore", "-5,10,20,30");
  EXPECT_EQ(region.left(), -5);
  EXPECT_EQ(region.top(), 10);
  EXPECT_EQ(region.width(), 20);
  EXPECT_EQ(region.height(), 30);
  for (const char* bad : {"1,2,3", "1,2,3,4,5", "1,2,0,4", "1,2,3,-4", "1.5,2,3,4", "1,,3,4"}) {
    EXPECT_THROW(parseRegion("--ignore", bad), UsageError) << bad;
  }
}

TEST(Arguments, ErrorNamesTheOptionAndTheText) {
  try {
    parseRegion("--layout", "1,2,3");
    FAIL() << "no error";
  } catch (const UsageError& e) {
    EXPECT_EQ(std::string(e.what()).find("--layout: expected"), 0u) << e.what();
    EXPECT_NE(std::string(e.what()).find("\"1,2,3\""), std::string::npos) << e.what();
  }
}

TEST(Arguments, FloatingOffsetsComeUpDownLeftRight) {
  const FloatingArgument f = parseFloating("--floating", "1,2,30,40,5,6,7,8");
  EXPECT_EQ(f.region, Region(1, 2, 30, 40));
  EXPECT_EQ(f.maxUp, 5);
  EXPECT_EQ(f.maxDown, 6);
  EXPECT_EQ(f.maxLeft, 7);
  EXPECT_EQ(f.maxRight, 8);
  EXPECT_THROW(parseFloating("--floating", "1,2,30,40,5,6,7"), UsageError);
  EXPECT_THROW(parseFloating("--floating", "1,2,30,40,5,-6,7,8"), UsageError);
}

TEST(Arguments, PropertySplitsAtTheFirstEquals) {
  EXPECT_EQ(parseProperty("--property", "device=Pixel=7"),
            (std::pair<std::string, std::string>{"device", "Pixel=7"}));
  for (const char* bad : {"device", "=Pixel", "device=", ""}) {
    EXPECT_THROW(parseProperty("--property", bad), UsageError) << bad;
  }
}

TEST(Arguments, YesNoAndMatchLevel) {
  EXPECT_TRUE(parseYesNo("--save-new-tests", "yes"));
  EXPECT_FALSE(parseYesNo("--save-new-tests", "no"));
  EXPECT_THROW(parseYesNo("--save-new-tests", "true"), UsageError);
  EXPECT_EQ(parseMatchLevel("--match-level", "Layout"), MatchLevelLayout);
  EXPECT_EQ(parseMatchLevel("--match-level", "exact"), MatchLevelExact);
  EXPECT_EQ(parseMatchLevel("--match-level", "None"), MatchLevelNone);
  EXPECT_THROW(parseMatchLevel("--match-level", "Fuzzy"), UsageError);
}

}  // namespace
}  // namespace lumo::cli
