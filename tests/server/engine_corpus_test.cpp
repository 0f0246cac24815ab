// The engine's verdicts on real screens: pairs rendered by Chromium from corpus/app.html (see
// scripts/render-corpus), each with the verdict a reviewer gives at every level, and the
// detection floor the README states.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "lumo/server/image_comparer.h"
#include "perceptual_colour.h"
#include "platform/png.h"
#include "server_fixture.h"

namespace lumo::test {
namespace {

Image corpusImage(const std::string& name) {
  std::ifstream in(std::filesystem::path(LUMO_CORPUS_DIR) / name, std::ios::binary);
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                        std::istreambuf_iterator<char>()};
  return decodePng(bytes);
}

TEST(EngineCorpus, EveryPairGetsTheReviewersVerdictAtEveryLevel) {
  std::ifstream cases(std::filesystem::path(LUMO_CORPUS_DIR) / "cases.txt");
  ASSERT_TRUE(cases) << LUMO_CORPUS_DIR;
  const MatchLevel levels[] = {MatchLevelExact, MatchLevelStrict, MatchLevelContent,
                               MatchLevelLayout};
  int pairs = 0;
  for (std::string line; std::getline(cases, line);) {
    std::istringstream fields(line);
    std::string name, baseline, current, verdicts[4];
    if (line.empty() || line[0] == '#' ||
        !(fields >> name >> baseline >> current >> verdicts[0] >> verdicts[1] >> verdicts[2] >>
          verdicts[3])) {
      continue;
    }
    ++pairs;
    const Image a = corpusImage(baseline), b = corpusImage(current);
    for (int i = 0; i < 4; ++i) {
      CompareSettings settings;
      settings.level = levels[i];
      const CompareResult result = ImageComparer().compare(a, b, settings);
      EXPECT_EQ(result.matches ? "match" : "differ", verdicts[i])
          << name << " at " << matchLevelToString(levels[i]) << ": " << result.differentPixels
          << " pixels differ, " << result.toleratedPixels << " tolerated";
    }
  }
  EXPECT_GE(pairs, 15);
}

// The smallest step along `direction` (levels of each channel) that takes `colour` a
// just-noticeable distance away.
Colour justNoticeably(Colour colour, const int direction[3]) {
  const std::uint8_t from[4] = {colour.r, colour.g, colour.b, 255};
  for (int step = 1; step < 256; ++step) {
    const std::uint8_t to[4] = {
        static_cast<std::uint8_t>(std::clamp(colour.r + step * direction[0], 0, 255)),
        static_cast<std::uint8_t>(std::clamp(colour.g + step * direction[1], 0, 255)),
        static_cast<std::uint8_t>(std::clamp(colour.b + step * direction[2], 0, 255)), 255};
    if (server::detail::distance(from, to) >= server::detail::kJustNoticeable) {
      return {to[0], to[1], to[2]};
    }
  }
  return colour;
}

TEST(EngineCorpus, AnyFourByFourAreaOneJustNoticeableStepOffIsCaught) {
  const Colour backgrounds[] = {kWhite,       {246, 246, 248}, {128, 128, 128},
                                {18, 18, 20}, {0, 122, 255},   {255, 149, 0}};
  const int directions[][3] = {{1, 1, 1}, {-1, -1, -1}, {1, 0, 0}, {0, -1, 0}, {0, 0, 1}};
  for (const Colour& background : backgrounds) {
    for (const auto& direction : directions) {
      const Colour shifted = justNoticeably(background, direction);
      if (shifted.r == background.r && shifted.g == background.g && shifted.b == background.b) {
        continue;  // saturated: no step that way
      }
      // Every placement against the engine's 8 x 8 blocks.
      for (int offset : {0, 3, 5, 6}) {
        Image a = solid(40, 40, background), b = a;
        fill(b, 12 + offset, 12 + offset / 2, 4, 4, shifted);
        EXPECT_FALSE(ImageComparer().compare(a, b, {}).matches)
            << int{background.r} << "," << int{background.g} << "," << int{background.b} << " to "
            << int{shifted.r} << "," << int{shifted.g} << "," << int{shifted.b} << " at " << offset;
      }
    }
  }
}

TEST(EngineCorpus, NoiseBelowTheFloorOrWithoutADirectionPasses) {
  // Dither of two levels over a whole screen, and a checkerboard of stronger alternating
  // steps: every pixel changes, no area changes on average.
  std::mt19937 random(7);
  Image a = solid(120, 80, {236, 236, 238}), dither = a, checker = a;
  for (int y = 0; y < 80; ++y) {
    for (int x = 0; x < 120; ++x) {
      std::uint8_t* p = dither.row(y) + x * 4;
      const int d = static_cast<int>(random() % 5) - 2;
      p[0] = static_cast<std::uint8_t>(p[0] + d), p[1] = static_cast<std::uint8_t>(p[1] + d);
      std::uint8_t* q = checker.row(y) + x * 4;
      const int s = (x + y) % 2 ? 9 : -9;
      q[0] = static_cast<std::uint8_t>(q[0] + s), q[1] = static_cast<std::uint8_t>(q[1] + s);
      q[2] = static_cast<std::uint8_t>(q[2] + s);
    }
  }
  EXPECT_TRUE(ImageComparer().compare(a, dither, {}).matches);
  EXPECT_TRUE(ImageComparer().compare(a, checker, {}).matches);
  CompareSettings exact;
  exact.level = MatchLevelExact;
  EXPECT_FALSE(ImageComparer().compare(a, checker, exact).matches);
}

}  // namespace
}  // namespace lumo::test
