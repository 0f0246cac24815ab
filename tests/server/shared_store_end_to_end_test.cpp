// Two servers on one PostgreSQL database, as behind a load balancer without sticky sessions:
// every request of a test may reach either instance.
#include <gtest/gtest.h>

#include <array>

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

// 32 tests at once, each request of each to the other instance than its previous one.
TEST_F(SharedStoreEndToEnd, ParallelTestsOverBothInstancesGetTheirOwnVerdicts) {
  runParallelTests({instance(0).port(), instance(1).port()}, 32);
}

}  // namespace
}  // namespace lumo::server::testing
