// The client library's connector against the embedded server, over real HTTP on loopback.
#include <gtest/gtest.h>

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

// A stop the server refuses (here: another key's) must never reach the test author as a
// passed test: the client reads any answer to a stop as results, so the error answer itself
// has to say it failed.
TEST_F(ServerTest, ARefusedStopEndsAsAFailedTestNeverAsPassed) {
  ServerConfig config;
  config.apiKeys = {"owner-key", "other-key"};
  restartServer(config);
  auto session = await<RunningSession>([&](auto handler) {
    connector(*server_, "owner-key")->startSessionWithInfo(clientStartInfo(), std::move(handler));
  });
  ASSERT_TRUE(session);
  auto results = await<TestResults>([&](auto handler) {
    connector(*server_, "other-key")->stopSession(*session, false, false, std::move(handler));
  });
  ASSERT_TRUE(results);
  EXPECT_EQ(results->status(), TestResultsStatusFailed);
}

}  // namespace
}  // namespace lumo::test
