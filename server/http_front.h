#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include "http_router.h"

namespace lumo::server::detail {

struct HttpFrontOptions {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: an ephemeral port
  // HTTPS when both are given (PEM files); plain HTTP otherwise.
  std::filesystem::path certFile;
  std::filesystem::path keyFile;
  std::size_t maxBodyBytes = std::size_t{64} << 20;
  // A new connection must deliver its request's head (and finish TLS) within this time.
  std::chrono::milliseconds headerTimeout{10'000};
  // A body must arrive within this time after its head.
  std::chrono::milliseconds bodyTimeout{120'000};
  // A kept-alive connection must start its next request's head within this time.
  std::chrono::milliseconds keepAliveTimeout{2'000};
  // An answer must be taken by the client within this time.
  std::chrono::milliseconds writeTimeout{60'000};
  // Connections held open at once, in all and from one client address. At either cap a new
  // connection replaces the longest-waiting one that has not sent a request head yet (from
  // that address at the per-address cap), or is closed when every one is busy.
  std::size_t maxConnections = 512;
  std::size_t maxConnectionsPerAddress = 64;
  int workers = 8;  // requests handled at once; reading and writing never wait for them
};

// The server's HTTP(S) transport: accepts, reads and writes asynchronously on one I/O thread
// with a deadline on every phase, and runs the router's handlers on a fixed pool of workers.
// A slow or idle client therefore costs a socket and a little memory, never a worker, and the
// connection caps bound the sockets.
class HttpFront {
 public:
  // `router` must outlive the front.
  HttpFront(const HttpRouter& router, HttpFrontOptions options);
  // Stops the front if it is running.
  ~HttpFront();
  HttpFront(const HttpFront&) = delete;
  HttpFront& operator=(const HttpFront&) = delete;

  // Loads the certificate, binds, listens and starts the threads; returns the bound port.
  // Throws std::runtime_error when it cannot. Call once.
  int start();
  // Stops accepting, closes connections waiting for a request, lets the requests in
  // flight finish (bounded by their deadlines) and joins the threads. Idempotent.
  void stop();

  // Defined and used in the source only; public so that its connection types can name it.
  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumo::server::detail
