// Screenshot encoding, the hot path of every checkpoint: our encodePng + base64 against libpng
// at its default settings, on a realistic 1170 x 2532 app screen built here.
#include <benchmark/benchmark.h>
#include <png.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>

#include "common/scaled_screenshot.h"
#include "platform/base64.h"
#include "platform/png.h"

namespace {

using lumo::Image;

void fill(Image& image, int x0, int y0, int w, int h, std::uint32_t rgb) {
  for (int y = y0; y < std::min(y0 + h, image.height()); ++y) {
    for (int x = x0; x < std::min(x0 + w, image.width()); ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = rgb >> 16, p[1] = (rgb >> 8) & 0xff, p[2] = rgb & 0xff, p[3] = 0xff;
    }
  }
}

// Flat backgrounds, a status bar, cards, a photo-like area and lines of glyph-like text.
const Image& appScreen() {
  static const Image screen = [] {
    Image image(1170, 2532);
    std::mt19937 random(7);
    fill(image, 0, 0, 1170, 2532, 0xf7f7fa);
    fill(image, 0, 0, 1170, 140, 0x1f6feb);
    fill(image, 0, 140, 1170, 160, 0xffffff);
    for (int card = 0; card < 6; ++card) {
      const int top = 1000 + card * 240;
      fill(image, 40, top, 1090, 210, 0xffffff);
      fill(image, 70, top + 30, 150, 150, 0xd0d7de + card * 0x050505);
      // Glyph-like text: short dark strokes of varied width in lines.
      for (int line = 0; line < 3; ++line) {
        int x = 250;
        while (x < 1080) {
          const int glyph = 8 + static_cast<int>(random() % 14);
          for (int stroke = 0; stroke < glyph; stroke += 3) {
            fill(image, x + stroke, top + 40 + line * 50, 2, 24 - static_cast<int>(random() % 8),
                 0x24292f);
          }
          x += glyph + 6 + (random() % 5 == 0 ? 14 : 0);
        }
      }
    }
    // A photo: smooth gradients with sensor-like noise.
    for (int y = 320; y < 960; ++y) {
      for (int x = 40; x < 1130; ++x) {
        std::uint8_t* p = image.row(y) + x * 4;
        const double v = std::sin(x * 0.01) * std::cos(y * 0.013);
        p[0] = static_cast<std::uint8_t>(std::clamp(120 + 90 * v + random() % 9, 0.0, 255.0));
        p[1] = static_cast<std::uint8_t>(
            std::clamp(140 + 60 * std::sin(y * 0.02) + random() % 9, 0.0, 255.0));
        p[2] = static_cast<std::uint8_t>(std::clamp(90 + 40 * v + random() % 9, 0.0, 255.0));
      }
    }
    fill(image, 0, 2400, 1170, 132, 0xffffff);
    return image;
  }();
  return screen;
}

// libpng as a straightforward encoder uses it: every setting left at its default.
std::vector<std::uint8_t> libpngDefault(const Image& image) {
  std::vector<std::uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(
      png, &out,
      [](png_structp p, png_bytep data, png_size_t n) {
        auto* sink = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(p));
        sink->insert(sink->end(), data, data + n);
      },
      nullptr);
  png_set_IHDR(png, info, image.width(), image.height(), 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int y = 0; y < image.height(); ++y) {
    png_write_row(png, image.row(y));
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

std::size_t ours(const Image& image) { return lumo::base64Encode(lumo::encodePng(image)).size(); }

void benchLibpngDefault(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(libpngDefault(appScreen()));
  }
}
BENCHMARK(benchLibpngDefault)->Unit(benchmark::kMillisecond);

void benchEncodePngAndBase64(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(ours(appScreen()));
  }
}
BENCHMARK(benchEncodePngAndBase64)->Unit(benchmark::kMillisecond);

void benchDownscaleByThree(benchmark::State& state) {
  auto image = std::make_shared<const Image>(appScreen());
  for (auto _ : state) {
    benchmark::DoNotOptimize(lumo::ScaledScreenshot::areaAverage(image, 3));
  }
}
BENCHMARK(benchDownscaleByThree)->Unit(benchmark::kMillisecond);

template <typename F>
double medianSeconds(F&& run, int rounds = 7) {
  std::vector<double> times;
  for (int i = 0; i < rounds; ++i) {
    const auto start = std::chrono::steady_clock::now();
    run();
    times.push_back(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  const Image& screen = appScreen();
  const double baseline = medianSeconds([&] { benchmark::DoNotOptimize(libpngDefault(screen)); });
  const double fast = medianSeconds([&] { benchmark::DoNotOptimize(ours(screen)); });
  const double baselineSize = static_cast<double>(libpngDefault(screen).size());
  const double oursSize = static_cast<double>(lumo::encodePng(screen).size());
  std::printf("libpng default: %.1f ms, %.0f KB; encodePng + base64: %.1f ms, %.0f KB of PNG\n",
              baseline * 1e3, baselineSize / 1024, fast * 1e3, oursSize / 1024);
  std::printf("encode speedup: %.1fx, size ratio: %.2f\n", baseline / fast,
              oursSize / baselineSize);
}
