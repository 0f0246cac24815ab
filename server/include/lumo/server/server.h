#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lumo/server/session_manager.h"

namespace lumo::server {

// The key a server started without keys accepts, so that a demo runs with no setup. Give
// real keys to any server that others can reach.
inline constexpr std::string_view kDemoApiKey = "lumo-demo-key";

inline constexpr std::size_t kDefaultMaxBodyBytes = std::size_t{64} << 20;

// Has the C library's allocator keep large freed buffers for reuse instead of handing them
// back to the system after every request, only to fault their pages in again for the next
// screen (about a quarter of a checkpoint's server time). Process-wide, so the `lumo server`
// command calls it and an embedding program decides for itself. Does nothing off glibc.
void keepFreedMemoryForReuse();

struct ServerConfig {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: an ephemeral port, see Server::port()
  std::filesystem::path dataDir = "lumo-data";
  // postgresql://USER@HOST:PORT/DB: the data lives in that PostgreSQL database, which any
  // number of servers may share (dataDir is then unused). Empty: SQLite under dataDir.
  std::string storeUrl;
  std::vector<std::string> apiKeys;  // empty: kDemoApiKey only
  // HTTPS when both are given (PEM files); plain HTTP otherwise.
  std::filesystem::path certFile;
  std::filesystem::path keyFile;
  std::size_t maxBodyBytes = kDefaultMaxBodyBytes;
  std::uint64_t maxImagePixels = kDefaultMaxImagePixels;
  int threads = 8;  // requests handled at once
  int maxStepsPerSession = kDefaultMaxStepsPerSession;
  int maxSessionsPerBatch = kDefaultMaxSessionsPerBatch;
  // A running session without a request for this long is aborted; 0 never expires one.
  std::chrono::milliseconds sessionIdleTimeout = kDefaultSessionIdleTimeout;
  // Decoded baselines kept in memory, shared by all sessions; 0 keeps none.
  std::size_t baselineCacheBytes = kDefaultBaselineCacheBytes;
  // Scheme, host and port (no trailing slash) that links in answers start with, e.g.
  // "https://lumo.example.com". Empty: baseUrl(). Never taken from a request's Host header,
  // which the client controls.
  std::string publicUrl;
  // A connection must deliver its request's head within this time, and its body within
  // bodyTimeout after that; a slow client is cut off instead of holding the server.
  std::chrono::milliseconds headerTimeout{10'000};
  std::chrono::milliseconds bodyTimeout{120'000};
  // Connections open at once, in all and from one client address. At a cap, a new connection
  // replaces the longest-waiting one that has not sent a request yet.
  std::size_t maxConnections = 512;
  std::size_t maxConnectionsPerAddress = 64;
};

// The reference visual-testing server: the session API under "/api/sessions", results pages
// at "/", "/batches/{id}" and "/sessions/{id}", images at "/images/{hash}.png". Embeddable:
//   Server server(config); server.start(); ... server.port() ...; server.stop();
// Requests are served on the server's own threads; start, wait and stop may be called from
// any thread.
class Server {
 public:
  explicit Server(ServerConfig config);
  // Stops the server if it is running.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Opens the store, binds and starts serving in the background; returns once connections
  // are accepted. Throws std::runtime_error (StoreError for the store) when it cannot, and
  // std::logic_error when called twice.
  void start();
  // The bound port (the ephemeral one when the config asked for 0); -1 before start.
  int port() const;
  // "http://host:port" or "https://host:port", as listened on.
  std::string baseUrl() const;
  // Where links in answers point: the config's publicUrl, else baseUrl().
  std::string publicUrl() const;
  // Blocks until the server stops (by stop() on another thread).
  void wait();
  // Stops accepting, finishes the requests in flight and returns. Idempotent.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumo::server
