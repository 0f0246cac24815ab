// What keeping sessions in the store costs per checkpoint, and what the decoded-baseline
// cache saves: the store's per-step writes on their own, then a matching 1170 x 2532 step
// through the SessionManager with the cache and without it. Prints the cache's effect last.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "lumo/server/session_manager.h"
#include "lumo/server/sqlite_store.h"
#include "platform/base64.h"
#include "platform/png.h"

namespace {

using lumo::Image;
using lumo::Json;
using namespace lumo::server;

constexpr int kWidth = 1170;
constexpr int kHeight = 2532;

void fill(Image& image, int left, int top, int width, int height, std::uint8_t shade) {
  for (int y = top; y < top + height; ++y) {
    for (int x = left; x < left + width; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = shade, p[1] = shade, p[2] = shade, p[3] = 255;
    }
  }
}

// A list screen: rows of text-like strokes and a gradient at the bottom.
Image screenshot() {
  Image image(kWidth, kHeight);
  fill(image, 0, 0, kWidth, kHeight, 255);
  std::mt19937 random(7);
  for (int row = 0; row < 14; ++row) {
    const int top = 320 + row * 150;
    for (int x = 48; x < 48 + 500 + (row * 97) % 500; x += 9) {
      const int h = 20 + static_cast<int>(random() % 24);
      fill(image, x, top + 60 - h, 5, h, 30);
    }
  }
  for (int y = 2420; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = static_cast<std::uint8_t>(x / 5), p[1] = static_cast<std::uint8_t>(y / 11), p[2] = 128;
      p[3] = 255;
    }
  }
  return image;
}

double medianMs(int runs, const std::function<void()>& body) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    body();
    times.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count());
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

Json startInfo() {
  return {{"appIdOrName", "Bench"}, {"scenarioIdOrName", "List"}, {"batchInfo", {{"id", "bench"}}}};
}

Json matchData(const std::string& screenshot64) {
  return {{"appOutput", {{"screenshot64", screenshot64}}},
          {"options", {{"name", "list"}, {"imageMatchSettings", {{"matchLevel", "Strict"}}}}}};
}

}  // namespace

int main() {
  std::string pattern = (std::filesystem::temp_directory_path() / "lumo-bench-XXXXXX").string();
  if (!mkdtemp(pattern.data())) {
    return 1;
  }
  const std::filesystem::path dir = pattern;
  double append = 0, matchCached = 0, matchUncached = 0;
  {
    SqliteStore store(dir);
    SessionRecord session;
    session.id = "steps";
    session.batchId = "bench";
    store.addSession(session, {});
    int position = 0;
    append = medianMs(200, [&] {
      StepRecord step{position, "step", StepOutcome::Matched, "Strict", "", "", ""};
      store.appendStep("steps", step, position);
      ++position;
    });
    const double read = medianMs(200, [&] {
      store.findSession("steps");
      store.sessionBaseline("steps");
    });
    std::printf("store per step: append %.3f ms, session reads %.3f ms\n", append, read);

    const std::string screen64 = lumo::base64Encode(lumo::encodePng(screenshot()));
    for (const std::size_t cacheBytes : {kDefaultBaselineCacheBytes, std::size_t{0}}) {
      SessionOptions options;
      options.baselineCacheBytes = cacheBytes;
      options.maxSessionsPerBatch = 1'000'000;
      SessionManager manager(store, ImageComparer(), kDefaultMaxImagePixels, options);
      const std::string first = manager.start(startInfo()).id;
      manager.match(first, matchData(screen64));
      manager.stop(first, false, true, "");
      // One session per run, as a suite's reruns of one test would come.
      const double ms = medianMs(9, [&] {
        const std::string id = manager.start(startInfo()).id;
        manager.match(id, matchData(screen64));
        manager.stop(id, false, false, "");
      });
      (cacheBytes ? matchCached : matchUncached) = ms;
    }
  }
  std::filesystem::remove_all(dir);
  std::printf("start + matching 1170x2532 step + stop: %.1f ms with the cache, %.1f ms without\n",
              matchCached, matchUncached);
  std::printf("baseline cache: %.1f ms saved per matching step\n", matchUncached - matchCached);
  return 0;
}
