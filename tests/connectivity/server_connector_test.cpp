#include "connectivity/server_connector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "connectivity/http_client.h"
#include "lumo/internal_inconsistency_exception.h"
#include "support/await_reply.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using namespace std::chrono_literals;

SessionStartInfo startInfo() {
  SessionStartInfo info;
  info.setupWithAgentId("agent/1", "Café", "Login", std::nullopt,
                        std::make_shared<AppEnvironment>("iOS 17", "app", "iPhone", Size{375, 667}),
                        std::make_shared<BatchInfo>("nightly"), "feature", std::nullopt,
                        std::nullopt, true, std::make_shared<ImageMatchSettings>());
  return info;
}

std::shared_ptr<MatchWindowData> matchData() {
  return std::make_shared<MatchWindowData>(
      AppOutput("Home", "iVBORw0KGgo=\r\nAAAA"), "home",
      Options("home", true, false, false, false, std::make_shared<ImageMatchSettings>()));
}

std::shared_ptr<RunningSession> session(const std::string& id = "s-1") {
  return std::make_shared<RunningSession>(Json{{"id", id}, {"url", "https://results/" + id}});
}

Reply<std::shared_ptr<RunningSession>> start(ServerConnector& connector,
                                             const SessionStartInfo& info = startInfo()) {
  return awaitReply<std::shared_ptr<RunningSession>>(
      [&](auto handler) { connector.startSessionWithInfo(info, handler); });
}

Reply<std::shared_ptr<MatchResult>> match(ServerConnector& connector) {
  return awaitReply<std::shared_ptr<MatchResult>>(
      [&](auto handler) { connector.matchWindowForSession(session(), matchData(), handler); });
}

Reply<std::shared_ptr<TestResults>> stop(ServerConnector& connector, bool aborted = false,
                                         bool save = false, const std::string& id = "s-1") {
  return awaitReply<std::shared_ptr<TestResults>>(
      [&](auto handler) { connector.stopSession(*session(id), aborted, save, handler); });
}

class ServerConnectorTest : public TestServerFixture {
 protected:
  void SetUp() override {
    TestServerFixture::SetUp();
    connector_ = ServerConnector::connectorWithServerURL(server_.baseUrl(), "key");
  }
  // The connector goes first, closing its kept-alive connections so the server stops at once.
  void TearDown() override {
    connector_.reset();
    TestServerFixture::TearDown();
  }
  std::string hostHeader() const { return "127.0.0.1:" + std::to_string(server_.port()); }
  static std::string requestLine(const RecordedRequest& r) {
    return r.method + " " + r.path + "?" + r.query;
  }

  std::shared_ptr<ServerConnector> connector_;
};

