// Two servers on one PostgreSQL database, as behind a load balancer without sticky sessions:
// every request of a test may reach either instance.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

#include "await_answer.h"
#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "lumo/image_match_settings.h"
#include "common/match_window_data.h"
#include "connectivity/server_connector.h"
#include "lumo/session_start_info.h"
#include "server_fixture.h"
#include "support/postgres_cluster.h"

namespace lumo::server::testing {
namespace {

class SharedStoreEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    auto* cluster = lumo::testing::PostgresCluster::shared();
    if (!cluster) {
      GTEST_SKIP() << lumo::testing::PostgresCluster::skipReason();
    }
    const std::string url =
        cluster->database(::testing::UnitTest::GetInstance()->current_test_info()->name());
    for (auto& server : servers_) {
      ServerConfig config;
      config.storeUrl = url;
      server = std::make_unique<Server>(std::move(config));
      server->start();
    }
  }
  void TearDown() override {
    for (auto& server : servers_) {
      if (server) {
        server->stop();
      }
    }
  }

  // The instance the n-th request goes to.
  Server& instance(int n) { return *servers_[static_cast<std::size_t>(n % 2)]; }

  std::array<std::unique_ptr<Server>, 2> servers_;
};

// The client library's own requests, each to the other instance than the one before: start
// on one, match on the other, stop on the first again, approve on the second.
TEST_F(SharedStoreEndToEnd, ClientRequestsAlternatingBetweenInstances) {
  std::array<std::shared_ptr<ServerConnector>, 2> connectors;
  for (int i = 0; i < 2; ++i) {
    connectors[i] =
        ServerConnector::connectorWithServerURL(instance(i).baseUrl(), std::string(kDemoApiKey));
  }
  SessionStartInfo info;
  info.setupWithAgentId(
      "lumo/e2e", "Shop", "Checkout", std::nullopt,
      std::make_shared<AppEnvironment>("iOS 17.2", std::nullopt, "iPhone 15", Size{200, 240}),
      std::make_shared<BatchInfo>("Two instances"), std::nullopt, std::nullopt, std::nullopt, false,
      std::make_shared<ImageMatchSettings>(MatchLevelStrict));
  int request = 0;
  auto next = [&]() -> ServerConnector& { return *connectors[request++ % 2]; };
  auto start = [&] {
    return await<RunningSession>(
        [&](auto handler) { next().startSessionWithInfo(info, std::move(handler)); });
  };
  auto match = [&](const std::shared_ptr<RunningSession>& session, const Image& image,
                   const std::string& tag, bool ignoreMismatch) {
    auto data = std::make_shared<MatchWindowData>(
        AppOutput(std::nullopt, screenshot64(image)), tag,
        Options(tag, ignoreMismatch, false, false, false,
                std::make_shared<ImageMatchSettings>(MatchLevelStrict)));
    auto result = await<MatchResult>(
        [&](auto handler) { next().matchWindowForSession(session, data, std::move(handler)); });
    return result && result->asExpected();
  };
  auto stop = [&](const RunningSession& session, bool save) {
    return await<TestResults>(
        [&](auto handler) { next().stopSession(session, false, save, std::move(handler)); });
  };
  const Image home = screen(1), cart = screen(2, kBlue), changed = screen(3);

  auto session = start();
  ASSERT_TRUE(session);
  EXPECT_TRUE(session->isNewSession());
  EXPECT_TRUE(match(session, home, "home", false));
  EXPECT_TRUE(match(session, cart, "cart", false));
  auto results = stop(*session, true);
  ASSERT_TRUE(results);
  EXPECT_TRUE(results->isNew());

  session = start();
  ASSERT_TRUE(session);
  EXPECT_FALSE(session->isNewSession());
  EXPECT_TRUE(match(session, home, "home", false));
  EXPECT_TRUE(match(session, cart, "cart", false));
  results = stop(*session, false);
  ASSERT_TRUE(results);
  EXPECT_TRUE(results->isPassed());
  EXPECT_EQ(results->matches(), 2);

  session = start();
  ASSERT_TRUE(session);
  EXPECT_FALSE(match(session, changed, "home", true));   // a retry round on one instance,
  EXPECT_FALSE(match(session, changed, "home", false));  // the last attempt on the other
  EXPECT_TRUE(match(session, cart, "cart", true));
  results = stop(*session, false);
  ASSERT_TRUE(results);
  EXPECT_TRUE(results->isDifferent());
  ASSERT_TRUE(session->sessionId());

  httplib::Client approver("127.0.0.1", instance(request++).port());
  auto approved = approver.Post(
      "/api/sessions/" + *session->sessionId() + "/approve?apiKey=" + std::string(kDemoApiKey),
      "{}", "application/json");
  ASSERT_TRUE(approved);
  EXPECT_EQ(approved->status, 200) << approved->body;

  session = start();
  ASSERT_TRUE(session);
  EXPECT_TRUE(match(session, changed, "home", false));
  EXPECT_TRUE(match(session, cart, "cart", false));
  results = stop(*session, false);
  ASSERT_TRUE(results);
  EXPECT_TRUE(results->isPassed());
}

