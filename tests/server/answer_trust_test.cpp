// A stop the server refuses must never reach the test author as a passed test: the client
// reads any answer to a stop as results, so the error answer itself has to say it failed.
#include <gtest/gtest.h>

#include <thread>

#include "await_answer.h"
#include "connectivity/server_connector.h"
#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "lumo/image_match_settings.h"
#include "lumo/session_start_info.h"
#include "server_fixture.h"

namespace lumo::server::testing {
namespace {

constexpr std::chrono::milliseconds kShortIdle{30};

class RefusedStop : public ServerTest {
 protected:
  void SetUp() override {
    ServerConfig config;
    config.apiKeys = {"owner-key", "other-key"};
    config.sessionIdleTimeout = kShortIdle;
    startServer(config);
    info_.setupWithAgentId(
        "lumo/trust", "Shop", "Refused stop", std::nullopt,
        std::make_shared<AppEnvironment>("iOS 17.2", std::nullopt, "iPhone 15", Size{200, 240}),
        std::make_shared<BatchInfo>("Refused stops"), std::nullopt, std::nullopt, std::nullopt,
        false, std::make_shared<ImageMatchSettings>(MatchLevelStrict));
  }

  std::shared_ptr<ServerConnector> connector(const std::string& key) {
    return ServerConnector::connectorWithServerURL(server_->baseUrl(), key);
  }

  SessionStartInfo info_;
};

TEST_F(RefusedStop, EndsAsAFailedTestNeverAsPassed) {
  struct Case {
    const char* name;
    const char* stopKey;
    bool idlePastBound;  // the session expires before the stop (409)
  };
  const Case cases[] = {
      {"stopped with another key (403)", "other-key", false},
      {"stopped after it expired (409)", "owner-key", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto owner = connector("owner-key");
    auto session = await<RunningSession>(
        [&](auto handler) { owner->startSessionWithInfo(info_, std::move(handler)); });
    ASSERT_TRUE(session);
    if (c.idlePastBound) {
      std::this_thread::sleep_for(kShortIdle * 3);
    }
    auto stopper = connector(c.stopKey);
    auto results = await<TestResults>(
        [&](auto handler) { stopper->stopSession(*session, false, false, std::move(handler)); });
    ASSERT_TRUE(results);
    EXPECT_FALSE(results->isPassed());
    EXPECT_EQ(results->status(), TestResultsStatusFailed);
  }
}

}  // namespace
}  // namespace lumo::server::testing
