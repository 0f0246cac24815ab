#include "lumo/server/image_comparer.h"

#include <gtest/gtest.h>

#include "server_fixture.h"
#include "strict_metric.h"

// The cases name only the settings they set; the rest stay as they are by default.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace lumo::test {
namespace {

using namespace lumo::server;

CompareResult compare(const Image& a, const Image& b, const CompareSettings& settings) {
  return ImageComparer().compare(a, b, settings);
}

// The small screen with a bar drawn right of its second line of text, as a caret in a field.
Image withBar(Image image, int width = 2, int height = 12) {
  fill(image, 185, 60, width, height, kBlue);
  return image;
}

TEST(ImageComparer, IgnoringTheCaretLeavesOutANarrowBarAlone) {
  Image speckBeside = withBar(screen(1));
  fill(speckBeside, 190, 66, 1, 1, kBlack);
  const struct {
    Image current;
    bool ignoreCaret, matches;
  } cases[] = {
      {withBar(screen(1)), false, false},    {withBar(screen(1)), true, true},
      {withBar(screen(1), 5), true, false},  {withBar(screen(1), 2, 5), true, false},
      {std::move(speckBeside), true, false}, {withBar(screen(2)), true, false},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    for (MatchLevel level : {MatchLevelExact, MatchLevelStrict, MatchLevelContent}) {
      const CompareSettings settings{.level = level, .ignoreCaret = cases[i].ignoreCaret};
      EXPECT_EQ(compare(screen(1), cases[i].current, settings).matches, cases[i].matches)
          << "case " << i << " at " << matchLevelToString(level);
    }
  }
}

TEST(ImageComparer, BoxesSurroundEachClusterOfDifferences) {
  Image b = screen();
  fill(b, 150, 200, 3, 3, kBlack);  // a speck on the white below the button
  fill(b, 5, 230, 2, 1, kRed);      // and another far away
  const CompareResult result = compare(screen(), b, {});
  EXPECT_EQ(result.differentPixels, 11u);
  EXPECT_EQ(result.boxes, (std::vector<Rect>{{150, 200, 3, 3}, {5, 230, 2, 1}}));
  // A changed line of text is one box, not one per stroke.
  const CompareResult line = compare(screen(1), screen(2), {});
  ASSERT_EQ(line.boxes.size(), 1u);
  EXPECT_TRUE(Rect(20, 60, 160, 12).contains(line.boxes[0])) << toString(line.boxes[0]);
  EXPECT_GT(line.boxes[0].size.width, 100);
  EXPECT_EQ(compare(solid(20, 30), solid(25, 30), {}).boxes, (std::vector<Rect>{{0, 0, 25, 30}}));
}

TEST(ImageComparer, ExactSeesOneChannelStepAndAntialiasingThatStrictTolerates) {
  const Image a = screen();
  Image b = a;
  b.row(100)[50 * 4 + 2] -= 1;  // white to a blue-less white
  const CompareResult exact = compare(a, b, {.level = MatchLevelExact});
  EXPECT_FALSE(exact.matches);
  EXPECT_EQ(exact.boxes, (std::vector<Rect>{{50, 100, 1, 1}}));
  EXPECT_TRUE(compare(a, b, {}).matches);

  // A dark box on white whose left edge is drawn with a grey anti-aliasing column; the other
  // rendering puts a different grey there.
  Image edge = solid(60, 60);
  fill(edge, 20, 10, 20, 40, kBlack);
  Image other = edge;
  fill(edge, 19, 10, 1, 40, {170, 170, 170});
  fill(other, 19, 10, 1, 40, {90, 90, 90});
  const CompareResult strict = compare(edge, other, {});
  EXPECT_TRUE(strict.matches);
  EXPECT_GT(strict.toleratedPixels, 0u);
  EXPECT_FALSE(compare(edge, other, {.level = MatchLevelExact}).matches);
  EXPECT_TRUE(compare(solid(60, 60, {247, 248, 250}), solid(60, 60, {250, 250, 250}), {}).matches);
}

TEST(ImageComparer, FloatingOffsetsFarBeyondTheImageAreClamped) {
  // A one-pixel region that may move anywhere on a large image: the search is bounded by the
  // image and by its budget, and it finds the pixel's colour elsewhere.
  Image a = solid(2000, 2000), b = a;
  fill(a, 1000, 1000, 1, 1, kBlack);
  fill(b, 1000, 1000, 1, 1, kRed);
  const int far = 1000000000;
  const CompareSettings settings{.floating = {{{1000, 1000, 1, 1}, far, far, far, far}}};
  const CompareResult result = compare(a, b, settings);
  EXPECT_FALSE(result.matches);
  EXPECT_EQ(result.differentAreas, (std::vector<Rect>{{0, 0, 2000, 2000}}));
  fill(b, 1003, 998, 1, 1, kBlack);
  EXPECT_TRUE(compare(a, b, settings).matches);
}

// Regions over the small screen's second line of text (`line`) or its button: each applies
// its own rule inside and leaves the rest of the screen at the step's level.
TEST(ImageComparer, RegionsApplyTheirRuleInsideOnly) {
  const Rect line{10, 55, 180, 25}, partOfLine{10, 55, 100, 25}, buttonArea{30, 110, 140, 56};
  const FloatingRect button{{36, 116, 128, 44}, 10, 10, 5, 5};  // the button and a margin
  const FloatingRect anywhere{{500, 500, 10, 10}, 1000000, 1000000, 1000000, 1000000};
  const struct {
    CompareSettings settings;
    Image current;
    bool matches;
  } cases[] = {
      {{.level = MatchLevelExact, .ignore = {line}}, screen(2), true},
      {{.level = MatchLevelExact, .ignore = {partOfLine}}, screen(2), false},
      // A strict region makes a recoloured button count on a Layout screen, not the text.
      {{.level = MatchLevelLayout, .strict = {buttonArea}}, screen(1, kBlue), false},
      {{.level = MatchLevelLayout, .strict = {buttonArea}}, screen(2), true},
      // Content and layout regions relax a Strict screen inside them only.
      {{.level = MatchLevelStrict, .content = {buttonArea}}, screen(1, kBlue), true},
      {{.level = MatchLevelStrict, .content = {buttonArea}}, screen(2, kBlue), false},
      {{.level = MatchLevelStrict, .layout = {{10, 50, 180, 40}}}, screen(2), true},
      {{.level = MatchLevelStrict, .layout = {{10, 50, 180, 40}}}, screen(2, kBlue), false},
      // A strict region inside an ignore region is ignored.
      {{.level = MatchLevelStrict, .ignore = {buttonArea}, .strict = {buttonArea}},
       screen(1, kBlue),
       true},
      // Floating content may move within its offsets, and must itself stay the same.
      {{.level = MatchLevelStrict, .floating = {button}}, screen(1, kRed, 111), true},  // 9 px up
      {{.level = MatchLevelStrict, .floating = {{button.rect, 10, 0, 5, 5}}},
       screen(1, kRed, 128),
       false},
      {{.level = MatchLevelStrict, .floating = {button}}, screen(1, kBlue, 128), false},
      // Regions outside the image are clipped; one reaching the whole screen leaves the
      // verdict to the search alone.
      {{.level = MatchLevelStrict,
        .ignore = {{-50, -50, 10, 10}, {150, 200, 1000, 1000}, {5, 5, -4, 20}},
        .floating = {anywhere}},
       screen(1),
       true},
      {{.level = MatchLevelStrict, .ignore = {{150, 200, 1000, 1000}}, .floating = {anywhere}},
       screen(2),
       false},
      {{.level = MatchLevelStrict,
        .floating = {{{20, 20, 20, 10}, 1000000, 1000000, 1000000, 1000000}}},
       screen(2),
       true},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(compare(screen(1), cases[i].current, cases[i].settings).matches, cases[i].matches)
        << "case " << i;
  }
  // Moved too far: no pixel differs, the region's reach is the different area.
  const CompareResult tooFar = compare(screen(1), screen(1, kRed, 132), {.floating = {button}});
  EXPECT_FALSE(tooFar.matches);
  EXPECT_EQ(tooFar.differentPixels, 0u);
  EXPECT_EQ(tooFar.differentAreas, (std::vector<Rect>{{31, 106, 138, 64}}));
}

}  // namespace
}  // namespace lumo::test
