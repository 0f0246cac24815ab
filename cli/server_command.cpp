#include "server_command.h"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <ostream>

#include "arguments.h"
#include "exit_status.h"
#include "lumo/server/open_store.h"
#include "lumo/server/server.h"

namespace lumo::cli {
namespace {

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

void checkReadable(const std::filesystem::path& file, std::string_view option) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(file, ec)) {
    throw UsageError(fmt::format("{}: no such file \"{}\"", option, file.string()));
  }
}

// A store URL fit to print: without the password, should one be written in it.
std::string redacted(const std::string& url) {
  const auto scheme = url.find("://");
  const auto at = url.find('@');
  if (scheme == std::string::npos || at == std::string::npos || at < scheme) {
    return url;
  }
  const auto colon = url.find(':', scheme + 3);
  if (colon == std::string::npos || colon > at) {
    return url;
  }
  return url.substr(0, colon + 1) + "***" + url.substr(at);
}

}  // namespace

ServerCommand::ServerCommand(CLI::App& parent) {
  CLI::App* c = parent.add_subcommand("server", "Run the reference visual-testing server");
  command_ = c;
  c->add_option("--host", parsed_.host, "Address to listen on (default 127.0.0.1)");
  c->add_option("--port", port_, "Port to listen on (default 8088; 0: any free port)")
      ->type_name("PORT");
  c->add_option("--data", parsed_.dataDir,
                "Directory of baselines and results (default "
                "./lumo-data)")
      ->type_name("DIR");
  c->add_option("--store", parsed_.storeUrl,
                "PostgreSQL database shared by several servers, instead of --data (default: "
                "$LUMO_STORE; password from PGPASSWORD or ~/.pgpass)")
      ->type_name("postgresql://USER@HOST:PORT/DB");
  c->add_option("--api-key", parsed_.apiKeys,
                "Key a client must give (repeatable; default: the demo key only)")
      ->allow_extra_args(false)
      ->type_name("KEY");
  c->add_option("--cert", parsed_.certFile, "PEM certificate, for HTTPS (with --key)")
      ->type_name("FILE");
  c->add_option("--key", parsed_.keyFile, "PEM private key, for HTTPS (with --cert)")
      ->type_name("FILE");
  c->add_option("--baseline-cache-mb", parsed_.baselineCacheMb,
                "Memory for decoded baselines, in MB (default 256; 0: none)")
      ->check(CLI::Range(0, 1 << 20))
      ->type_name("MB");
  c->add_option("--public-url", parsed_.publicUrl,
                "Address clients reach the server at, for result links (default: the "
                "listening address)")
      ->type_name("URL");
}

bool ServerCommand::selected() const { return command_->parsed(); }

ServerOptions ServerCommand::options() const {
  ServerOptions o = parsed_;
  if (command_->count("--port") > 0) {
    o.port = parsePort("--port", port_);
  }
  if (o.host.empty()) {
    throw UsageError("--host: the address is empty");
  }
  if (o.dataDir.empty()) {
    throw UsageError("--data: the directory is empty");
  }
  if (command_->count("--store") == 0) {
    if (const char* fromEnvironment = std::getenv("LUMO_STORE")) {
      o.storeUrl = fromEnvironment;
    }
  }
  if (!o.storeUrl.empty() && !lumo::server::isPostgresUrl(o.storeUrl)) {
    throw UsageError(
        fmt::format("--store: expected a postgresql://USER@HOST:PORT/DB URL, got \"{}\"",
                    redacted(o.storeUrl)));
  }
  for (const auto& key : o.apiKeys) {
    if (key.empty()) {
      throw UsageError("--api-key: a key is empty");
    }
  }
  if (o.certFile.empty() != o.keyFile.empty()) {
    throw UsageError("--cert and --key go together: give both for HTTPS, or neither");
  }
  if (!o.publicUrl.empty() && !o.publicUrl.starts_with("http://") &&
      !o.publicUrl.starts_with("https://")) {
    throw UsageError(
        fmt::format("--public-url: expected http://... or https://..., got \"{}\"", o.publicUrl));
  }
  if (!o.certFile.empty()) {
    checkReadable(o.certFile, "--cert");
    checkReadable(o.keyFile, "--key");
  }
  return o;
}

void blockStopSignals() {
  const sigset_t set = stopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void waitForStopSignal() {
  const sigset_t set = stopSignals();
  int signal = 0;
  sigwait(&set, &signal);
}

int runServer(const ServerOptions& o, std::ostream& out, std::ostream& err,
              const std::function<void(lumo::server::Server&)>& waitUntilStopped) {
  lumo::server::ServerConfig config;
  config.host = o.host;
  config.port = o.port;
  config.dataDir = o.dataDir;
  config.storeUrl = o.storeUrl;
  config.apiKeys = o.apiKeys;
  config.certFile = o.certFile;
  config.keyFile = o.keyFile;
  config.baselineCacheBytes = static_cast<std::size_t>(o.baselineCacheMb) << 20;
  config.publicUrl = o.publicUrl;
  // The server's threads inherit the mask, so Ctrl-C reaches only the wait below.
  if (!waitUntilStopped) {
    blockStopSignals();
  }
  lumo::server::keepFreedMemoryForReuse();
  lumo::server::Server server(config);
  try {
    server.start();
  } catch (const std::exception& e) {
    fmt::print(err, "lumo server: cannot start on {}:{}: {}\n", o.host, o.port, e.what());
    return 1;
  }
  fmt::print(out, "Lumo server listening at {}\n", server.baseUrl());
  fmt::print(out, "Results pages at {}/, data in {}\n", server.publicUrl(),
             o.storeUrl.empty() ? o.dataDir.string() : redacted(o.storeUrl));
  if (o.apiKeys.empty()) {
    fmt::print(out, "API key: {} (export BRIXTEL_API_KEY={})\n", lumo::server::kDemoApiKey,
               lumo::server::kDemoApiKey);
  }
  fmt::print(out, "Press Ctrl-C to stop.\n");
  out.flush();
  if (waitUntilStopped) {
    waitUntilStopped(server);
  } else {
    waitForStopSignal();
  }
  server.stop();
  fmt::print(out, "Stopped.\n");
  return 0;
}

}  // namespace lumo::cli
