#include "connectivity/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "platform/expectation.h"
#include "platform/waiter.h"
#include "support/test_server.h"

namespace lumo {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

// What one completion handler received, and on which thread.
struct Outcome {
  std::optional<HttpResponse> response;
  std::optional<Error> error;
  std::thread::id thread;
};

// Sends through `client` and waits (bounded) for the handler.
class Call {
 public:
  Call(HttpClient& client, HttpRequest request) {
    client.send(std::move(request), [this, done = done_](std::optional<HttpResponse> response,
                                                         std::optional<Error> error) {
      outcome_ = Outcome{std::move(response), std::move(error), std::this_thread::get_id()};
      done->fulfill();
    });
  }
  // The outcome once the handler ran; fails the test if it did not within 10 s.
  const Outcome& outcome() {
    EXPECT_EQ(Waiter::waitForExpectations({done_}, 10s), WaiterResult::Completed);
    return outcome_;
  }

 private:
  std::shared_ptr<Expectation> done_ = std::make_shared<Expectation>();
  Outcome outcome_;
};

HttpRequest request(std::string url, std::string method = "GET") {
  HttpRequest request;
  request.url = std::move(url);
  request.httpMethod = std::move(method);
  return request;
}

using HttpClientTest = test::TestServerFixture;

TEST_F(HttpClientTest, SendsMethodHeadersAndBodyAsGiven) {
  server_.enqueue({.status = 201, .body = R"({"id":"7"})"});
  HttpClient client;
  HttpRequest post = request(server_.baseURL() + "/a/b.json?k=v&flag=1", "POST");
  post.body = R"({"x":1})";
  post.setValue("7", "Content-Length");
  post.setValue("application/json", "Content-Type");
  Call call(client, post);

  const Outcome& outcome = call.outcome();
  ASSERT_TRUE(outcome.response);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.response->statusCode, 201);
  EXPECT_EQ(outcome.response->body, R"({"id":"7"})");
  EXPECT_NE(outcome.thread, std::this_thread::get_id());

  const test::RecordedRequest sent = server_.requests().at(0);
  EXPECT_EQ(sent.method, "POST");
  EXPECT_EQ(sent.path, "/a/b.json");
  EXPECT_EQ(sent.query, "k=v&flag=1");
  EXPECT_EQ(sent.body, R"({"x":1})");
  EXPECT_EQ(sent.header("Content-Length"), "7");
  EXPECT_EQ(sent.header("Content-Type"), "application/json");
  EXPECT_EQ(sent.header("Expect"), std::nullopt);
}

TEST_F(HttpClientTest, ReusesTheConnectionAndRunsHandlersOnOneWorkerThread) {
  HttpClient client;
  std::set<std::thread::id> threads;
  for (int i = 0; i < 3; ++i) {
    Call call(client, request(server_.baseURL() + "/r"));
    ASSERT_TRUE(call.outcome().response);
    threads.insert(call.outcome().thread);
  }
  const auto sent = server_.requests();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].remotePort, sent[1].remotePort);
  EXPECT_EQ(sent[1].remotePort, sent[2].remotePort);
  EXPECT_EQ(threads.size(), 1u);
}

TEST_F(HttpClientTest, UrlsThatCannotBeSentFailWithoutTouchingTheNetwork) {
  HttpClient client;
  const std::string base = server_.baseURL();
  const std::vector<std::string> unsendable = {
      base + "/a b", base + "/a\nb",        base + "/caf\xC3\xA9", base + "/100%",
      "not a url",   "127.0.0.1/no-scheme", "ftp://127.0.0.1/x"};
  for (const std::string& url : unsendable) {
    Call call(client, request(url));
    ASSERT_TRUE(call.outcome().error) << url;
    EXPECT_NE(call.outcome().thread, std::this_thread::get_id());
  }
  HttpRequest injected = request(base + "/h");
  injected.setValue("x\r\nEvil: 1", "X-Test");
  Call call(client, injected);
  EXPECT_TRUE(call.outcome().error);
  EXPECT_TRUE(server_.requests().empty());
}

// A request made just before the client goes (an abort's DELETE) must still reach the server:
// the destructor finishes queued and in-flight requests, handlers included, within its grace.
TEST_F(HttpClientTest, DestroyingTheClientFinishesWhatIsQueuedAndInFlight) {
  server_.setHandler([](const test::RecordedRequest&) {
    return test::ScriptedResponse{.status = 200, .delay = 100ms};
  });
  int called = 0;
  {
    HttpClient client;
    for (const char* path : {"/a", "/b", "/c"}) {
      client.send(request(server_.baseURL() + path),
                  [&](std::optional<HttpResponse> response, std::optional<Error>) {
                    called += response && response->statusCode == 200 ? 1 : 0;
                  });
    }
  }
  EXPECT_EQ(called, 3);
  EXPECT_EQ(server_.requests().size(), 3u);
}

TEST_F(HttpClientTest, DestroyingTheClientCancelsWhatOutlivesTheGrace) {
  server_.hold();
  bool called = false;
  const auto start = std::chrono::steady_clock::now();
  {
    HttpClient client(150ms);
    client.send(request(server_.baseURL() + "/held"),
                [&](std::optional<HttpResponse>, std::optional<Error>) { called = true; });
    ASSERT_TRUE(server_.waitForRequests(1, 10s));
  }
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(called) << "no handler after the destructor";
  EXPECT_GE(took, 150ms);
  EXPECT_LT(took, 5s);
  server_.release();
}

TEST_F(HttpClientTest, AHandlerMayDestroyItsOwnClient) {
  auto client = std::make_unique<HttpClient>();
  auto done = std::make_shared<Expectation>();
  client->send(request(server_.baseURL() + "/last"),
               [&client, done](std::optional<HttpResponse>, std::optional<Error>) {
                 client.reset();
                 done->fulfill();
               });
  ASSERT_EQ(Waiter::waitForExpectations({done}, 10s), WaiterResult::Completed);
  EXPECT_EQ(client, nullptr);
}

TEST_F(HttpClientTest, HandlersMaySendFurtherRequests) {
  HttpClient client;
  auto done = std::make_shared<Expectation>();
  std::optional<long> secondStatus;
  server_.enqueue({.status = 200});
  server_.enqueue({.status = 202});
  client.send(
      request(server_.baseURL() + "/one"), [&](std::optional<HttpResponse>, std::optional<Error>) {
        client.send(request(server_.baseURL() + "/two"),
                    [&](std::optional<HttpResponse> response, std::optional<Error>) {
                      secondStatus = response ? std::optional(response->statusCode) : std::nullopt;
                      done->fulfill();
                    });
      });
  ASSERT_EQ(Waiter::waitForExpectations({done}, 10s), WaiterResult::Completed);
  EXPECT_EQ(secondStatus, 202);
}

}  // namespace
}  // namespace lumo
