// The client library's connector against the embedded server, over real HTTP on loopback.
#include <gtest/gtest.h>

#include "client_scenario.h"

namespace lumo::server::testing {
namespace {

TEST_F(ServerTest, TheClientsConnectorRunsNewPassingDifferingAndApprovedTests) {
  runClientScenario(
      {ServerConnector::connectorWithServerURL(server_->baseUrl(), std::string(kDemoApiKey))},
      [&](const std::string& id) {
        auto res = post("/api/sessions/" + id + "/approve", Json::object());
        return res ? res->status : 0;
      });
}

}  // namespace
}  // namespace lumo::server::testing
