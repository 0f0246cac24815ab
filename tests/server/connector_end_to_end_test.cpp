// The client library's connector against the embedded server, over real HTTP on loopback.
#include <gtest/gtest.h>

#include <thread>

#include "client_scenario.h"

namespace lumo::test {
namespace {

std::shared_ptr<ServerConnector> connector(const Server& server, const std::string& key) {
  return ServerConnector::connectorWithServerURL(server.baseUrl(), key);
}

TEST_F(ServerTest, TheClientsConnectorRunsNewPassingDifferingAndApprovedTests) {
  runClientScenario({connector(*server_, std::string(kDemoApiKey))}, server_->port());
}

TEST_F(ServerTest, ConcurrentTestsDoNotDisturbOneAnother) {
  runParallelScenarios({server_->port()}, 8);
}

// A stop the server refuses must never reach the test author as a passed test: the client
// reads any answer to a stop as results, so the error answer itself has to say it failed.
TEST_F(ServerTest, ARefusedStopEndsAsAFailedTestNeverAsPassed) {
  constexpr std::chrono::milliseconds kShortIdle{30};
  ServerConfig config;
  config.apiKeys = {"owner-key", "other-key"};
  config.sessionIdleTimeout = kShortIdle;
  restartServer(config);
  // Stopped with another key (403), then after the session expired (409).
  for (const auto& [stopKey, idlePastBound] :
       {std::pair{"other-key", false}, {"owner-key", true}}) {
    SCOPED_TRACE(stopKey);
    auto owner = connector(*server_, "owner-key");
    auto session = await<RunningSession>(
        [&](auto handler) { owner->startSessionWithInfo(clientStartInfo(), std::move(handler)); });
    ASSERT_TRUE(session);
    if (idlePastBound) {
      std::this_thread::sleep_for(kShortIdle * 3);
    }
    auto stopper = connector(*server_, stopKey);
    auto results = await<TestResults>(
        [&](auto handler) { stopper->stopSession(*session, false, false, std::move(handler)); });
    ASSERT_TRUE(results);
    EXPECT_FALSE(results->isPassed());
    EXPECT_EQ(results->status(), TestResultsStatusFailed);
  }
}

}  // namespace
}  // namespace lumo::test
