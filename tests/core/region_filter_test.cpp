#include "core/fluent/region_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/rectangle_size.h"
#include "core/fluent/region_provider.h"
#include "core/simple_property_handler.h"
#include "lumo/floating_region_by_rectangle.h"
#include "lumo/ignore_region_by_element.h"
#include "lumo/ignore_region_by_rectangle.h"

namespace lumo {
namespace {

TEST(RegionFilter, GivesTheSameObjectBackWhenNothingShifts) {
  auto region = std::make_shared<Region>(5, 100, 50, 60);
  EXPECT_EQ(RegionFilter::filterRegion(region, 0, true), region);
  EXPECT_EQ(RegionFilter::filterRegion(region, 20, false), region);
  auto floating = std::make_shared<FloatingMatchSettings>(1, 2, 3, 4, 5, 6, 7, 8);
  EXPECT_EQ(RegionFilter::filterFloatingRegion(floating, 0, true), floating);
}

TEST(RegionFilter, ShiftsUpByTheStatusBarTruncatingTowardZero) {
  auto region = std::make_shared<Region>(5, 100, 50, 60);
  auto shifted = RegionFilter::filterRegion(region, 20, true);
  EXPECT_NE(shifted, region);
  EXPECT_EQ(*shifted, Region(5, 80, 50, 60));
  EXPECT_EQ(*region, Region(5, 100, 50, 60)) << "the original is untouched";

  EXPECT_EQ(RegionFilter::filterRegion(std::make_shared<Region>(0, 30, 1, 1), 20.5, true)->top(),
            9);
  EXPECT_EQ(RegionFilter::filterRegion(std::make_shared<Region>(0, 10, 1, 1), 20.5, true)->top(),
            -10);
  EXPECT_EQ(RegionFilter::filterRegion(std::make_shared<Region>(0, 10, 1, 1), -5, true)->top(), 15);
  EXPECT_NE(RegionFilter::filterRegion(region, std::nan(""), true), region);
  // Heights that leave no integer top give a defined one: 0 for NaN, saturated otherwise.
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(RegionFilter::filterRegion(region, std::nan(""), true)->top(), 0);
  EXPECT_EQ(RegionFilter::filterRegion(region, inf, true)->top(),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(RegionFilter::filterFloatingRegion(
                std::make_shared<FloatingMatchSettings>(1, 2, 3, 4, 5, 6, 7, 8), -inf, true)
                ->top(),
            std::numeric_limits<std::int64_t>::max());

  auto floating = RegionFilter::filterFloatingRegion(
      std::make_shared<FloatingMatchSettings>(1, 30, 3, 4, 5, 6, 7, 8), 20.5, true);
  EXPECT_EQ(*floating, FloatingMatchSettings(1, 9, 3, 4, 5, 6, 7, 8));
}

TEST(RegionProviders, RectanglesGiveTheirSharedRegionElementsTheirCurrentFrame) {
  auto region = std::make_shared<Region>(1, 2, 3, 4);
  EXPECT_EQ(IgnoreRegionByRectangle(region).getRegion(), region);
  EXPECT_EQ(RegionProvider(region).getRegion(), region);
  EXPECT_EQ(*FloatingRegionByRectangle(region, 1, 2, 3, 4).getRegion(),
            FloatingMatchSettings(1, 2, 3, 4, 1, 2, 3, 4));

  auto element = std::make_shared<MovableElement>(Rect(0.9, -0.9, 10.99, 5.5));
  IgnoreRegionByElement byElement(element);
  auto first = byElement.getRegion();
  EXPECT_EQ(first->dictionary(), Region(0, 0, 10, 5).dictionary());
  element->setFrame(Rect(20, 20, 5, 5));
  EXPECT_EQ(*byElement.getRegion(), Region(20, 20, 5, 5));
  EXPECT_NE(*first, *byElement.getRegion());
}

TEST(SimplePropertyHandler, StoresAnythingAndReadsItBackByType) {
  SimplePropertyHandler handler;
  EXPECT_TRUE(handler.setProperty(nullptr));
  EXPECT_FALSE(handler.property<RectangleSize>());
  auto size = std::make_shared<RectangleSize>(Size{375, 667});
  EXPECT_TRUE(handler.setProperty(size));
  EXPECT_EQ(handler.property<RectangleSize>(), size);
  EXPECT_FALSE(handler.property<Region>()) << "another type reads as nothing";
}

}  // namespace
}  // namespace lumo
