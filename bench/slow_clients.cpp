// A normal page request while 200 connections sit idle and 8 more send their request head one
// byte every 4 seconds, all from the loopback address. Serves an embedded server, or the one
// at 127.0.0.1:PORT when given `--port PORT`. Prints the slowest of five requests last.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lumo/server/server.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kIdle = 200;
constexpr int kDripping = 8;
constexpr auto kDripEvery = 4s;

int connectTo(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Milliseconds from connecting to the end of the answer; -1 when none came within 60 s.
double timedGet(int port) {
  const auto start = Clock::now();
  const int fd = connectTo(port);
  if (fd < 0) {
    return -1;
  }
  const std::string_view request = "GET / HTTP/1.1\r\nHost: bench\r\nConnection: close\r\n\r\n";
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    close(fd);
    return -1;
  }
  std::string response;
  char buffer[8192];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 60'000) <= 0) {
      close(fd);
      return -1;
    }
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) {
      break;
    }
    response.append(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
  if (!response.starts_with("HTTP/1.1 200")) {
    return -1;
  }
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  int port = 0;
  std::unique_ptr<lumo::server::Server> server;
  const auto dataDir = std::filesystem::temp_directory_path() / "lumo-slow-clients-bench";
  if (argc == 3 && std::string_view(argv[1]) == "--port") {
    port = std::atoi(argv[2]);
  } else {
    lumo::server::ServerConfig config;
    config.dataDir = dataDir;
    server = std::make_unique<lumo::server::Server>(config);
    server->start();
    port = server->port();
  }

  std::vector<int> idle, dripping;
  for (int i = 0; i < kIdle; ++i) {
    idle.push_back(connectTo(port));
  }
  for (int i = 0; i < kDripping; ++i) {
    dripping.push_back(connectTo(port));
  }
  std::atomic<bool> done{false};
  std::thread dripper([&] {
    const std::string head = "GET / HTTP/1.1\r\nHost: bench\r\n\r\n";
    for (std::size_t i = 0; !done; i = (i + 1) % head.size()) {
      for (const int fd : dripping) {
        send(fd, head.data() + i, 1, MSG_NOSIGNAL);
      }
      for (auto waited = 0ms; waited < kDripEvery && !done; waited += 50ms) {
        std::this_thread::sleep_for(50ms);
      }
    }
  });

  double worst = 0;
  bool failed = false;
  for (int round = 0; round < 5; ++round) {
    std::this_thread::sleep_for(1s);
    const double ms = timedGet(port);
    std::printf("GET / %d: %s\n", round + 1,
                ms < 0 ? "no answer within 60 s" : (std::to_string(ms) + " ms").c_str());
    if (ms < 0) {
      failed = true;
      break;
    }
    worst = std::max(worst, ms);
  }
  done = true;
  dripper.join();
  for (const int fd : idle) {
    close(fd);
  }
  for (const int fd : dripping) {
    close(fd);
  }
  if (server) {
    server->stop();
    server.reset();
    std::error_code ec;
    std::filesystem::remove_all(dataDir, ec);
  }
  if (failed) {
    std::printf(
        "slow clients: a normal GET got no answer within 60 s with %d idle and %d "
        "dripping connections\n",
        kIdle, kDripping);
    return 1;
  }
  std::printf(
      "slow clients: normal GET answered in %.0f ms with %d idle and %d dripping "
      "connections\n",
      worst, kIdle, kDripping);
  return 0;
}
