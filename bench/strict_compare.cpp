// Strict comparison of two phone-sized screenshots: the server's comparer against the plain
// per-pixel evaluation of the same metric, on images that differ in a small area and on images
// that differ everywhere. Prints the speedup on the small difference last.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>

#include "lumo/server/image_comparer.h"
#include "strict_metric.h"

namespace {

using lumo::Image;
using lumo::server::CompareSettings;
using lumo::server::ImageComparer;
using lumo::server::MatchLevel;

constexpr int kWidth = 1170;
constexpr int kHeight = 2532;

void fill(Image& image, int left, int top, int width, int height, std::uint8_t r, std::uint8_t g,
          std::uint8_t b) {
  for (int y = top; y < top + height; ++y) {
    for (int x = left; x < left + width; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = r, p[1] = g, p[2] = b, p[3] = 255;
    }
  }
}

// A list screen: a status bar, a header, rows of text with separators, a photo-like gradient.
Image screenshot(unsigned seed) {
  Image image(kWidth, kHeight);
  fill(image, 0, 0, kWidth, kHeight, 255, 255, 255);
  fill(image, 0, 0, kWidth, 140, 245, 245, 247);
  fill(image, 0, 140, kWidth, 160, 250, 250, 252);
  std::mt19937 random(seed);
  for (int row = 0; row < 14; ++row) {
    const int top = 320 + row * 150;
    for (int x = 48; x < 48 + 500 + (row * 97) % 500; x += 9) {
      const int h = 20 + static_cast<int>(random() % 24);
      fill(image, x, top + 60 - h, 5, h, 30, 30, 35);
    }
    fill(image, 48, top + 140, kWidth - 48, 2, 220, 220, 225);
  }
  for (int y = 2420; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = static_cast<std::uint8_t>(x / 5), p[1] = static_cast<std::uint8_t>(y / 11), p[2] = 128,
      p[3] = 255;
    }
  }
  return image;
}

Image noise(unsigned seed) {
  Image image(kWidth, kHeight);
  std::mt19937 random(seed);
  for (std::size_t i = 0; i < image.pixels().size(); i += 4) {
    const auto v = random();
    image.data()[i] = static_cast<std::uint8_t>(v);
    image.data()[i + 1] = static_cast<std::uint8_t>(v >> 8);
    image.data()[i + 2] = static_cast<std::uint8_t>(v >> 16);
    image.data()[i + 3] = 255;
  }
  return image;
}

struct Pair {
  Image a, b;
};

const Pair& smallDifference() {
  static const Pair pair = [] {
    Pair p{screenshot(1), screenshot(1)};
    fill(p.b, 600, 1000, 80, 40, 30, 30, 35);  // one word longer
    return p;
  }();
  return pair;
}

const Pair& fullDifference() {
  static const Pair pair{noise(1), noise(2)};
  return pair;
}

void fast(benchmark::State& state, const Pair& (*pair)()) {
  const ImageComparer comparer;
  CompareSettings settings;
  settings.level = MatchLevel::Strict;
  for (auto _ : state) {
    auto result = comparer.compare(pair().a, pair().b, settings);
    benchmark::DoNotOptimize(result);
  }
}

void plain(benchmark::State& state, const Pair& (*pair)()) {
  const float maxDelta = lumo::server::detail::maxDeltaFor(0.1f);
  for (auto _ : state) {
    auto result = lumo::server::detail::scanPixelsReference(pair().a, pair().b, maxDelta);
    benchmark::DoNotOptimize(result);
  }
}

BENCHMARK_CAPTURE(plain, small_difference, smallDifference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(fast, small_difference, smallDifference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(plain, full_difference, fullDifference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(fast, full_difference, fullDifference)->Unit(benchmark::kMillisecond);

// Keeps each run's mean wall time per iteration, by name, besides the usual console table.
class Recorder : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        millis[run.benchmark_name()] = run.real_accumulated_time * 1e3 / run.iterations;
      }
    }
  }
  std::map<std::string, double> millis;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Recorder recorder;
  benchmark::RunSpecifiedBenchmarks(&recorder);
  auto& ms = recorder.millis;
  const double plainSmall = ms["plain/small_difference"], fastSmall = ms["fast/small_difference"];
  const double plainFull = ms["plain/full_difference"], fastFull = ms["fast/full_difference"];
  std::printf("small difference: plain %.2f ms, fast %.2f ms\n", plainSmall, fastSmall);
  std::printf("full difference: plain %.2f ms, fast %.2f ms (speedup %.1fx)\n", plainFull, fastFull,
              fastFull > 0 ? plainFull / fastFull : 0.0);
  std::printf("strict compare speedup: %.1fx\n", fastSmall > 0 ? plainSmall / fastSmall : 0.0);
  return 0;
}
