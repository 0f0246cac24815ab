#pragma once

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): CLI11's
class App;
}
namespace lumo::server {
class Server;
}

namespace lumo::cli {

// What `lumo server` serves, validated.
struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 8088;
  std::filesystem::path dataDir = "lumo-data";
  // A postgresql:// URL (from --store or LUMO_STORE): the data lives there instead.
  std::string storeUrl;
  std::vector<std::string> apiKeys;  // empty: the demo key only
  std::filesystem::path certFile;    // HTTPS when both files are given
  std::filesystem::path keyFile;
  int baselineCacheMb = 256;  // decoded baselines kept in memory
  std::string publicUrl;      // where result links point; empty: the listening address
};

// The `server` subcommand's options on the parent app, which must outlive it.
class ServerCommand {
 public:
  explicit ServerCommand(CLI::App& parent);
  ServerCommand(const ServerCommand&) = delete;
  ServerCommand& operator=(const ServerCommand&) = delete;

  bool selected() const;
  // Throws UsageError.
  ServerOptions options() const;

 private:
  CLI::App* command_;
  ServerOptions parsed_;
  std::string port_;
};

// Blocks the calling thread until SIGINT or SIGTERM arrives. Call blockStopSignals() first,
// before any thread starts, so that no other thread takes the signal.
void blockStopSignals();
void waitForStopSignal();

// Starts the reference server, prints its address and serves until `waitUntilStopped`
// returns (by default: until Ctrl-C), then stops it cleanly. Returns an ExitStatus-style
// code: 0 after a clean stop, 1 when the server cannot start.
int runServer(const ServerOptions& options, std::ostream& out, std::ostream& err,
              const std::function<void(lumo::server::Server&)>& waitUntilStopped = {});

}  // namespace lumo::cli
