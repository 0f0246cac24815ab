#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "await_answer.h"
#include "common/match_window_data.h"
#include "connectivity/server_connector.h"
#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "lumo/image_match_settings.h"
#include "lumo/session_start_info.h"
#include "server_fixture.h"

namespace lumo::test {

// The start record the client library writes for test "Checkout" of batch "client-batch".
inline SessionStartInfo clientStartInfo(std::optional<std::string> branch = std::nullopt) {
  SessionStartInfo info;
  auto batch = std::make_shared<BatchInfo>("Client batch");
  batch->setBatchId("client-batch");
  info.setupWithAgentId(
      "lumo/e2e", "Shop", "Checkout", std::nullopt,
      std::make_shared<AppEnvironment>("iOS 17.2", std::nullopt, "iPhone 15", Size{200, 240}),
      batch, branch, branch, std::nullopt, false,
      std::make_shared<ImageMatchSettings>(MatchLevelStrict));
  return info;
}

// The client library's own connector, writers and readers against real servers: a new test,
// a passing rerun on a feature branch with a region the client ignores, a differing run (a
// retry round, then the last attempt) and its approval, then a pass. Each request goes to the
// next connector in turn, so connectors to two instances serve every test alternately.
// `approve` approves a session through the API and returns the answer's status.
inline void runClientScenario(const std::vector<std::shared_ptr<ServerConnector>>& connectors,
                              const std::function<int(const std::string&)>& approve) {
  std::size_t request = 0;
  const auto next = [&]() -> ServerConnector& {
    return *connectors[request++ % connectors.size()];
  };
  const auto start = [&](std::optional<std::string> branch) {
    auto session = await<RunningSession>([&](auto handler) {
      next().startSessionWithInfo(clientStartInfo(branch), std::move(handler));
    });
    EXPECT_TRUE(session && session->sessionId());
    return session;
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
  EXPECT_EQ(results->batchName(), "Client batch");
  EXPECT_EQ(results->hostDisplaySize(), (Size{200, 240}));
  ASSERT_TRUE(results->stepsInfo() && results->stepsInfo()->size() == 2u);
  EXPECT_TRUE((*results->stepsInfo())[0].hasCurrentImage());
  EXPECT_TRUE((*results->stepsInfo())[0].apiUrls());
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
  EXPECT_EQ(approve(*session->sessionId()), 200);

  session = start(std::nullopt);
  ASSERT_TRUE(session);
  EXPECT_TRUE(match(session, changed, "home", false));
  EXPECT_TRUE(match(session, cart, "cart", false));
  results = stop(*session, false);
  EXPECT_TRUE(results->isPassed());
  EXPECT_EQ(results->matches(), 2);
}

// `count` tests at once over HTTP, each request of each to the next of `ports` in turn: a new
// run of two screens that saves, then a rerun that passes or, for every third test, sends
// the screens swapped, so that both steps differ.
inline void runParallelTests(const std::vector<int>& ports, int count) {
  std::vector<std::thread> tests;
  for (int t = 0; t < count; ++t) {
    tests.emplace_back([&, t] {
      std::vector<std::unique_ptr<httplib::Client>> clients;
      for (const int port : ports) {
        clients.push_back(std::make_unique<httplib::Client>("127.0.0.1", port));
        // Requests at once queue for the servers' threads; on a busy machine (or under a
        // sanitizer) some wait longer than the client's default 5 seconds.
        clients.back()->set_read_timeout(kAnswerBound);
      }
      std::size_t request = static_cast<std::size_t>(t);  // tests start on each instance
      const std::string test = "Parallel " + std::to_string(t);
      const std::string key = "?apiKey=" + std::string(kDemoApiKey);
      // An answer's body; an empty object (and a failure) when there is no good answer.
      const auto send = [&](const std::string& method, const std::string& path, const Json& data) {
        httplib::Client& client = *clients[request++ % clients.size()];
        auto res = method == "POST" ? client.Post(path + key, data.dump(), "application/json")
                                    : client.Delete(path + key + data.get<std::string>());
        if (!res || res->status / 100 != 2) {
          ADD_FAILURE() << test << ": " << (res ? res->body : httplib::to_string(res.error()));
          return Json::object();
        }
        return Json::parse(res->body);
      };
      const bool swapped = t % 3 == 0;
      std::string verdicts;
      for (const bool rerun : {false, true}) {
        const std::string id =
            send("POST", "/api/sessions/running.json", {{"startInfo", startInfo(test)}})
                .value("id", "");
        for (const bool second : {rerun && swapped, !(rerun && swapped)}) {
          send("POST", "/api/sessions/running/" + id + ".json",
               matchData(screenshot64(screen(static_cast<unsigned>(t) + 1, second ? kBlue : kRed)),
                         "screen"));
        }
        const Json results = send("DELETE", "/api/sessions/running/" + id + ".json",
                                  std::string("&updateBaseline=") + (rerun ? "0" : "1"));
        verdicts += results.value("status", "?") + (results.value("isNew", false) ? "/new " : " ");
      }
      EXPECT_EQ(verdicts, std::string("Unresolved/new ") + (swapped ? "Unresolved " : "Passed "))
          << test;
    });
  }
  for (auto& test : tests) {
    test.join();
  }
}

}  // namespace lumo::test
