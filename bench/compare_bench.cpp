// The comparison engine on phone-sized app screens (1170 x 2532, drawn at 3 pixels a point):
// the same screen, a one-character change and a theme switch. For each pair: the engine at
// Strict in-process, the plain per-pixel reference of the same metric, `lumo compare` as a
// whole process on PNG files, and odiff on the same files when it is on PATH. Prints the full
// change's figures last.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app_screens.h"
#include "lumo/server/image_comparer.h"
#include "platform/png.h"
#include "strict_metric.h"

extern char** environ;

namespace {

using lumo::Image;
using lumo::server::CompareResult;
using lumo::server::CompareSettings;
using lumo::server::ImageComparer;
using lumo::test::ScreenLook;
using Clock = std::chrono::steady_clock;

double medianMs(int runs, const std::function<void()>& work) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    work();
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

// Runs a program with its output discarded; returns its exit status, or -1.
int runQuietly(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) {
    argv.push_back(const_cast<char*>(a.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (failed != 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

std::optional<std::string> onPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string rest = path ? path : "";
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const std::string dir = rest.substr(0, colon);
    rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    const std::string candidate = dir + "/" + name;
    if (!dir.empty() && access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

void writePng(const std::filesystem::path& file, const Image& image) {
  const std::vector<std::uint8_t> png = lumo::encodePng(image);
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
}

struct Figures {
  double inProcess = 0, reference = 0, command = 0, odiff = -1;
};

}  // namespace

int main() {
  ScreenLook look;
  look.widthPoints = 390;
  look.heightPoints = 844;
  ScreenLook word = look, dark = look;
  word.buttonLabel = "Sign on";
  dark.dark = true;
  const Image base = lumo::test::drawScreen(look);
  const std::pair<const char*, Image> pairs[] = {{"identical", base},
                                                 {"small change", lumo::test::drawScreen(word)},
                                                 {"full change", lumo::test::drawScreen(dark)}};
  const double pixels = static_cast<double>(base.width()) * base.height();

  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("lumo-compare-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  writePng(dir / "base.png", base);
#ifdef LUMO_COMMAND
  const std::string lumo = LUMO_COMMAND;
#else
  const std::string lumo;
#endif
  const auto odiff = onPath("odiff");
  if (!odiff) {
    std::printf("note: odiff is not on PATH (npm package odiff-bin); its figures are skipped\n");
  }
  const ImageComparer comparer;
  const CompareSettings strict;
  const float maxDelta = lumo::server::detail::maxDeltaFor(comparer.options().colourThreshold);
  Figures full;
  for (const auto& pair : pairs) {
    // Not a structured binding: the lambdas below capture `current`, which clang 14 refuses.
    const char* name = pair.first;
    const Image& current = pair.second;
    const std::filesystem::path file = dir / (std::string(name) + ".png");
    writePng(file, current);
    Figures f;
    CompareResult result;
    comparer.compare(base, current, strict);  // warm the caches and the allocator
    f.inProcess = medianMs(15, [&] { result = comparer.compare(base, current, strict); });
    std::vector<std::uint8_t> marks(static_cast<std::size_t>(pixels));
    f.reference = medianMs(3, [&] {
      std::fill(marks.begin(), marks.end(), 0);
      lumo::server::detail::scanPixelsReference(base, current, maxDelta, marks.data());
    });
    const std::vector<std::string> lumoArgs = {lumo, "compare", (dir / "base.png").string(),
                                               file.string()};
    if (!lumo.empty() && runQuietly(lumoArgs) >= 0) {
      f.command = medianMs(9, [&] { runQuietly(lumoArgs); });
    }
    if (odiff) {
      const std::vector<std::string> odiffArgs = {*odiff, "--antialiasing",
                                                  (dir / "base.png").string(), file.string()};
      runQuietly(odiffArgs);
      f.odiff = medianMs(9, [&] { runQuietly(odiffArgs); });
    }
    std::printf(
        "%-13s %s, %llu pixels differ, %llu tolerated, %zu boxes: in-process %.2f ms "
        "(%.2f ns/pixel), reference %.1f ms (%.1fx slower), lumo compare %.1f ms",
        name, result.matches ? "match" : "differ",
        static_cast<unsigned long long>(result.differentPixels),
        static_cast<unsigned long long>(result.toleratedPixels), result.boxes.size(), f.inProcess,
        f.inProcess * 1e6 / pixels, f.reference, f.reference / f.inProcess, f.command);
    if (f.odiff >= 0) {
      std::printf(", odiff %.1f ms (lumo compare %.2fx of it)", f.odiff, f.command / f.odiff);
    }
    std::printf("\n");
    full = f;
  }
  if (std::getenv("LUMO_BENCH_KEEP") == nullptr) {
    std::filesystem::remove_all(dir);
  } else {
    std::printf("kept the PNG files in %s\n", dir.c_str());
  }
  if (full.odiff >= 0) {
    std::printf(
        "compare full change: %.1f ms in-process, lumo compare %.1f ms, odiff %.1f ms, "
        "ratio %.2fx\n",
        full.inProcess, full.command, full.odiff, full.command / full.odiff);
  } else {
    std::printf(
        "compare full change: %.1f ms in-process, lumo compare %.1f ms, odiff n/a ms, "
        "ratio n/a\n",
        full.inProcess, full.command);
  }
  return 0;
}
