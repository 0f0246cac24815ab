// `lumo compare` beside two widely used image diff tools, odiff and blazediff, each run as a
// whole process on the same PNG files: phone screens (1170 x 2532, 3 pixels a point) and wide
// pages (5600 x 3200, 2 pixels a point), each against a small change (a button's label) and a
// full change (the dark theme). The tools run interleaved, A B C A B C..., so that noise from
// the rest of the machine falls on all of them alike; each line shows the medians and every
// tool's exit status, to see that they agree. The peers come from the cache that
// scripts/install-peers fills, else from PATH; a missing one is skipped. Also times the
// in-process comparison of the phone's full change. The verdict line, last, is lumo compare's
// time over the faster peer's in the worst of the four cases.
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
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app_screens.h"
#include "lumo/server/image_comparer.h"
#include "platform/png.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using lumo::Image;
using lumo::server::ImageComparer;
using lumo::test::ScreenLook;
using Clock = std::chrono::steady_clock;

constexpr int kCommandRuns = 7;
constexpr int kInProcessRuns = 15;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
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

bool executable(const fs::path& file) {
  return fs::is_regular_file(file) && access(file.c_str(), X_OK) == 0;
}

std::optional<fs::path> onPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string rest = path ? path : "";
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const std::string dir = rest.substr(0, colon);
    rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    if (!dir.empty() && executable(fs::path(dir) / name)) {
      return fs::path(dir) / name;
    }
  }
  return std::nullopt;
}

// Where scripts/install-peers puts the npm packages.
fs::path peersDir() {
  if (const char* dir = std::getenv("LUMO_PEERS_DIR"); dir != nullptr && *dir != '\0') {
    return dir;
  }
  if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache != nullptr && *cache != '\0') {
    return fs::path(cache) / "lumo-peers";
  }
  const char* home = std::getenv("HOME");
  return fs::path(home ? home : "") / ".cache" / "lumo-peers";
}

// The native executable a peer's npm platform package holds (node_modules/SCOPE/PLATFORM/NAME,
// PLATFORM starting with `prefix`): the packages' own `bin` entry may be a node script that
// starts it, and node's start-up is no part of the tool's time.
std::optional<fs::path> findPeer(const std::string& scope, const std::string& prefix,
                                 const std::string& name) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(peersDir() / "node_modules" / scope, ec)) {
    const std::string platform = entry.path().filename().string();
    if (platform.rfind(prefix, 0) == 0 && executable(entry.path() / name)) {
      return entry.path() / name;
    }
  }
  return onPath(name);
}

void writePng(const fs::path& file, const Image& image) {
  const std::vector<std::uint8_t> png = lumo::encodePng(image);
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
}

// A tool's command line, {base} and {other} standing for the two files, and the exit statuses
// by which it says the images differ (0 says they match; anything else is an error).
struct Tool {
  std::string name;
  std::vector<std::string> args;
  std::vector<int> differs;
};

std::vector<std::string> commandLine(const Tool& tool, const std::string& base,
                                     const std::string& other) {
  std::vector<std::string> args;
  for (const std::string& a : tool.args) {
    args.push_back(a == "{base}" ? base : a == "{other}" ? other : a);
  }
  return args;
}

const char* verdictOf(const Tool& tool, int status) {
  if (status == 0) {
    return "match";
  }
  const bool differs =
      std::find(tool.differs.begin(), tool.differs.end(), status) != tool.differs.end();
  return differs ? "differ" : "error";
}

struct Timing {
  double ms = -1;   // the median, or -1 when the tool could not be run
  int status = -1;  // the exit status of the first run
};

// Each tool once untimed (that warms the page cache and gives its verdict), then rounds of
// one run of each.
std::vector<Timing> timeInterleaved(const std::vector<Tool>& tools, const std::string& base,
                                    const std::string& other) {
  std::vector<Timing> timings(tools.size());
  std::vector<std::vector<double>> times(tools.size());
  for (std::size_t t = 0; t < tools.size(); ++t) {
    timings[t].status = runQuietly(commandLine(tools[t], base, other));
  }
  for (int run = 0; run < kCommandRuns; ++run) {
    for (std::size_t t = 0; t < tools.size(); ++t) {
      if (timings[t].status < 0) {
        continue;
      }
      const auto start = Clock::now();
      runQuietly(commandLine(tools[t], base, other));
      times[t].push_back(msSince(start));
    }
  }
  for (std::size_t t = 0; t < tools.size(); ++t) {
    if (!times[t].empty()) {
      timings[t].ms = median(times[t]);
    }
  }
  return timings;
}

std::string msText(const std::vector<Timing>& timings, std::optional<std::size_t> tool) {
  char text[32] = "n/a";
  if (tool && timings[*tool].ms >= 0) {
    std::snprintf(text, sizeof text, "%.1f ms", timings[*tool].ms);
  }
  return text;
}

}  // namespace