// The start record goes under "startInfo" in the exact bytes of its dictionary, its length
// counted in bytes; 201 makes a new session.
TEST_F(ServerConnectorTest, StartSessionPostsTheStartRecordUnderStartInfo) {
  server_.enqueue({.status = 201, .body = R"({"id":"s-9","url":"https://r/s-9","extra":1})"});
  const SessionStartInfo info = startInfo();
  const Reply<std::shared_ptr<RunningSession>> reply = start(*connector_, info);
  ASSERT_TRUE(reply.value);
  EXPECT_TRUE(reply.value->isNewSession());
  const RecordedRequest sent = server_.requests().at(0);
  EXPECT_EQ(requestLine(sent), "POST /api/sessions/running.json?apiKey=key");
  EXPECT_EQ(sent.body, Json({{"startInfo", info.dictionary()}}).dump());
  EXPECT_THAT(
      sent.headers,
      ElementsAre(Pair("Accept", "*/*"), Pair("Content-Length", std::to_string(sent.body.size())),
                  Pair("Content-Type", "application/json"), Pair("Host", hostHeader())));
}

TEST_F(ServerConnectorTest, MatchWindowPostsTheMatchDataAsTheWholeBody) {
  server_.enqueue({.body = R"({"asExpected":true})"});
  LogCapture log;
  const Reply<std::shared_ptr<MatchResult>> reply = match(*connector_);
  EXPECT_TRUE(reply.value && reply.value->asExpected());
  const RecordedRequest sent = server_.requests().at(0);
  EXPECT_EQ(requestLine(sent), "POST /api/sessions/running/s-1.json?apiKey=key");
  EXPECT_EQ(sent.body, matchData()->dictionary().dump());
  EXPECT_THAT(log.lines(), ElementsAre("[BrixtelLumo] Match window URL: " + server_.baseUrl() +
                                       "/api/sessions/running/s-1.json?apiKey=key"));
}

TEST_F(ServerConnectorTest, MatchWindowGuardsItsArgumentsAndSendsNothing) {
  const auto reason = [&](std::shared_ptr<RunningSession> s, std::shared_ptr<MatchWindowData> d) {
    try {
      connector_->matchWindowForSession(std::move(s), std::move(d), {});
    } catch (const InternalInconsistencyException& e) {
      return e.reason();
    }
    return std::string("accepted");
  };
  EXPECT_EQ(reason(nullptr, matchData()), "runningSession is nil");
  EXPECT_EQ(reason(session(), nullptr), "matchData is nil");
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(ServerConnectorTest, StopSessionSendsDeleteWithFlagsAndNoBody) {
  stop(*connector_, true, false, "s-2");
  stop(*connector_, false, true, "s-2");
  const auto sent = server_.requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(requestLine(sent[0]),
            "DELETE /api/sessions/running/s-2.json?apiKey=key&aborted=1&updateBaseline=0");
  EXPECT_EQ(sent[1].query, "apiKey=key&aborted=0&updateBaseline=1");
  EXPECT_EQ(sent[0].body, "");
  EXPECT_THAT(sent[0].headers,
              ElementsAre(Pair("Accept", "*/*"), Pair("Content-Type", "application/json"),
                          Pair("Host", hostHeader())));
}

// JSON that is not an object counts as no JSON: an array read as test results would otherwise
// be a record of defaults, that is a passed test. An error status with a JSON object still
// gives the record of that object.
TEST_F(ServerConnectorTest, OnlyJsonObjectsGiveARecordWhateverTheStatus) {
  for (const std::string body :
       {"<html><body>Bad gateway</body></html>", "[{\"status\":\"Passed\"}]"}) {
    for (const int status : {502, 200, 200}) {
      server_.enqueue({.status = status, .body = body, .contentType = "text/html"});
    }
    const auto started = start(*connector_);
    const auto matched = match(*connector_);
    const auto stopped = stop(*connector_);
    EXPECT_FALSE(started.value || started.error || matched.value || matched.error ||
                 stopped.value || stopped.error)
        << body;
  }
  server_.enqueue({.status = 404, .body = R"({"asExpected":true})"});
  const auto matched = match(*connector_);
  EXPECT_TRUE(matched.value && matched.value->asExpected());
}

// The environment is read when the call is made, not when the connector is made.
TEST_F(ServerConnectorTest, AnEmptyStoredKeyFallsBackToTheEnvironment) {
  connector_->setApiKey("");
  ScopedEnv env("BRIXTEL_API_KEY", "from-env");
  stop(*connector_);
  EXPECT_THAT(server_.requests().at(0).query, HasSubstr("apiKey=from-env&"));
}

TEST_F(ServerConnectorTest, TheServerUrlIsUsedAsItsTextAndQueryValuesAreNotEncoded) {
  const auto conn = ServerConnector::connectorWithServerURL(server_.baseUrl() + "/", "k+y/=%41");
  stop(*conn, false, false, "id&x=1");
  const RecordedRequest sent = server_.requests().at(0);
  EXPECT_EQ(sent.path, "//api/sessions/running/id&x=1.json");
  EXPECT_EQ(sent.query, "apiKey=k+y/=%41&aborted=0&updateBaseline=0");
}

TEST_F(ServerConnectorTest, TransportFailuresAndTimeOutsReachTheHandler) {
  server_.enqueue({.dropConnection = true});
  const auto matched = match(*connector_);
  ASSERT_TRUE(matched.error && !matched.value);
  EXPECT_EQ(matched.error->domain(), HttpClient::kErrorDomain);

  EXPECT_EQ(connector_->timeout(), 60);
  EXPECT_EQ(connector_->requestTimeoutInterval(), 60s);
  connector_->setRequestTimeoutInterval(200ms);
  server_.enqueue({.delay = 30s});
  const auto stopped = stop(*connector_, true);
  ASSERT_TRUE(stopped.error);
  EXPECT_THAT(stopped.error->localizedDescription(), HasSubstr("timed out"));
}

using ServerConnectorTlsTest = HttpsTestServerFixture;

TEST_F(ServerConnectorTlsTest, TalksToAServerWithASelfSignedCertificate) {
  server_.enqueue({.status = 201, .body = R"({"id":"tls"})"});
  const auto reply = start(*ServerConnector::connectorWithServerURL(server_.baseUrl(), "key"));
  ASSERT_TRUE(reply.value) << reply.error->localizedDescription();
  EXPECT_EQ(reply.value->sessionId(), "tls");
}

}  // namespace
}  // namespace lumo::test
