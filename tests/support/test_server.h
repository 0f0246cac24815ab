#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

namespace lumo::test {

// One request as the server received it.
struct RecordedRequest {
  std::string method;
  std::string path;   // raw, as sent (not percent-decoded)
  std::string query;  // raw text after "?", "" when there is none
  // Every header the client sent, names as written; ordered by name (case-insensitively),
  // since the server keeps them in a map and does not tell their order on the wire.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  int remotePort = 0;  // the client's port: equal ports mean one reused connection

  // The value of header `name` (case-insensitive), or nullopt.
  std::optional<std::string> header(std::string_view name) const;
};

// How the server answers one request.
struct ScriptedResponse {
  int status = 200;
  std::string body = "{}";
  std::string contentType = "application/json";
  // Wait this long before answering; cut short when the server stops.
  std::chrono::milliseconds delay{0};
  // Send the status line and headers, then close the connection before the body.
  bool dropConnection = false;
};

// A real cpp-httplib server on 127.0.0.1 at an ephemeral port, in the test's process. It
// records every request (any method, any path) and answers from a queue of scripted answers,
// then from a handler, else with 200 "{}". All members are thread-safe.
class TestServer {
 public:
  enum class Scheme { Http, Https };
  using Handler = std::function<ScriptedResponse(const RecordedRequest&)>;

  // https: serves TLS with a self-signed certificate for 127.0.0.1, made for this server in a
  // temporary directory that is removed with it.
  explicit TestServer(Scheme scheme = Scheme::Http);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  // Binds and serves on a thread of its own; returns once connections are accepted.
  void start();
  // Releases held and delayed requests, stops serving and joins. Idempotent.
  void stop();

  int port() const { return port_; }
  // "http://127.0.0.1:<port>" or "https://...", without a trailing slash.
  std::string baseUrl() const;
  const std::filesystem::path& certificatePath() const { return certificatePath_; }

  // Queues an answer; queued answers are used first, in order, one per request.
  void enqueue(ScriptedResponse response);
  // Answers every request once the queue is empty. Runs on the server's threads.
  void setHandler(Handler handler);
  // While held, requests are recorded but not answered until release() or stop().
  void hold();
  void release();

  std::vector<RecordedRequest> requests() const;
  // True once at least `count` requests have arrived, false if `timeout` passes first.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;

 private:
  ScriptedResponse answer(const RecordedRequest& request);

  const Scheme scheme_;
  std::filesystem::path directory_;
  std::filesystem::path certificatePath_;
  std::filesystem::path keyPath_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::deque<ScriptedResponse> script_;
  Handler handler_;
  std::vector<RecordedRequest> requests_;
  bool held_ = false;
  bool stopping_ = false;
};

// A port on 127.0.0.1 where connecting is refused: bound for the object's lifetime, never
// listening, so no other server can take it meanwhile.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:<port>".
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  int socket_ = -1;
  int port_ = 0;
};

// Fixture: a plain HTTP TestServer started in SetUp and stopped in TearDown.
class TestServerFixture : public ::testing::Test {
 protected:
  TestServerFixture() : server_(TestServer::Scheme::Http) {}
  explicit TestServerFixture(TestServer::Scheme scheme) : server_(scheme) {}
  void SetUp() override { server_.start(); }
  void TearDown() override { server_.stop(); }

  TestServer server_;
};

// Fixture: the same over HTTPS with a self-signed certificate.
class HttpsTestServerFixture : public TestServerFixture {
 protected:
  HttpsTestServerFixture() : TestServerFixture(TestServer::Scheme::Https) {}
};

}  // namespace lumo::test
