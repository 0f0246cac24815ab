#include "lumo/http_client.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "lumo/expectation.h"
#include "lumo/waiter.h"
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
    EXPECT_EQ(Waiter::waitForExpectations({done_}, 10s), WaiterResult::completed);
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

// A port on which nothing listens: bound but never listening, so connecting is refused.
class RefusingPort {
 public:
  RefusingPort() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(socket_, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~RefusingPort() { ::close(socket_); }
  int port() const { return port_; }

 private:
  int socket_;
  int port_ = 0;
};

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

TEST_F(HttpClientTest, RequestsWithoutBodyCarryNoContentLength) {
  HttpClient client;
  HttpRequest remove = request(server_.baseURL() + "/s.json?aborted=0", "DELETE");
  remove.setValue("application/json", "Content-Type");
  Call deleting(client, remove);
  Call getting(client, request(server_.baseURL() + "/g"));
  ASSERT_TRUE(deleting.outcome().response);
  ASSERT_TRUE(getting.outcome().response);

  for (const test::RecordedRequest& sent : server_.requests()) {
    EXPECT_EQ(sent.header("Content-Length"), std::nullopt) << sent.method;
    EXPECT_EQ(sent.body, "");
  }
  EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(HttpClientTest, ErrorStatusesAndOddBodiesAreResponsesNotErrors) {
  server_.enqueue({.status = 500, .body = "<html>oops</html>", .contentType = "text/html"});
  server_.enqueue({.status = 404, .body = ""});
  HttpClient client;
  Call first(client, request(server_.baseURL() + "/x"));
  ASSERT_TRUE(first.outcome().response);
  EXPECT_EQ(first.outcome().response->statusCode, 500);
  EXPECT_EQ(first.outcome().response->body, "<html>oops</html>");
  Call second(client, request(server_.baseURL() + "/y"));
  ASSERT_TRUE(second.outcome().response);
  EXPECT_EQ(second.outcome().response->statusCode, 404);
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

TEST_F(HttpClientTest, SeveralRequestsAreInFlightAtOnce) {
  HttpClient client;
  server_.hold();
  std::vector<std::unique_ptr<Call>> calls;
  for (int i = 0; i < 3; ++i) {
    calls.push_back(std::make_unique<Call>(client, request(server_.baseURL() + "/p")));
  }
  // All three reach the server while none has been answered.
  EXPECT_TRUE(server_.waitForRequests(3, 10s));
  server_.release();
  for (auto& call : calls) EXPECT_TRUE(call->outcome().response);
}

TEST_F(HttpClientTest, TransportFailuresSayWhatFailed) {
  HttpClient client;
  RefusingPort refusing;
  Call refused(client, request("http://127.0.0.1:" + std::to_string(refusing.port()) + "/x"));
  ASSERT_TRUE(refused.outcome().error);
  EXPECT_FALSE(refused.outcome().response);
  EXPECT_EQ(refused.outcome().error->domain(), HttpClient::kErrorDomain);
  EXPECT_THAT(refused.outcome().error->localizedDescription(), HasSubstr("Connection refused"));

  server_.enqueue({.dropConnection = true});
  Call dropped(client, request(server_.baseURL() + "/drop"));
  ASSERT_TRUE(dropped.outcome().error);
  EXPECT_FALSE(dropped.outcome().response);
}

TEST_F(HttpClientTest, ATransferThatOutlivesItsBoundTimesOut) {
  server_.enqueue({.delay = 30s});
  HttpClient client;
  HttpRequest slow = request(server_.baseURL() + "/slow");
  slow.timeoutInterval = 200ms;
  Call call(client, slow);
  ASSERT_TRUE(call.outcome().error);
  EXPECT_THAT(call.outcome().error->localizedDescription(), HasSubstr("timed out"));
  EXPECT_EQ(HttpRequest{}.timeoutInterval, 60s);
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

TEST_F(HttpClientTest, DestroyingTheClientDropsTransfersInFlight) {
  server_.hold();
  bool called = false;
  {
    HttpClient client;
    client.send(request(server_.baseURL() + "/held"),
                [&](std::optional<HttpResponse>, std::optional<Error>) { called = true; });
    ASSERT_TRUE(server_.waitForRequests(1, 10s));
  }
  EXPECT_FALSE(called);
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
  ASSERT_EQ(Waiter::waitForExpectations({done}, 10s), WaiterResult::completed);
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
  ASSERT_EQ(Waiter::waitForExpectations({done}, 10s), WaiterResult::completed);
  EXPECT_EQ(secondStatus, 202);
}

using HttpClientTlsTest = test::HttpsTestServerFixture;

TEST_F(HttpClientTlsTest, AcceptsTheServersSelfSignedCertificate) {
  server_.enqueue({.body = R"({"ok":true})"});
  HttpClient client;
  Call call(client, request(server_.baseURL() + "/tls"));
  ASSERT_TRUE(call.outcome().response) << call.outcome().error->localizedDescription();
  EXPECT_EQ(call.outcome().response->body, R"({"ok":true})");
}

TEST_F(HttpClientTlsTest, PlainHttpToATlsPortIsATransportError) {
  HttpClient client;
  std::string url = server_.baseURL();
  url.replace(0, 5, "http");
  HttpRequest plain = request(url + "/x");
  plain.timeoutInterval = 2s;
  Call call(client, plain);
  EXPECT_TRUE(call.outcome().error);
}

}  // namespace
}  // namespace lumo
