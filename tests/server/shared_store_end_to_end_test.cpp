// Two servers on one PostgreSQL database, as behind a load balancer without sticky sessions:
// every request of a test may reach either instance.
#include <gtest/gtest.h>

#include <array>

#include "client_scenario.h"
#include "support/postgres_cluster.h"

namespace lumo::test {
namespace {

using lumo::test::PostgresCluster;

class SharedStoreEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    auto* cluster = PostgresCluster::shared();
    if (!cluster) {
      GTEST_SKIP() << PostgresCluster::skipReason();
    }
    ServerConfig config;
    config.storeUrl =
        cluster->database(::testing::UnitTest::GetInstance()->current_test_info()->name());
    for (auto& server : servers_) {
      server = std::make_unique<Server>(config);
      server->start();
    }
  }

  std::array<std::unique_ptr<Server>, 2> servers_;
};

// 16 tests of the client library at once, each request of each to the other instance than its
// previous one.
TEST_F(SharedStoreEndToEnd, ParallelTestsOverBothInstancesGetTheirOwnVerdicts) {
  runParallelScenarios({servers_[0]->port(), servers_[1]->port()}, 16);
}

}  // namespace
}  // namespace lumo::test
