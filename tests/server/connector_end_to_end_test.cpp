// The client library's connector against the embedded server, over real HTTP on loopback:
// a new test, a passing rerun, a differing run and its approval.
#include <gtest/gtest.h>

#include "await_answer.h"
#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "platform/expectation.h"
#include "lumo/image_match_settings.h"
#include "common/match_window_data.h"
#include "connectivity/server_connector.h"
#include "lumo/session_start_info.h"
#include "platform/waiter.h"
#include "server_fixture.h"

namespace lumo::server::testing {
namespace {

class ConnectorEndToEnd : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    connector_ =
        ServerConnector::connectorWithServerURL(server_->baseUrl(), std::string(kDemoApiKey));
    info_.setupWithAgentId(
        "lumo/e2e", "Shop", "Checkout", std::nullopt,
        std::make_shared<AppEnvironment>("iOS 17.2", std::nullopt, "iPhone 15", Size{200, 240}),
        std::make_shared<BatchInfo>("End to end"), std::nullopt, std::nullopt, std::nullopt, false,
        std::make_shared<ImageMatchSettings>(MatchLevelStrict));
  }
  void TearDown() override {
    connector_.reset();
    ServerTest::TearDown();
  }

  std::shared_ptr<RunningSession> startRunning() {
    return await<RunningSession>(
        [&](auto handler) { connector_->startSessionWithInfo(info_, std::move(handler)); });
  }

  bool matchScreen(const std::shared_ptr<RunningSession>& session, const Image& image,
                   const std::string& tag, bool ignoreMismatch) {
    auto data = std::make_shared<MatchWindowData>(
        AppOutput(std::nullopt, screenshot64(image)), tag,
        Options(tag, ignoreMismatch, false, false, false,
                std::make_shared<ImageMatchSettings>(MatchLevelStrict)));
    auto result = await<MatchResult>([&](auto handler) {
      connector_->matchWindowForSession(session, data, std::move(handler));
    });
    return result && result->asExpected();
  }

  std::shared_ptr<TestResults> stopRunning(const RunningSession& session, bool save) {
    return await<TestResults>(
        [&](auto handler) { connector_->stopSession(session, false, save, std::move(handler)); });
  }

  std::shared_ptr<ServerConnector> connector_;
  SessionStartInfo info_;
};

TEST_F(ConnectorEndToEnd, NewTestPassingRerunDifferenceAndApproval) {
  const Image home = screen(1), cart = screen(2, kBlue), changed = screen(3);

  auto session = startRunning();
  ASSERT_TRUE(session);
  EXPECT_TRUE(session->isNewSession());
  EXPECT_TRUE(matchScreen(session, home, "home", false));
  EXPECT_TRUE(matchScreen(session, cart, "cart", false));
  auto results = stopRunning(*session, true);  // a new test is saved by default
  ASSERT_TRUE(results);
  EXPECT_EQ(results->status(), TestResultsStatusUnresolved);
  EXPECT_TRUE(results->isNew());
  EXPECT_EQ(results->url(), session->url());

  session = startRunning();
  ASSERT_TRUE(session);
  EXPECT_FALSE(session->isNewSession());
  EXPECT_TRUE(matchScreen(session, home, "home", true));
  EXPECT_TRUE(matchScreen(session, cart, "cart", true));
  results = stopRunning(*session, false);
  ASSERT_TRUE(results);
  EXPECT_TRUE(results->isPassed());
  EXPECT_EQ(results->matches(), 2);

  // A retry round that keeps failing, then the last attempt that records the difference.
  session = startRunning();
  ASSERT_TRUE(session);
  EXPECT_FALSE(matchScreen(session, changed, "home", true));
  EXPECT_FALSE(matchScreen(session, changed, "home", false));
  EXPECT_TRUE(matchScreen(session, cart, "cart", true));
  results = stopRunning(*session, false);  // failed tests are not saved by default
  ASSERT_TRUE(results);
  EXPECT_EQ(results->status(), TestResultsStatusUnresolved);
  EXPECT_FALSE(results->isNew());
  EXPECT_TRUE(results->isDifferent());
  ASSERT_TRUE(session->sessionId());

  auto approved = post("/api/sessions/" + *session->sessionId() + "/approve", Json::object());
  ASSERT_TRUE(approved);
  EXPECT_EQ(approved->status, 200);

  session = startRunning();
  ASSERT_TRUE(session);
  EXPECT_TRUE(matchScreen(session, changed, "home", true));
  EXPECT_TRUE(matchScreen(session, cart, "cart", true));
  results = stopRunning(*session, false);
  ASSERT_TRUE(results);
  EXPECT_TRUE(results->isPassed());
}

}  // namespace
}  // namespace lumo::server::testing
