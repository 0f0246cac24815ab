#include "connectivity/server_connector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "connectivity/http_client.h"
#include "lumo/internal_inconsistency_exception.h"
#include "platform/expectation.h"
#include "platform/waiter.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/test_server.h"

namespace lumo {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using namespace std::chrono_literals;

// What one completion handler received.
template <typename Record>
class Reply {
 public:
  ServerConnector::CompletionHandler<Record> handler() {
    return [this, done = done_](std::shared_ptr<Record> record, std::optional<Error> error) {
      record_ = std::move(record);
      error_ = std::move(error);
      thread_ = std::this_thread::get_id();
      done->fulfill();
    };
  }
  // Waits (bounded) for the handler; fails the test if it did not run.
  Reply& wait() {
    EXPECT_EQ(Waiter::waitForExpectations({done_}, 10s), WaiterResult::Completed);
    EXPECT_NE(thread_, std::this_thread::get_id());
    return *this;
  }
  const std::shared_ptr<Record>& record() const { return record_; }
  const std::optional<Error>& error() const { return error_; }

 private:
  std::shared_ptr<Expectation> done_ = std::make_shared<Expectation>();
  std::shared_ptr<Record> record_;
  std::optional<Error> error_;
  std::thread::id thread_;
};

SessionStartInfo startInfo() {
  SessionStartInfo info;
  info.setupWithAgentId("agent/1", "Shop", "Login", std::nullopt,
                        std::make_shared<AppEnvironment>("iOS 17", "app", "iPhone", Size{375, 667}),
                        std::make_shared<BatchInfo>("nightly"), "feature", std::nullopt,
                        std::nullopt, true, std::make_shared<ImageMatchSettings>());
  return info;
}

std::shared_ptr<MatchWindowData> matchData(std::optional<std::string> tag = "home") {
  return std::make_shared<MatchWindowData>(
      AppOutput("Home", "iVBORw0KGgo=\r\nAAAA"), tag,
      Options(tag, true, false, false, false, std::make_shared<ImageMatchSettings>()));
}

std::shared_ptr<RunningSession> session(const std::string& id = "s-1") {
  return std::make_shared<RunningSession>(Json{{"id", id}, {"url", "https://results/" + id}});
}

class ServerConnectorTest : public test::TestServerFixture {
 protected:
  std::shared_ptr<ServerConnector> connector(std::string apiKey = "key") {
    return ServerConnector::connectorWithServerURL(server_.baseURL(), std::move(apiKey));
  }
  std::string hostHeader() const { return "127.0.0.1:" + std::to_string(server_.port()); }
};

TEST_F(ServerConnectorTest, StartSessionPostsTheStartRecordUnderStartInfo) {
  server_.enqueue({.status = 201, .body = R"({"id":"s-9","url":"https://r/s-9","extra":1})"});
  const SessionStartInfo info = startInfo();
  const auto conn = connector();
  Reply<RunningSession> reply;
  conn->startSessionWithInfo(info, reply.handler());

  reply.wait();
  ASSERT_TRUE(reply.record());
  EXPECT_FALSE(reply.error());
  EXPECT_EQ(reply.record()->sessionId(), "s-9");
  EXPECT_EQ(reply.record()->url(), "https://r/s-9");
  EXPECT_TRUE(reply.record()->isNewSession());

  const test::RecordedRequest sent = server_.requests().at(0);
  EXPECT_EQ(sent.method, "POST");
  EXPECT_EQ(sent.path, "/api/sessions/running.json");
  EXPECT_EQ(sent.query, "apiKey=key");
  const Json expected{{"startInfo", info.dictionary()}};
  EXPECT_EQ(sent.body, expected.dump());
  EXPECT_EQ(Json::parse(sent.body), expected);
  EXPECT_THAT(
      sent.headers,
      ElementsAre(Pair("Accept", "*/*"), Pair("Content-Length", std::to_string(sent.body.size())),
                  Pair("Content-Type", "application/json"), Pair("Host", hostHeader())));
}

TEST_F(ServerConnectorTest, OnlyStatus201MakesANewSessionAndOtherStatusesStillGiveARecord) {
  const auto conn = connector();
  for (const auto& [status, isNew] : {std::pair{200, false}, std::pair{201, true},
                                      std::pair{202, false}, std::pair{500, false}}) {
    server_.enqueue({.status = status, .body = R"({"id":"s"})"});
    Reply<RunningSession> reply;
    conn->startSessionWithInfo(startInfo(), reply.handler());
    reply.wait();
    ASSERT_TRUE(reply.record()) << status;
    EXPECT_EQ(reply.record()->isNewSession(), isNew) << status;
    EXPECT_EQ(reply.record()->url(), std::nullopt);
  }
}

TEST_F(ServerConnectorTest, MatchWindowPostsTheMatchDataAsTheWholeBody) {
  server_.enqueue({.body = R"({"asExpected":true,"screenshot":{"w":1}})"});
  test::LogCapture log;
  const auto data = matchData();
  const auto conn = connector();
  Reply<MatchResult> reply;
  conn->matchWindowForSession(session("s-1"), data, reply.handler());

  reply.wait();
  ASSERT_TRUE(reply.record());
  EXPECT_TRUE(reply.record()->asExpected());
  EXPECT_EQ(reply.record()->screenshotValue(), Json({{"w", 1}}));
  EXPECT_EQ(reply.record()->screenshot(), nullptr);

  const test::RecordedRequest sent = server_.requests().at(0);
  EXPECT_EQ(sent.method, "POST");
  EXPECT_EQ(sent.path, "/api/sessions/running/s-1.json");
  EXPECT_EQ(sent.query, "apiKey=key");
  EXPECT_EQ(sent.body, data->dictionary().dump());
  EXPECT_EQ(sent.header("Content-Length"), std::to_string(sent.body.size()));
  EXPECT_EQ(sent.header("Content-Type"), "application/json");
  EXPECT_THAT(log.lines(), ElementsAre("[BrixtelLumo] Match window URL: " + server_.baseURL() +
                                       "/api/sessions/running/s-1.json?apiKey=key"));
}

TEST_F(ServerConnectorTest, MatchWindowGuardsItsArgumentsAndSendsNothing) {
  const auto conn = connector();
  try {
    conn->matchWindowForSession(nullptr, matchData(), {});
    ADD_FAILURE() << "a nil session was accepted";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_EQ(e.reason(), "runningSession is nil");
  }
  try {
    conn->matchWindowForSession(session(), nullptr, {});
    ADD_FAILURE() << "nil match data was accepted";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_EQ(e.reason(), "matchData is nil");
  }
  EXPECT_THROW(conn->setServerURL(std::nullopt), InternalInconsistencyException);
  EXPECT_THROW(conn->setApiKey(std::nullopt), InternalInconsistencyException);
  EXPECT_THROW(ServerConnector(std::nullopt, "key", 60), InternalInconsistencyException);
  EXPECT_EQ(conn->serverURL(), server_.baseURL());
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(ServerConnectorTest, StopSessionSendsDeleteWithFlagsAndNoBody) {
  server_.enqueue({.body = R"({"status":"Failed","steps":3,"isNew":false})"});
  const auto conn = connector();
  Reply<TestResults> aborted;
  conn->stopSession(*session("s-2"), true, false, aborted.handler());
  aborted.wait();
  ASSERT_TRUE(aborted.record());
  EXPECT_EQ(aborted.record()->status(), TestResultsStatusFailed);
  EXPECT_EQ(aborted.record()->steps(), 3);

  Reply<TestResults> saved;
  conn->stopSession(*session("s-2"), false, true, saved.handler());
  saved.wait();

  const auto sent = server_.requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].method, "DELETE");
  EXPECT_EQ(sent[0].path, "/api/sessions/running/s-2.json");
  EXPECT_EQ(sent[0].query, "apiKey=key&aborted=1&updateBaseline=0");
  EXPECT_EQ(sent[1].query, "apiKey=key&aborted=0&updateBaseline=1");
  EXPECT_EQ(sent[0].body, "");
  EXPECT_THAT(sent[0].headers,
              ElementsAre(Pair("Accept", "*/*"), Pair("Content-Type", "application/json"),
                          Pair("Host", hostHeader())));
}

// JSON that is not an object counts as no JSON: an array read as test results would otherwise
// be a record of defaults, that is a passed test.
TEST_F(ServerConnectorTest, AnswersThatAreNotJsonObjectsGiveNeitherRecordNorError) {
  const auto conn = connector();
  for (const std::string& body :
       {std::string("<html><body>Bad gateway</body></html>"), std::string(""), std::string("42"),
        std::string("{\"a\":"), std::string("[]"), std::string("[{\"status\":\"Passed\"}]"),
        std::string("\"Passed\""), std::string("null"), std::string("true")}) {
    server_.enqueue({.status = 502, .body = body, .contentType = "text/html"});
    server_.enqueue({.status = 200, .body = body, .contentType = "text/html"});
    server_.enqueue({.status = 200, .body = body, .contentType = "text/html"});
    Reply<RunningSession> started;
    Reply<MatchResult> matched;
    Reply<TestResults> stopped;
    conn->startSessionWithInfo(startInfo(), started.handler());
    started.wait();
    conn->matchWindowForSession(session(), matchData(), matched.handler());
    matched.wait();
    conn->stopSession(*session(), false, false, stopped.handler());
    stopped.wait();
    EXPECT_FALSE(started.record() || started.error()) << body;
    EXPECT_FALSE(matched.record() || matched.error()) << body;
    EXPECT_FALSE(stopped.record() || stopped.error()) << body;
  }
}

TEST_F(ServerConnectorTest, AnErrorStatusWithAJsonBodyGivesTheRecordOfThatBody) {
  server_.enqueue({.status = 404, .body = R"({"asExpected":true})"});
  server_.enqueue({.status = 401, .body = R"({"message":"bad key"})"});
  const auto conn = connector();
  Reply<MatchResult> matched;
  conn->matchWindowForSession(session(), matchData(), matched.handler());
  ASSERT_TRUE(matched.wait().record());
  EXPECT_TRUE(matched.record()->asExpected());
  Reply<TestResults> stopped;
  conn->stopSession(*session(), false, false, stopped.handler());
  ASSERT_TRUE(stopped.wait().record());
  EXPECT_TRUE(stopped.record()->isPassed());
}

TEST_F(ServerConnectorTest, AnEmptyStoredKeyFallsBackToTheEnvironmentOnEveryCall) {
  const auto conn = connector("");
  {
    test::ScopedEnv env("BRIXTEL_API_KEY", "from-env");
    EXPECT_EQ(conn->apiKey(), "from-env");
    Reply<TestResults> reply;
    conn->stopSession(*session(), false, false, reply.handler());
    reply.wait();
  }
  {
    test::ScopedEnv env("BRIXTEL_API_KEY", "changed");
    EXPECT_EQ(conn->apiKey(), "changed");
    conn->setApiKey("stored");
    EXPECT_EQ(conn->apiKey(), "stored");
  }
  conn->setApiKey("");
  EXPECT_EQ(conn->apiKey(), std::nullopt);
  EXPECT_THAT(server_.requests().at(0).query, HasSubstr("apiKey=from-env&"));
}

TEST_F(ServerConnectorTest, TheServerUrlIsUsedAsItsTextAndQueryValuesAreNotEncoded) {
  const auto conn = ServerConnector::connectorWithServerURL(server_.baseURL() + "/", "k+y/=%41");
  Reply<TestResults> reply;
  conn->stopSession(*session("id&x=1"), false, false, reply.handler());
  reply.wait();
  const test::RecordedRequest sent = server_.requests().at(0);
  EXPECT_EQ(sent.path, "//api/sessions/running/id&x=1.json");
  EXPECT_EQ(sent.query, "apiKey=k+y/=%41&aborted=0&updateBaseline=0");
}

TEST_F(ServerConnectorTest, AUrlThatCannotBeBuiltFailsThroughTheHandlerWithoutSending) {
  const auto conn = connector("key with blank");
  Reply<RunningSession> started;
  conn->startSessionWithInfo(startInfo(), started.handler());
  started.wait();
  ASSERT_TRUE(started.error());
  EXPECT_FALSE(started.record());
  EXPECT_THAT(started.error()->localizedDescription(), HasSubstr("cannot appear in a URL"));

  conn->setApiKey("key");
  for (const std::string& id : {std::string("line\nbreak"), std::string("caf\xC3\xA9")}) {
    Reply<MatchResult> matched;
    conn->matchWindowForSession(session(id), matchData(), matched.handler());
    EXPECT_TRUE(matched.wait().error()) << id;
  }
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(ServerConnectorTest, TransportFailuresReachTheHandlerUnchanged) {
  const test::RefusingPort refusing;
  const auto refused = ServerConnector::connectorWithServerURL(refusing.baseURL(), "key");
  Reply<RunningSession> started;
  refused->startSessionWithInfo(startInfo(), started.handler());
  started.wait();
  ASSERT_TRUE(started.error());
  EXPECT_EQ(started.error()->domain(), HttpClient::kErrorDomain);
  EXPECT_THAT(started.error()->localizedDescription(), HasSubstr("Connection refused"));

  server_.enqueue({.dropConnection = true});
  const auto conn = connector();
  Reply<MatchResult> matched;
  conn->matchWindowForSession(session(), matchData(), matched.handler());
  EXPECT_TRUE(matched.wait().error());
  EXPECT_FALSE(matched.record());
}

TEST_F(ServerConnectorTest, ARequestThatOutlivesItsBoundTimesOut) {
  const auto conn = connector();
  conn->setTimeout(5);
  EXPECT_EQ(conn->timeout(), 5);
  EXPECT_EQ(conn->requestTimeoutInterval(), 60s);
  EXPECT_EQ(ServerConnector::connectorWithServerURL("u", "k")->timeout(), 60);

  conn->setRequestTimeoutInterval(200ms);
  server_.enqueue({.delay = 30s});
  Reply<TestResults> reply;
  conn->stopSession(*session(), true, false, reply.handler());
  reply.wait();
  ASSERT_TRUE(reply.error());
  EXPECT_THAT(reply.error()->localizedDescription(), HasSubstr("timed out"));
}

TEST_F(ServerConnectorTest, SeveralCallsAreInFlightAtOnceAndEmptyHandlersAreAllowed) {
  const auto conn = connector();
  server_.hold();
  Reply<RunningSession> started;
  Reply<MatchResult> matched;
  conn->startSessionWithInfo(startInfo(), started.handler());
  conn->matchWindowForSession(session(), matchData(), matched.handler());
  conn->stopSession(*session(), false, false, {});
  EXPECT_TRUE(server_.waitForRequests(3, 10s));
  server_.release();
  started.wait();
  matched.wait();
  EXPECT_TRUE(started.record());
  EXPECT_TRUE(matched.record());
}

using ServerConnectorTlsTest = test::HttpsTestServerFixture;

TEST_F(ServerConnectorTlsTest, TalksToAServerWithASelfSignedCertificate) {
  server_.enqueue({.status = 201, .body = R"({"id":"tls"})"});
  const auto conn = ServerConnector::connectorWithServerURL(server_.baseURL(), "key");
  Reply<RunningSession> reply;
  conn->startSessionWithInfo(startInfo(), reply.handler());
  reply.wait();
  ASSERT_TRUE(reply.record()) << reply.error()->localizedDescription();
  EXPECT_EQ(reply.record()->sessionId(), "tls");
  EXPECT_EQ(server_.requests().at(0).path, "/api/sessions/running.json");
}

}  // namespace
}  // namespace lumo
