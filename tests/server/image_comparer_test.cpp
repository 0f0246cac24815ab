#include "lumo/server/image_comparer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "strict_metric.h"
#include "test_images.h"

namespace lumo::server {
namespace {

using namespace lumo::server::testing;

// A small screen: a title, a line of text and a button.
Image screen(unsigned word = 1, Colour buttonColour = kRed, int buttonTop = 120) {
  Image image = solid(200, 240);
  text(image, 20, 20, 120, 16, 100);
  text(image, 20, 60, 160, 12, word);
  button(image, 40, buttonTop, 120, 36, buttonColour, 7);
  return image;
}

CompareSettings at(MatchLevel level) {
  CompareSettings settings;
  settings.level = level;
  return settings;
}

bool matches(const Image& a, const Image& b, const CompareSettings& settings) {
  return ImageComparer().compare(a, b, settings).matches;
}

TEST(ImageComparer, LevelNamesRoundTripAndRejectOtherSpellings) {
  for (MatchLevel level : {MatchLevel::None, MatchLevel::Layout, MatchLevel::Content,
                           MatchLevel::Strict, MatchLevel::Exact}) {
    EXPECT_EQ(matchLevelFromName(matchLevelName(level)), level);
  }
  EXPECT_FALSE(matchLevelFromName("strict"));
  EXPECT_FALSE(matchLevelFromName(""));
}

TEST(ImageComparer, NoneMatchesAnythingEvenAnotherSize) {
  EXPECT_TRUE(matches(noise(20, 30, 1), noise(40, 10, 2), at(MatchLevel::None)));
}

TEST(ImageComparer, DifferentSizesNeverMatchAndTheDiffCoversBoth) {
  const Image a = solid(20, 30), b = solid(25, 30);
  for (MatchLevel level :
       {MatchLevel::Layout, MatchLevel::Content, MatchLevel::Strict, MatchLevel::Exact}) {
    const CompareResult result = ImageComparer().compare(a, b, at(level));
    EXPECT_FALSE(result.matches);
    EXPECT_TRUE(result.sizeMismatch);
  }
  const ImageComparer comparer;
  const CompareResult result = comparer.compare(a, b, at(MatchLevel::Strict));
  const Image diff = comparer.diffImage(a, b, at(MatchLevel::Strict), result);
  EXPECT_EQ(diff.width(), 25);
  EXPECT_EQ(diff.height(), 30);
  EXPECT_EQ(diff.row(0)[24 * 4], 255);  // only in b: red
  EXPECT_EQ(diff.row(0)[24 * 4 + 1], 0);
}

TEST(ImageComparer, ExactSeesOneChannelStepThatStrictDoesNot) {
  const Image a = screen();
  Image b = a;
  b.row(100)[50 * 4 + 2] -= 1;  // white to a blue-less white
  EXPECT_TRUE(matches(a, a, at(MatchLevel::Exact)));
  const CompareResult exact = ImageComparer().compare(a, b, at(MatchLevel::Exact));
  EXPECT_FALSE(exact.matches);
  EXPECT_EQ(exact.differences, std::vector<std::uint32_t>{100 * 200 + 50});
  EXPECT_TRUE(matches(a, b, at(MatchLevel::Strict)));
}

TEST(ImageComparer, StrictFindsAVisibleChangeWhereItIs) {
  const Image a = screen();
  Image b = a;
  fill(b, 150, 200, 4, 3, kBlue);
  const CompareResult result = ImageComparer().compare(a, b, at(MatchLevel::Strict));
  ASSERT_FALSE(result.matches);
  EXPECT_EQ(result.differences.size(), 12u);
  for (std::uint32_t index : result.differences) {
    EXPECT_GE(index % 200, 150u);
    EXPECT_LT(index % 200, 154u);
    EXPECT_GE(index / 200, 200u);
    EXPECT_LT(index / 200, 203u);
  }
}

TEST(ImageComparer, StrictToleratesSlightShadesAndAntialiasedEdges) {
  // A dark box on white whose left edge is drawn with a grey anti-aliasing column; the other
  // rendering puts a different grey there.
  Image a = solid(60, 60);
  fill(a, 20, 10, 20, 40, kBlack);
  Image b = a;
  fill(a, 19, 10, 1, 40, {170, 170, 170});
  fill(b, 19, 10, 1, 40, {90, 90, 90});
  const CompareResult result = ImageComparer().compare(a, b, at(MatchLevel::Strict));
  EXPECT_TRUE(result.matches);
  EXPECT_FALSE(result.tolerated.empty());
  EXPECT_FALSE(matches(a, b, at(MatchLevel::Exact)));

  Image shaded = solid(60, 60, {250, 250, 250});
  EXPECT_TRUE(matches(solid(60, 60, {247, 248, 250}), shaded, at(MatchLevel::Strict)));
}

TEST(ImageComparer, FastStrictScanAgreesWithThePlainOne) {
  // Noise makes every kind of pixel: above and below the threshold, ramps, flat runs.
  Image a = noise(700, 500, 3);
  Image b = a;
  const Image other = noise(700, 500, 4);
  for (int y = 0; y < b.height(); y += 3) {
    const int from = (y * 37) % 600;
    std::copy(other.row(y) + from * 4, other.row(y) + (from + 90) * 4, b.row(y) + from * 4);
  }
  fill(a, 100, 100, 300, 200, kWhite);
  fill(b, 100, 100, 300, 200, kWhite);
  text(b, 120, 120, 200, 30, 9);
  const float maxDelta = detail::maxDeltaFor(0.1f);
  const detail::PixelDiffs plain = detail::scanPixelsReference(a, b, maxDelta);
  for (int threads : {1, 2, 3}) {
    const detail::PixelDiffs fast = detail::scanPixels(a, b, maxDelta, {}, threads);
    EXPECT_EQ(fast.differences, plain.differences) << threads;
    EXPECT_EQ(fast.tolerated, plain.tolerated) << threads;
  }
  EXPECT_GT(plain.differences.size(), 1000u);
  EXPECT_GT(plain.tolerated.size(), 100u);
}

TEST(ImageComparer, ContentIgnoresColourButNotText) {
  const Image a = screen(1, kRed);
  EXPECT_TRUE(matches(a, screen(1, kBlue), at(MatchLevel::Content)));
  EXPECT_FALSE(matches(a, screen(1, kBlue), at(MatchLevel::Strict)));
  EXPECT_FALSE(matches(a, screen(2, kRed), at(MatchLevel::Content)));
}

TEST(ImageComparer, LayoutSeesArrangementNotTextOrColourInPlace) {
  const Image a = screen(1, kRed);
  EXPECT_TRUE(matches(a, screen(2, kRed), at(MatchLevel::Layout)));
  EXPECT_TRUE(matches(a, screen(1, kBlue), at(MatchLevel::Layout)));
  EXPECT_FALSE(matches(a, screen(1, kRed, 170), at(MatchLevel::Layout)));  // moved

  Image added = a;
  text(added, 20, 90, 60, 12, 5);
  const CompareResult result = ImageComparer().compare(a, added, at(MatchLevel::Layout));
  EXPECT_FALSE(result.matches);
  ASSERT_EQ(result.differentAreas.size(), 1u);
  EXPECT_NEAR(result.differentAreas[0].top, 90, 1);
  EXPECT_FALSE(matches(added, a, at(MatchLevel::Layout)));  // removed
}

TEST(ImageComparer, IgnoreRegionsHideDifferencesAtEveryLevel) {
  const Image a = screen(1);
  const Image b = screen(2);
  for (MatchLevel level : {MatchLevel::Content, MatchLevel::Strict, MatchLevel::Exact}) {
    CompareSettings settings = at(level);
    EXPECT_FALSE(matches(a, b, settings));
    settings.ignore = {{10, 55, 180, 25}};
    EXPECT_TRUE(matches(a, b, settings));
    settings.ignore = {{10, 55, 100, 25}};  // covers only part of the change
    EXPECT_FALSE(matches(a, b, settings));
  }
}

TEST(ImageComparer, RegionsApplyTheirOwnLevelInside) {
  const Image a = screen(1, kRed);
  const Rect buttonArea{30, 110, 140, 56};

  // A strict region makes a recoloured button count on a Layout screen.
  CompareSettings layout = at(MatchLevel::Layout);
  EXPECT_TRUE(matches(a, screen(1, kBlue), layout));
  layout.strict = {buttonArea};
  EXPECT_FALSE(matches(a, screen(1, kBlue), layout));
  EXPECT_TRUE(matches(a, screen(2, kRed), layout));  // the text outside stays at Layout

  // Content and layout regions relax a Strict screen inside them only.
  CompareSettings strict = at(MatchLevel::Strict);
  strict.content = {buttonArea};
  EXPECT_TRUE(matches(a, screen(1, kBlue), strict));
  EXPECT_FALSE(matches(a, screen(2, kBlue), strict));
  strict.content.clear();
  strict.layout = {{10, 50, 180, 40}};
  EXPECT_TRUE(matches(a, screen(2, kRed), strict));
  EXPECT_FALSE(matches(a, screen(2, kBlue), strict));

  // A strict region inside an ignore region is ignored.
  CompareSettings ignored = at(MatchLevel::Strict);
  ignored.strict = {buttonArea};
  ignored.ignore = {buttonArea};
  EXPECT_TRUE(matches(a, screen(1, kBlue), ignored));
}

TEST(ImageComparer, FloatingContentMayMoveWithinItsOffsets) {
  const Image a = screen(1, kRed, 120);
  CompareSettings settings = at(MatchLevel::Strict);
  settings.floating = {{{36, 116, 128, 44}, 10, 10, 5, 5}};  // the button and a margin
  EXPECT_TRUE(matches(a, a, settings));
  EXPECT_TRUE(matches(a, screen(1, kRed, 128), settings));  // 8 px down
  EXPECT_TRUE(matches(a, screen(1, kRed, 111), settings));  // 9 px up
  const CompareResult tooFar = ImageComparer().compare(a, screen(1, kRed, 132), settings);
  EXPECT_FALSE(tooFar.matches);
  EXPECT_TRUE(tooFar.differences.empty());
  ASSERT_EQ(tooFar.differentAreas.size(), 1u);
  EXPECT_EQ(tooFar.differentAreas[0], (Rect{31, 106, 138, 64}));

  settings.floating[0].maxDownOffset = 0;  // may only move up now
  EXPECT_FALSE(matches(a, screen(1, kRed, 128), settings));
  // The content itself must still be the same.
  settings.floating[0].maxDownOffset = 10;
  EXPECT_FALSE(matches(a, screen(1, kBlue, 128), settings));
}

TEST(ImageComparer, RegionsOutsideTheImageAreClipped) {
  const Image a = screen(1);
  CompareSettings settings = at(MatchLevel::Strict);
  settings.ignore = {{-50, -50, 10, 10}, {150, 200, 1000, 1000}, {5, 5, -4, 20}};
  settings.floating = {{{500, 500, 10, 10}, 1000000, 1000000, 1000000, 1000000}};
  EXPECT_TRUE(matches(a, a, settings));
  EXPECT_FALSE(matches(a, screen(2), settings));
  // A region whose reach is the whole screen leaves the verdict to the search alone.
  settings.floating = {{{20, 20, 20, 10}, 1000000, 1000000, 1000000, 1000000}};
  EXPECT_TRUE(matches(a, screen(2), settings));
}

TEST(ImageComparer, DiffImageMarksDifferencesAndOutlinesAreas) {
  const Image a = screen(1, kRed, 120);
  Image b = a;
  fill(b, 150, 200, 2, 2, kBlue);
  const ImageComparer comparer;
  const CompareSettings settings = at(MatchLevel::Strict);
  const CompareResult result = comparer.compare(a, b, settings);
  const Image diff = comparer.diffImage(a, b, settings, result);
  ASSERT_EQ(diff.width(), 200);
  const std::uint8_t* marked = diff.row(200) + 150 * 4;
  EXPECT_EQ(marked[0], 255);
  EXPECT_EQ(marked[1], 0);
  const std::uint8_t* faded = diff.row(10) + 10 * 4;  // white stays (nearly) white
  EXPECT_GT(faded[0], 240);
  EXPECT_EQ(faded[0], faded[2]);

  CompareSettings layout = at(MatchLevel::Layout);
  const Image moved = screen(1, kRed, 170);
  const CompareResult areas = comparer.compare(a, moved, layout);
  const Image outlined = comparer.diffImage(a, moved, layout, areas);
  ASSERT_FALSE(areas.differentAreas.empty());
  const Rect box = areas.differentAreas[0];
  EXPECT_EQ(outlined.row(box.top)[box.left * 4 + 1], 0);
}

}  // namespace
}  // namespace lumo::server
