#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/match_window_data.h"
#include "connectivity/server_connector.h"
#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "lumo/error.h"
#include "lumo/image_match_settings.h"
#include "lumo/session_start_info.h"
#include "server_fixture.h"
#include "support/await_reply.h"

namespace lumo::test {

// Runs one connector call, waits for its handler and returns the record it got.
template <typename Record, typename Call>
std::shared_ptr<Record> await(Call call) {
  auto reply = awaitReply<std::shared_ptr<Record>>(call);
  EXPECT_FALSE(reply.error) << reply.error->localizedDescription();
  return reply.value;
}

// The start record the client library writes for `test` of batch "client-batch".
inline SessionStartInfo clientStartInfo(const std::string& test = "Checkout",
                                        std::optional<std::string> branch = std::nullopt) {
  SessionStartInfo info;
  auto batch = std::make_shared<BatchInfo>("Client batch");
  batch->setBatchId("client-batch");
  info.setupWithAgentId(
      "lumo/e2e", "Shop", test, std::nullopt,
      std::make_shared<AppEnvironment>("iOS 17.2", std::nullopt, "iPhone 15", Size{200, 240}),
      batch, branch, branch, std::nullopt, false,
      std::make_shared<ImageMatchSettings>(MatchLevelStrict));
  return info;
}

// The client library's own connector, writers and readers against real servers: a new test,
// a passing rerun on a feature branch with a region the client ignores, a differing run (a
// retry round, then the last attempt) and its approval on `approvePort`, then a pass. Each
// request goes to the next connector in turn, so connectors to two instances serve every test
// alternately.
inline void runClientScenario(const std::vector<std::shared_ptr<ServerConnector>>& connectors,
                              int approvePort, const std::string& test = "Checkout") {
  std::size_t request = 0;
  const auto next = [&]() -> ServerConnector& {
    return *connectors[request++ % connectors.size()];
  };
  const auto start = [&](std::optional<std::string> branch) {
    auto session = await<RunningSession>([&](auto handler) {
      next().startSessionWithInfo(clientStartInfo(test, branch), std::move(handler));
    });
    // Without an id the scenario stops here (below), in a test thread too.
    return session && session->sessionId() ? session : nullptr;
  };
  const auto match = [&](const std::shared_ptr<RunningSession>& session, const Image& image,
                         const std::string& tag, bool ignoreMismatch,
                         std::vector<Region> ignore = {}) {
    auto settings = std::make_shared<ImageMatchSettings>(MatchLevelStrict);
    settings->setIgnoredRegions(std::move(ignore));
    auto data = std::make_shared<MatchWindowData>(
        AppOutput(std::nullopt, screenshot64(image)), tag,
        Options(tag, ignoreMismatch, false, false, false, settings));
    auto result = await<MatchResult>(
        [&](auto handler) { next().matchWindowForSession(session, data, std::move(handler)); });
    return result && result->asExpected();
  };
  const auto stop = [&](const RunningSession& session, bool save) {
    auto results = await<TestResults>(
        [&](auto handler) { next().stopSession(session, false, save, std::move(handler)); });
    return results ? results : std::make_shared<TestResults>();
  };
  const Image home = screen(1), cart = screen(2, kBlue), changed = screen(3);

  auto session = start(std::nullopt);
  ASSERT_TRUE(session);
  EXPECT_TRUE(session->isNewSession());
  EXPECT_TRUE(match(session, home, "home", false));
  EXPECT_TRUE(match(session, cart, "cart", false));
  auto results = stop(*session, true);  // a new test is saved by default
  EXPECT_EQ(results->status(), TestResultsStatusUnresolved);
  EXPECT_TRUE(results->isNew());
  // Each instance links to itself: the session's path is what they share.
  EXPECT_TRUE(results->url().value_or("").ends_with("/sessions/" + *session->sessionId()));
  EXPECT_EQ(results->batchId(), "client-batch");
  EXPECT_EQ(results->hostDisplaySize(), (Size{200, 240}));
  ASSERT_TRUE(results->stepsInfo() && results->stepsInfo()->size() == 2u);
  EXPECT_TRUE((*results->stepsInfo())[0].hasCurrentImage());
  ASSERT_TRUE(results->defaultMatchSettings());
  EXPECT_EQ(results->defaultMatchSettings()->matchLevel(), "Strict");

  // A feature branch falls back to the default branch's baseline; the changed text lies in
  // the region the client's settings ignore.
  session = start("feature");
  ASSERT_TRUE(session);
  EXPECT_FALSE(session->isNewSession());
  EXPECT_FALSE(match(session, changed, "home", true));
  EXPECT_TRUE(match(session, changed, "home", true, {Region(10, 55, 180, 25)}));
  EXPECT_TRUE(match(session, cart, "cart", true));
  results = stop(*session, false);
  EXPECT_TRUE(results->isPassed());
  EXPECT_EQ(results->branchName(), "feature");
  EXPECT_EQ(results->strictMatches(), 2);

  session = start(std::nullopt);
  ASSERT_TRUE(session);
  EXPECT_FALSE(match(session, changed, "home", true));   // a retry round,
  EXPECT_FALSE(match(session, changed, "home", false));  // then the last attempt
  EXPECT_TRUE(match(session, cart, "cart", true));
  results = stop(*session, false);  // failed tests are not saved by default
  EXPECT_EQ(results->status(), TestResultsStatusUnresolved);
  EXPECT_FALSE(results->isNew());
  EXPECT_TRUE(results->isDifferent());
  EXPECT_EQ(results->mismatches(), 1);
  ASSERT_TRUE(results->stepsInfo());
  EXPECT_TRUE((*results->stepsInfo())[0].isDifferent());
  auto approved = httplib::Client("127.0.0.1", approvePort)
                      .Post("/api/sessions/" + *session->sessionId() +
                                "/approve?apiKey=" + std::string(kDemoApiKey),
                            "{}", "application/json");
  EXPECT_TRUE(approved && approved->status == 200);

  session = start(std::nullopt);
  ASSERT_TRUE(session);
  EXPECT_TRUE(match(session, changed, "home", false));
  EXPECT_TRUE(match(session, cart, "cart", false));
  results = stop(*session, false);
  EXPECT_TRUE(results->isPassed());
  EXPECT_EQ(results->matches(), 2);
}

// `count` client scenarios at once, each its own test, each starting on another of `ports`.
inline void runParallelScenarios(const std::vector<int>& ports, int count) {
  std::vector<std::thread> tests;
  for (int t = 0; t < count; ++t) {
    tests.emplace_back([&ports, t] {
      std::vector<std::shared_ptr<ServerConnector>> connectors;
      for (std::size_t i = 0; i < ports.size(); ++i) {
        const int port = ports[(i + static_cast<std::size_t>(t)) % ports.size()];
        connectors.push_back(ServerConnector::connectorWithServerURL(
            "http://127.0.0.1:" + std::to_string(port), std::string(kDemoApiKey)));
      }
      runClientScenario(connectors, ports.back(), "Parallel " + std::to_string(t));
    });
  }
  for (auto& test : tests) {
    test.join();
  }
}

}  // namespace lumo::test