// 32 tests at once, each request of each to the other instance than its previous one: a new
// run that saves, then a rerun that passes or, for every third test, differs.
TEST_F(SharedStoreEndToEnd, ParallelTestsOverBothInstancesGetTheirOwnVerdicts) {
  constexpr int kTests = 32;
  std::atomic<int> wrong{0};
  std::vector<std::thread> tests;
  for (int t = 0; t < kTests; ++t) {
    tests.emplace_back([&, t] {
      std::array<std::unique_ptr<httplib::Client>, 2> clients;
      for (int i = 0; i < 2; ++i) {
        clients[i] = std::make_unique<httplib::Client>("127.0.0.1", instance(i).port());
        // 32 requests at once queue for the servers' 16 threads; on a busy machine (or under
        // a sanitizer) some wait longer than the client's default 5 seconds.
        clients[i]->set_read_timeout(kAnswerBound);
      }
      int request = t;  // half the tests start on each instance
      const std::string test = "Parallel " + std::to_string(t);
      const std::string key = "?apiKey=" + std::string(kDemoApiKey);
      // An answer's body; an empty object (and a failure) when there is no good answer.
      auto body = [&](const httplib::Result& res) {
        if (!res || res->status / 100 != 2) {
          ADD_FAILURE() << test << ": " << (res ? res->body : httplib::to_string(res.error()));
          return Json::object();
        }
        return Json::parse(res->body);
      };
      auto post = [&](const std::string& path, const Json& data) {
        return body(clients[request++ % 2]->Post(path + key, data.dump(), "application/json"));
      };
      auto stop = [&](const std::string& id, bool save) {
        return body(clients[request++ % 2]->Delete("/api/sessions/running/" + id + ".json" + key +
                                                   "&updateBaseline=" + (save ? "1" : "0")));
      };
      const Image first = screen(static_cast<unsigned>(t + 1));
      const bool differs = t % 3 == 0;
      const Image second = differs ? screen(static_cast<unsigned>(t + 1), kBlue) : first;
      std::string verdicts;
      for (const Image* image : {&first, &second}) {
        const std::string id =
            post("/api/sessions/running.json", {{"startInfo", startInfo(test)}}).value("id", "");
        post("/api/sessions/running/" + id + ".json", matchData(screenshot64(*image), "screen"));
        const Json results = stop(id, image == &first);
        verdicts += results.value("status", "?") + (results.value("isNew", false) ? "/new " : " ");
      }
      const std::string expected =
          std::string("Unresolved/new ") + (differs ? "Unresolved " : "Passed ");
      if (verdicts != expected) {
        ++wrong;
        ADD_FAILURE() << test << ": " << verdicts << "instead of " << expected;
      }
    });
  }
  for (auto& test : tests) {
    test.join();
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace lumo::server::testing
