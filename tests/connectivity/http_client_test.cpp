#include "connectivity/http_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "platform/expectation.h"
#include "platform/waiter.h"
#include "support/await_reply.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

using namespace std::chrono_literals;

using Outcome = Reply<std::optional<HttpResponse>>;

HttpRequest request(std::string url, std::string method = "GET") {
  HttpRequest request;
  request.url = std::move(url);
  request.httpMethod = std::move(method);
  return request;
}

Outcome call(HttpClient& client, HttpRequest request) {
  return awaitReply<std::optional<HttpResponse>>(
      [&](auto handler) { client.send(std::move(request), std::move(handler)); });
}

using HttpClientTest = TestServerFixture;

// Answers are read whole and every handler runs on the one worker thread; requests reuse one
// connection. What goes on the wire is checked byte for byte by the connector's tests.
TEST_F(HttpClientTest, HandlersRunOnOneWorkerAndRequestsShareOneConnection) {
  server_.enqueue({.status = 201, .body = R"({"id":"7"})"});
  HttpClient client;
  const Outcome outcome = call(client, request(server_.baseUrl() + "/a?k=v"));
  ASSERT_TRUE(outcome.value);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.value->statusCode, 201);
  EXPECT_EQ(outcome.value->body, R"({"id":"7"})");
  std::set<std::thread::id> threads{outcome.thread};
  for (int i = 0; i < 2; ++i) {
    threads.insert(call(client, request(server_.baseUrl() + "/r")).thread);
  }
  EXPECT_EQ(threads.size(), 1u);
  const auto sent = server_.requests();
  EXPECT_EQ(sent.at(0).remotePort, sent.at(1).remotePort);
  EXPECT_EQ(sent.at(1).remotePort, sent.at(2).remotePort);
}

TEST_F(HttpClientTest, UrlsAndHeadersThatCannotBeSentFailWithoutTouchingTheNetwork) {
  HttpClient client;
  const std::string base = server_.baseUrl();
  for (const std::string& url : {base + "/a b", base + "/100%", std::string("127.0.0.1/no-scheme"),
                                 std::string("ftp://127.0.0.1/x")}) {
    EXPECT_TRUE(call(client, request(url)).error) << url;
  }
  HttpRequest injected = request(base + "/h");
  injected.setValue("x\r\nEvil: 1", "X-Test");
  EXPECT_TRUE(call(client, injected).error);
  EXPECT_TRUE(server_.requests().empty());
}

// A request made just before the client goes (an abort's DELETE) must still reach the server:
// the destructor finishes queued and in-flight requests, handlers included, within its grace,
// and cancels what outlives it without calling its handler.
TEST_F(HttpClientTest, DestroyingTheClientFinishesWhatItCanWithinTheGrace) {
  server_.setHandler(
      [](const RecordedRequest&) { return ScriptedResponse{.status = 200, .delay = 100ms}; });
  int called = 0;
  const auto destroyed = std::chrono::steady_clock::now();
  {
    HttpClient client;  // the default grace of 5 s
    for (const char* path : {"/a", "/b", "/c"}) {
      client.send(request(server_.baseUrl() + path),
                  [&](std::optional<HttpResponse> response, std::optional<Error>) {
                    called += response && response->statusCode == 200 ? 1 : 0;
                  });
    }
  }
  EXPECT_EQ(called, 3);
  EXPECT_EQ(server_.requests().size(), 3u);
  // Done once the last answer is in, not when the grace runs out.
  EXPECT_LT(std::chrono::steady_clock::now() - destroyed, 3s);

  server_.hold();
  bool heldCalled = false;
  const auto start = std::chrono::steady_clock::now();
  {
    HttpClient client(150ms);
    client.send(request(server_.baseUrl() + "/held"),
                [&](std::optional<HttpResponse>, std::optional<Error>) { heldCalled = true; });
    ASSERT_TRUE(server_.waitForRequests(4, 10s));
  }
  EXPECT_FALSE(heldCalled) << "no handler after the destructor";
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  server_.release();
}

// A handler may send further requests, and the last one may destroy its own client.
TEST_F(HttpClientTest, HandlersMaySendAgainOrDestroyTheirClient) {
  auto client = std::make_unique<HttpClient>();
  auto done = std::make_shared<Expectation>();
  std::optional<long> secondStatus;
  server_.enqueue({.status = 200});
  server_.enqueue({.status = 202});
  client->send(
      request(server_.baseUrl() + "/one"), [&](std::optional<HttpResponse>, std::optional<Error>) {
        client->send(request(server_.baseUrl() + "/two"),
                     [&](std::optional<HttpResponse> response, std::optional<Error>) {
                       secondStatus = response ? std::optional(response->statusCode) : std::nullopt;
                       client.reset();
                       done->fulfill();
                     });
      });
  ASSERT_EQ(Waiter::waitForExpectations({done}, 10s), WaiterResult::Completed);
  EXPECT_EQ(secondStatus, 202);
  EXPECT_EQ(client, nullptr);
}

}  // namespace
}  // namespace lumo::test
