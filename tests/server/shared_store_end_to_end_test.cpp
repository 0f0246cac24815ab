// Two servers on one PostgreSQL database, as behind a load balancer without sticky sessions:
// every request of a test may reach either instance.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

#include "client_scenario.h"
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

// The client library's own requests, each to the other instance than the one before.
TEST_F(SharedStoreEndToEnd, ClientRequestsAlternatingBetweenInstances) {
  std::vector<std::shared_ptr<ServerConnector>> connectors;
  for (int i = 0; i < 2; ++i) {
    connectors.push_back(
        ServerConnector::connectorWithServerURL(instance(i).baseUrl(), std::string(kDemoApiKey)));
  }
  runClientScenario(connectors, [&](const std::string& id) {
    httplib::Client approver("127.0.0.1", instance(1).port());
    auto res = approver.Post("/api/sessions/" + id + "/approve?apiKey=" + std::string(kDemoApiKey),
                             "{}", "application/json");
    return res ? res->status : 0;
  });
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
