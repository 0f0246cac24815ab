#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>

namespace CLI {  // NOLINT(readability-identifier-naming): CLI11's
class App;
}

namespace lumo::cli {

struct DemoOptions {
  bool serve = false;                  // keep the server running after the runs, until Ctrl-C
  bool verbose = false;                // the library's log lines to stderr
  int port = 0;                        // 0: an ephemeral port
  std::filesystem::path writeScreens;  // set: only write the example screens there as PNGs
};

// The `demo` subcommand's options on the parent app, which must outlive it.
class DemoCommand {
 public:
  explicit DemoCommand(CLI::App& parent);
  DemoCommand(const DemoCommand&) = delete;
  DemoCommand& operator=(const DemoCommand&) = delete;

  bool selected() const;
  // Throws UsageError.
  DemoOptions options() const;

 private:
  CLI::App* command_;
  DemoOptions parsed_;
  std::string port_;
};

// Starts the reference server in-process on loopback with a fresh data directory (removed at
// the end) and runs three visual tests of the example app through runCheck: a new test, an
// unchanged rerun and a run with one changed screen, with progress line by line on `out`.
// Returns 0 when the three verdicts are new test, passed and differences found, 1 otherwise.
int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err);

}  // namespace lumo::cli
