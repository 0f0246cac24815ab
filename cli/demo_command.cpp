#include "demo_command.h"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <fstream>
#include <ostream>
#include <system_error>
#include <vector>

#include "arguments.h"
#include "check_command.h"
#include "demo_screens.h"
#include "exit_status.h"
#include "lumo/server/server.h"
#include "lumo/system_log.h"
#include "platform/png.h"
#include "server_command.h"

namespace lumo::cli {
namespace {

constexpr const char* kDemoApp = "Lumo Demo";
constexpr const char* kDemoTest = "Three screens";

// A fresh directory for the demo's baselines, removed with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumo-demo-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "cannot make a data directory");
    }
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Silences the library's log lines for the demo's lifetime, unless asked to show them.
class QuietLog {
 public:
  explicit QuietLog(bool verbose) : active_(!verbose) {
    if (active_) {
      previous_ = setSystemLogSink([](std::string_view) {});
    }
  }
  ~QuietLog() {
    if (active_) {
      setSystemLogSink(std::move(previous_));
    }
  }
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

 private:
  bool active_;
  SystemLogSink previous_;
};

const char* meaning(int status) {
  switch (status) {
    case kExitPassed:
      return "passed";
    case kExitDifferences:
      return "differences found";
    case kExitNewTest:
      return "new test";
    case kExitUsage:
      return "usage error";
    default:
      return "server unreachable";
  }
}

void writeScreens(const std::filesystem::path& directory, std::ostream& out) {
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (ec) {
    throw UsageError(
        fmt::format("--write-screens: cannot make \"{}\": {}", directory.string(), ec.message()));
  }
  std::vector<std::pair<std::string, ImagePtr>> files;
  for (const DemoScreen& screen : drawDemoScreens()) {
    files.emplace_back(screen.tag, screen.image);
  }
  files.emplace_back("Login-changed", drawDemoScreens(true).front().image);
  for (const auto& [name, image] : files) {
    const auto path = directory / (name + ".png");
    const auto bytes = encodePng(*image);
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
      throw UsageError(fmt::format("--write-screens: cannot write \"{}\"", path.string()));
    }
    fmt::print(out, "{}\n", path.string());
  }
}

}  // namespace

DemoCommand::DemoCommand(CLI::App& parent) {
  CLI::App* c = parent.add_subcommand(
      "demo", "Run three visual tests of an example app against an embedded server");
  command_ = c;
  c->add_flag("--serve", parsed_.serve, "Keep the server running afterwards, until Ctrl-C");
  c->add_flag("--verbose", parsed_.verbose, "Show the library's log lines on stderr");
  c->add_option("--port", port_, "Port of the embedded server (default: any free port)")
      ->type_name("PORT");
  c->add_option("--write-screens", parsed_.writeScreens,
                "Only write the example screens as PNG files into DIR")
      ->type_name("DIR");
}

bool DemoCommand::selected() const { return command_->parsed(); }

DemoOptions DemoCommand::options() const {
  DemoOptions o = parsed_;
  if (command_->count("--port") > 0) {
    o.port = parsePort("--port", port_);
  }
  if (command_->count("--write-screens") > 0 && o.writeScreens.empty()) {
    throw UsageError("--write-screens: the directory is empty");
  }
  return o;
}

int runDemo(const DemoOptions& o, std::ostream& out, std::ostream& err) {
  if (!o.writeScreens.empty()) {
    writeScreens(o.writeScreens, out);
    return 0;
  }
  if (o.serve) {
    blockStopSignals();
  }
  QuietLog quiet(o.verbose);
  TemporaryDirectory data;
  lumo::server::ServerConfig config;
  config.port = o.port;
  config.dataDir = data.path();
  lumo::server::Server server(config);
  try {
    server.start();
  } catch (const std::exception& e) {
    fmt::print(err, "lumo demo: cannot start the server: {}\n", e.what());
    return 1;
  }
  fmt::print(out, "Started the reference server at {} (data in {})\n", server.baseUrl(),
             data.path().string());

  struct Run {
    const char* title;
    bool changed;
    int expected;
  };
  const Run runs[] = {
      {"Run 1 of 3: a new visual test of the example app's Login, Inbox and Settings screens",
       false, kExitNewTest},
      {"Run 2 of 3: the same screens again", false, kExitPassed},
      {"Run 3 of 3: the Login button changed colour", true, kExitDifferences},
  };
  bool asExpected = true;
  for (const Run& run : runs) {
    fmt::print(out, "\n{}\n", run.title);
    out.flush();
    CheckOptions check;
    check.serverURL = server.baseUrl();
    check.appName = kDemoApp;
    check.testName = kDemoTest;
    check.apiKey = std::string(lumo::server::kDemoApiKey);
    check.batch = "Lumo demo";
    // Drawn screens never change while a check waits, so one attempt each is enough.
    check.matchTimeout = 0;
    for (const DemoScreen& screen : drawDemoScreens(run.changed)) {
      check.checkpoints.push_back({screen.tag, {}, screen.image});
    }
    const int status = runCheck(check, out, err);
    fmt::print(out, "Exit status {}: {}\n", status, meaning(status));
    out.flush();
    asExpected = asExpected && status == run.expected;
  }
  fmt::print(out, "\nResults pages: {}/\n", server.baseUrl());
  if (!asExpected) {
    fmt::print(err, "lumo demo: the verdicts were not new test, passed, differences found\n");
  }
  if (o.serve) {
    fmt::print(out, "Serving them until Ctrl-C.\n");
    out.flush();
    waitForStopSignal();
    server.stop();
  }
  return asExpected ? 0 : 1;
}

}  // namespace lumo::cli
