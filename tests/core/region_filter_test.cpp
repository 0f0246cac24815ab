#include "core/fluent/region_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace lumo::test {
namespace {

// Nothing to shift gives the same object back; a shift gives a new one, truncated toward zero;
// heights that leave no integer top give a defined one: 0 for NaN, saturated otherwise.
TEST(RegionFilter, ShiftsUpByTheStatusBarTruncatingTowardZero) {
  auto region = std::make_shared<Region>(5, 100, 50, 60);
  EXPECT_EQ(RegionFilter::filterRegion(region, 0, true), region);
  EXPECT_EQ(RegionFilter::filterRegion(region, 20, false), region);
  auto floating = std::make_shared<FloatingMatchSettings>(1, 30, 3, 4, 5, 6, 7, 8);
  EXPECT_EQ(RegionFilter::filterFloatingRegion(floating, 0, true), floating);

  EXPECT_EQ(*RegionFilter::filterRegion(region, 20, true), Region(5, 80, 50, 60));
  EXPECT_EQ(*region, Region(5, 100, 50, 60)) << "the original is untouched";
  EXPECT_EQ(*RegionFilter::filterFloatingRegion(floating, 20.5, true),
            FloatingMatchSettings(1, 9, 3, 4, 5, 6, 7, 8));
  const double inf = std::numeric_limits<double>::infinity();
  using Limits = std::numeric_limits<std::int64_t>;
  struct Case {
    std::int64_t top;
    double statusBar;
    std::int64_t shifted;
  };
  for (const Case& c : {Case{10, 20.5, -10}, Case{10, -5, 15}, Case{10, std::nan(""), 0},
                        Case{10, inf, Limits::min()}}) {
    SCOPED_TRACE(c.statusBar);
    const auto at = std::make_shared<Region>(0, c.top, 1, 1);
    const auto shifted = RegionFilter::filterRegion(at, c.statusBar, true);
    EXPECT_NE(shifted, at);
    EXPECT_EQ(shifted->top(), c.shifted);
  }
  EXPECT_EQ(RegionFilter::filterFloatingRegion(floating, -inf, true)->top(), Limits::max());
}

}  // namespace
}  // namespace lumo::test