int main() {
#ifdef LUMO_COMMAND
  const std::string lumo = LUMO_COMMAND;
#else
  const std::string lumo;
#endif
  if (lumo.empty() || !executable(lumo)) {
    std::printf("note: no lumo command beside the bench (the lumo_cli target)\n");
    std::printf("compare vs fastest peer: n/a (no lumo command)\n");
    return 0;
  }
  // Each tool as a user comparing screenshots runs it: its default colour threshold (0.1 for
  // all three), anti-aliased pixels tolerated, and no diff image, which the peers write only
  // when given a third file.
  std::vector<Tool> tools = {{"lumo compare", {lumo, "compare", "{base}", "{other}"}, {1}}};
  std::optional<std::size_t> odiffAt, blazediffAt;
  if (const auto odiff = findPeer("@odiff", "", "odiff")) {
    odiffAt = tools.size();
    tools.push_back({"odiff", {odiff->string(), "--antialiasing", "{base}", "{other}"}, {21, 22}});
  } else {
    std::printf("note: no odiff; scripts/install-peers installs it (into %s); skipped\n",
                peersDir().c_str());
  }
  if (const auto blazediff = findPeer("@blazediff", "bin-", "blazediff")) {
    blazediffAt = tools.size();
    tools.push_back(
        {"blazediff", {blazediff->string(), "--antialiasing", "{base}", "{other}"}, {1}});
  } else {
    std::printf("note: no blazediff; scripts/install-peers installs it (into %s); skipped\n",
                peersDir().c_str());
  }
  for (const Tool& tool : tools) {
    std::string line;
    for (const std::string& a : commandLine(tool, "BASE.png", "OTHER.png")) {
      line += (line.empty() ? "" : " ") + a;
    }
    std::printf("%s: %s\n", tool.name.c_str(), line.c_str());
  }

  ScreenLook phone;
  phone.widthPoints = 390;
  phone.heightPoints = 844;
  phone.scale = 3;
  // A wide web page: the list in seven columns of about a phone's width each.
  ScreenLook page;
  page.widthPoints = 2800;
  page.heightPoints = 1600;
  page.scale = 2;
  page.columns = 7;
  const fs::path dir =
      fs::temp_directory_path() / ("lumo-compare-bench-" + std::to_string(getpid()));
  fs::create_directories(dir);

  double worst = -1, inProcessMs = -1;
  for (const auto& [size, look] : {std::pair{"phone", phone}, std::pair{"page", page}}) {
    ScreenLook label = look, dark = look;
    label.buttonLabel = "Sign on";
    dark.dark = true;
    const Image base = lumo::test::drawScreen(look);
    const std::string baseFile = (dir / (std::string(size) + "-base.png")).string();
    writePng(baseFile, base);
    for (const auto& [change, changed] : {std::pair{"small", label}, std::pair{"full", dark}}) {
      const Image current = lumo::test::drawScreen(changed);
      const std::string file = (dir / (std::string(size) + "-" + change + ".png")).string();
      writePng(file, current);
      if (std::string(size) == "phone" && std::string(change) == "full") {
        const ImageComparer comparer;
        comparer.compare(base, current, {});  // warms the caches and the allocator
        std::vector<double> times;
        for (int i = 0; i < kInProcessRuns; ++i) {
          const auto start = Clock::now();
          comparer.compare(base, current, {});
          times.push_back(msSince(start));
        }
        inProcessMs = median(times);
      }
      const std::vector<Timing> timings = timeInterleaved(tools, baseFile, file);
      double fastestPeer = -1;
      for (const auto peer : {odiffAt, blazediffAt}) {
        if (peer && timings[*peer].ms > 0 && (fastestPeer < 0 || timings[*peer].ms < fastestPeer)) {
          fastestPeer = timings[*peer].ms;
        }
      }
      char ratio[16] = "n/a";
      if (fastestPeer > 0 && timings[0].ms >= 0) {
        worst = std::max(worst, timings[0].ms / fastestPeer);
        std::snprintf(ratio, sizeof ratio, "%.2f", timings[0].ms / fastestPeer);
      }
      std::string verdicts;
      for (std::size_t t = 0; t < tools.size(); ++t) {
        verdicts += (t == 0 ? "" : ", ") + tools[t].name + " " + std::to_string(timings[t].status) +
                    " (" + verdictOf(tools[t], timings[t].status) + ")";
      }
      std::printf(
          "%-5s %dx%d %-5s change: lumo compare %s, odiff %s, blazediff %s, lumo/fastest peer "
          "%s; exit statuses: %s\n",
          size, base.width(), base.height(), change, msText(timings, std::size_t{0}).c_str(),
          msText(timings, odiffAt).c_str(), msText(timings, blazediffAt).c_str(), ratio,
          verdicts.c_str());
    }
  }

  std::printf("in-process ImageComparer, phone full change: %.1f ms (median of %d)\n", inProcessMs,
              kInProcessRuns);
  if (std::getenv("LUMO_BENCH_KEEP") == nullptr) {
    fs::remove_all(dir);
  } else {
    std::printf("kept the PNG files in %s\n", dir.c_str());
  }
  if (worst < 0) {
    std::printf("compare vs fastest peer: n/a (no peer installed)\n");
  } else {
    std::printf("compare vs fastest peer: %.2f\n", worst);
  }
  return 0;
}
