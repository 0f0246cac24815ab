// One checkpoint of a 1170 x 2532 screen from screenshot to verdict: the embedded server on a
// loopback port, the `Lumo` flavour reading the screen from a PNG file as a device capture
// gives it, a matching step and a fully changed step. The client's and the server's phases are
// timed by calling the same units the checkpoint goes through, one at a time; the whole check
// is timed through the flavour. Prints the phase table, then last
// "round trip: N ms matching, N ms changed" (medians). `round_trip --screens DIR` also leaves
// the two screens in DIR as screen.png and changed.png, for timing whole processes on them.
#include <png.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "common/match_window_data.h"
#include "common/scaled_screenshot.h"
#include "content_hash.h"
#include "image_codec.h"
#include "json_limits.h"
#include "lumo/check_settings.h"
#include "lumo/detail/json.h"
#include "lumo/error.h"
#include "lumo/lumo.h"
#include "lumo/match_result.h"
#include "lumo/running_session.h"
#include "lumo/screenshot_source.h"
#include "lumo/server/image_comparer.h"
#include "lumo/server/server.h"
#include "lumo/server/sqlite_store.h"
#include "lumo/system_log.h"
#include "platform/base64.h"
#include "platform/png.h"

namespace {

using lumo::Image;
using lumo::ImagePtr;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 7;
constexpr int kWidth = 1170;
constexpr int kHeight = 2532;

void fill(Image& image, int x0, int y0, int w, int h, std::uint32_t rgb) {
  for (int y = std::max(0, y0); y < std::min(y0 + h, image.height()); ++y) {
    for (int x = std::max(0, x0); x < std::min(x0 + w, image.width()); ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = rgb >> 16, p[1] = (rgb >> 8) & 0xff, p[2] = rgb & 0xff, p[3] = 0xff;
    }
  }
}

// An app screen: status bar, flat backgrounds, cards with lines of glyph-like text, a photo of
// smooth gradients with sensor-like noise. `theme` 1 gives the same layout in other colours,
// other text and another photo, so that no pixel is left as it was.
Image appScreen(int theme) {
  Image image(kWidth, kHeight);
  std::mt19937 random(7 + theme);
  const bool dark = theme != 0;
  fill(image, 0, 0, kWidth, kHeight, dark ? 0x101218 : 0xf7f7fa);
  fill(image, 0, 0, kWidth, 140, dark ? 0x8a3ffc : 0x1f6feb);
  fill(image, 0, 140, kWidth, 160, dark ? 0x1c1f26 : 0xffffff);
  for (int card = 0; card < 6; ++card) {
    const int top = 1000 + card * 240;
    fill(image, 40, top, 1090, 210, dark ? 0x22262e : 0xffffff);
    fill(image, 70, top + 30, 150, 150, (dark ? 0x303846 : 0xd0d7de) + card * 0x050505);
    for (int line = 0; line < 3; ++line) {
      int x = 250;
      while (x < 1080) {
        const int glyph = 8 + static_cast<int>(random() % 14);
        for (int stroke = 0; stroke < glyph; stroke += 3) {
          fill(image, x + stroke, top + 40 + line * 50, 2, 24 - static_cast<int>(random() % 8),
               dark ? 0xe6edf3 : 0x24292f);
        }
        x += glyph + 6 + (random() % 5 == 0 ? 14 : 0);
      }
    }
  }
  const double phase = dark ? 1.7 : 0.0;
  for (int y = 320; y < 960; ++y) {
    for (int x = 40; x < 1130; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      const double v = std::sin(x * 0.01 + phase) * std::cos(y * 0.013 + phase);
      p[0] = static_cast<std::uint8_t>(std::clamp(120 + 90 * v + random() % 9, 0.0, 255.0));
      p[1] = static_cast<std::uint8_t>(
          std::clamp(140 + 60 * std::sin(y * 0.02 + phase) + random() % 9, 0.0, 255.0));
      p[2] = static_cast<std::uint8_t>(std::clamp(90 + 40 * v + random() % 9, 0.0, 255.0));
    }
  }
  fill(image, 0, 2400, kWidth, 132, dark ? 0x1c1f26 : 0xffffff);
  return image;
}

// The file a device's screen capture gives: libpng with every setting at its default.
std::vector<std::uint8_t> devicePng(const Image& image) {
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

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumo-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Keeps a result the optimiser would otherwise drop.
template <typename T>
void keep(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0.0 : values[values.size() / 2];
}

// CPU time of the whole process (client, server and HTTP threads alike), in milliseconds: on a
// machine shared with other work the wall time alone says little.
double processCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// Medians of wall and process CPU time, in milliseconds.
struct Timing {
  double wall = 0;
  double cpu = 0;
};

Timing timed(const std::function<void()>& run) {
  std::vector<double> walls, cpus;
  for (int i = 0; i < kRounds; ++i) {
    const auto start = Clock::now();
    const double cpu = processCpuMs();
    run();
    cpus.push_back(processCpuMs() - cpu);
    walls.push_back(millisecondsSince(start));
  }
  return {median(walls), median(cpus)};
}

void row(const char* phase, Timing t, const char* note = "") {
  std::printf("  %-32s %8.1f %8.1f  %s\n", phase, t.wall, t.cpu, note);
}

// The phases of the client's side of a checkpoint, each timed on its own as the flavour runs
// it: the source's capture, the edits (timed though this checkpoint needs none), the bytes to
// send, base64 and the request body.
struct ClientPhases {
  Timing capture, decode, statusBarCut, downscale, encode, base64, body;
  // The source's PNG goes out as it is: no encode on the way.
  bool passesThrough = false;
  std::string sent64;
  std::string bodyJson;  // the match request's JSON
};

ClientPhases clientPhases(lumo::ScreenshotSource& source) {
  ClientPhases phases;
  lumo::CapturedScreen captured;
  phases.capture = timed([&] { captured = source.captureScreen(); });
  ImagePtr image;
  phases.decode = timed([&] { image = lumo::ScaledScreenshot(nullptr, captured.png).image(); });
  phases.statusBarCut = timed([&] {
    lumo::ScaledScreenshot shot(image);
    shot.cropStatusBarWithHeight(47, 3);
  });
  phases.downscale = timed([&] { keep(lumo::ScaledScreenshot::areaAverage(image, 3)); });
  std::vector<std::uint8_t> encoded;
  phases.encode = timed([&] { encoded = lumo::encodePng(*image); });
  // What the flavour sends for a screen it keeps as it is.
  const auto sent = lumo::ScaledScreenshot(captured.image, captured.png).downscale(1)->png();
  phases.passesThrough = sent != nullptr;
  const std::vector<std::uint8_t>& bytes = sent ? *sent : encoded;
  std::string text;
  phases.base64 = timed([&] { text = lumo::base64Encode(bytes); });
  phases.sent64 = text;
  const auto settings = std::make_shared<lumo::ImageMatchSettings>();
  phases.body = timed([&] {
    lumo::MatchWindowData data(lumo::AppOutput("Home", text), "home",
                               lumo::Options("home", false, false, false, false, settings));
    text = data.compactJson();
  });
  phases.bodyJson = std::move(text);
  return phases;
}

// The server's units one at a time, on the bytes the client sends: base64 and PNG decode,
// baseline load (read and decode), compare, the diff image, and the store's writes.
struct ServerPhases {
  Timing parse, base64, hash, decode, baselineLoad, compareMatching, verdictChanged, compareChanged;
  Timing diffImage, diffEncode, putImage, addStep;
};

ServerPhases serverPhases(const std::string& body, const std::string& sent64, const Image& changed,
                          const std::filesystem::path& dir) {
  namespace server = lumo::server;
  ServerPhases phases;
  phases.parse = timed([&] { keep(server::detail::parseMatchBody(body)); });
  std::optional<std::string> png;
  phases.base64 = timed([&] { png = server::detail::decodeBase64(sent64); });
  std::optional<Image> current;
  phases.hash = timed([&] { keep(server::detail::sha256Hex(*png)); });
  phases.decode = timed([&] { current = server::detail::decodePngImage(*png); });

  server::SqliteStore store(dir);
  const std::string hash = store.putImage(*png);
  std::optional<Image> baseline;
  phases.baselineLoad =
      timed([&] { baseline = server::detail::decodePngImage(*store.readImage(hash)); });

  const server::ImageComparer comparer;
  const server::CompareSettings settings;
  server::CompareResult same, different;
  phases.compareMatching = timed([&] { same = comparer.compare(*baseline, *current, settings); });
  phases.verdictChanged = timed([&] { keep(comparer.verdict(*baseline, changed, settings)); });
  phases.compareChanged =
      timed([&] { different = comparer.compare(*baseline, changed, settings); });
  Image diff;
  phases.diffImage =
      timed([&] { diff = comparer.diffImage(*baseline, changed, settings, different); });
  phases.diffEncode =
      timed([&] { keep(server::detail::encodePngImage(diff, lumo::PngCompression::Fast)); });

  // Fresh bytes each time: storing the same bytes again is a no-op.
  int serial = 0;
  phases.putImage = timed([&] { store.putImage(*png + std::to_string(++serial)); });
  server::SessionRecord session;
  session.id = "bench";
  session.batchId = "bench";
  store.addBatch({"bench", "bench", "", 0});
  session.state = server::SessionState::Running;
  store.addSession(session, {});
  int position = 0;
  phases.addStep = timed([&] {
    server::StepRecord step;
    step.position = position++;
    step.name = "home";
    step.outcome = server::StepOutcome::Matched;
    store.appendStep("bench", step, position);
  });
  return phases;
}

// A test of one checkpoint against the server: the session is started before the clock runs,
// so that the time is the checkpoint's alone.
struct Checkpoint {
  Timing check;
  bool asExpected = false;
};

Checkpoint checkpoint(const std::string& serverURL, const std::filesystem::path& screen) {
  auto source =
      std::make_shared<lumo::PngFileScreenshotSource>(std::vector<std::filesystem::path>{screen});
  lumo::Lumo lumo(serverURL, source);
  lumo.setApiKey(std::string(lumo::server::kDemoApiKey));
  // One attempt: the whole-second settling of the retry loop is no part of the round trip.
  lumo.setMatchTimeout(0);
  lumo.open("Bench", "Home", {kWidth, kHeight});
  lumo.ensureRunningSession();
  const auto start = Clock::now();
  const double cpu = processCpuMs();
  const auto result = lumo.check("home");
  Checkpoint done{{millisecondsSince(start), processCpuMs() - cpu}, result && result->asExpected()};
  lumo::Error error;
  lumo.closeWithThrow(false, &error);
  return done;
}

}  // namespace

int main(int argc, char** argv) {
  lumo::setSystemLogSink([](std::string_view) {});
  TempDir dir;
  const Image screen = appScreen(0);
  const Image changed = appScreen(1);
  const auto write = [&](const char* name, const Image& image) {
    const auto path = dir.path() / name;
    const auto bytes = devicePng(image);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path;
  };
  const auto screenFile = write("screen.png", screen);
  const auto changedFile = write("changed.png", changed);
  if (argc == 3 && std::string_view(argv[1]) == "--screens") {
    std::filesystem::copy_file(screenFile, std::filesystem::path(argv[2]) / "screen.png",
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::copy_file(changedFile, std::filesystem::path(argv[2]) / "changed.png",
                               std::filesystem::copy_options::overwrite_existing);
  }

  // As `lumo server` does.
  lumo::server::keepFreedMemoryForReuse();
  lumo::server::ServerConfig config;
  config.dataDir = dir.path() / "data";
  lumo::server::Server server(config);
  server.start();
  const std::string url = server.baseUrl();

  // The baseline: a new test, saved when it closes.
  checkpoint(url, screenFile);
  std::vector<double> matching, different, matchingCpu, differentCpu;
  bool verdictsRight = true;
  for (int i = 0; i < kRounds; ++i) {
    const Checkpoint same = checkpoint(url, screenFile);
    const Checkpoint other = checkpoint(url, changedFile);
    verdictsRight = verdictsRight && same.asExpected && !other.asExpected;
    matching.push_back(same.check.wall);
    different.push_back(other.check.wall);
    matchingCpu.push_back(same.check.cpu);
    differentCpu.push_back(other.check.cpu);
  }
  server.stop();

  lumo::PngFileScreenshotSource source({screenFile});
  const ClientPhases client = clientPhases(source);
  const std::string& sent64 = client.sent64;
  const ServerPhases side = serverPhases(client.bodyJson, sent64, changed, dir.path() / "store");

  const Timing matchingCheck{median(matching), median(matchingCpu)};
  const Timing changedCheck{median(different), median(differentCpu)};
  std::printf("screen %d x %d, source PNG %.0f KB, sent %.0f KB of base64; medians of %d\n", kWidth,
              kHeight, std::filesystem::file_size(screenFile) / 1024.0, sent64.size() / 1024.0,
              kRounds);
  std::printf("%-34s %8s %8s   (ms)\n", "client, each phase on its own", "wall", "cpu");
  row("capture (read + PNG check)", client.capture);
  row("PNG decode", client.decode, "(only for a crop, cut or scale)");
  row("status-bar cut", client.statusBarCut, "(not applied here)");
  row("downscale by 3", client.downscale, "(not applied here)");
  row("PNG encode", client.encode,
      client.passesThrough ? "(skipped: the source's PNG is sent)" : "");
  row("base64", client.base64);
  row("request body (JSON)", client.body);
  const auto minus = [](Timing whole, std::initializer_list<Timing> parts) {
    for (const Timing& part : parts) {
      whole.wall -= part.wall;
      whole.cpu -= part.cpu;
    }
    return whole;
  };
  const std::initializer_list<Timing> local = {
      client.capture, client.passesThrough ? Timing{} : client.encode, client.base64, client.body};
  row("request (check - the above)", minus(matchingCheck, local), "matching step");
  row("request (check - the above)", minus(changedCheck, local), "changed step");
  std::printf("%-34s %8s %8s\n", "server, each unit on its own", "wall", "cpu");
  row("request body JSON parse", side.parse, "(screenshot lifted out)");
  row("base64 decode", side.base64);
  row("SHA-256 of the PNG", side.hash, "(same bytes as the baseline: matched here)");
  row("PNG decode", side.decode, "(other bytes)");
  row("baseline load (read + decode)", side.baselineLoad);
  row("compare, matching", side.compareMatching);
  row("compare, changed: verdict", side.verdictChanged, "(stops at the first difference)");
  row("compare, changed: whole", side.compareChanged, "(after the answer)");
  row("diff image", side.diffImage, "(after the answer)");
  row("diff PNG encode", side.diffEncode, "(after the answer)");
  row("store image (synced at stop)", side.putImage);
  row("store step row", side.addStep);
  row("whole check, matching", matchingCheck);
  row("whole check, changed", changedCheck);
  std::printf("verdicts %s\n", verdictsRight ? "right" : "WRONG");
  std::printf("round trip: %.0f ms matching, %.0f ms changed\n", matchingCheck.wall,
              changedCheck.wall);
  return verdictsRight ? 0 : 1;
}
