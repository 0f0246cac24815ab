#include "lumo/server/server.h"

#include <gtest/gtest.h>

#include "client_scenario.h"

namespace lumo::server::testing {
namespace {

using ServerProtocol = ServerTest;

// What the client's readers do not look at (see client_scenario.h for the rest): links,
// images served back as sent, and a difference that is neither saved nor approved.
TEST_F(ServerProtocol, ResultsLinkTheSessionBatchAndImagesServedAsSent) {
  const Image home = screen(1), cart = screen(2, kBlue), changedHome = screen(3);
  auto res = startSession(startInfo("Checkout"));
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 201);
  const Json started = Json::parse(res->body);
  const std::string first = started["id"];
  EXPECT_EQ(started["url"], server_->baseUrl() + "/sessions/" + first);
  EXPECT_TRUE(check(first, home, "home"));
  EXPECT_TRUE(check(first, cart, "cart"));
  Json results = stop(first, true);
  EXPECT_EQ(results["name"], "Checkout");
  EXPECT_EQ(results["appName"], "Shop");
  EXPECT_EQ(results["hostOS"], "iOS 17.2");
  EXPECT_EQ(results["apiUrls"]["session"], started["url"]);
  EXPECT_EQ(results["apiUrls"]["batch"], server_->baseUrl() + "/batches/B1");
  EXPECT_TRUE(results["appUrls"].contains("session"));
  const Json& step = results["stepsInfo"][1];
  EXPECT_EQ(step["name"], "cart");
  EXPECT_EQ(step["hasBaselineImage"], false);
  const std::string imageUrl = step["apiUrls"]["currentImage"];
  auto image = client_->Get(imageUrl.substr(server_->baseUrl().size()));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->status, 200);
  EXPECT_EQ(image->get_header_value("Content-Type"), "image/png");
  EXPECT_EQ(detail::decodePngImage(image->body), cart);

  // A difference not saved leaves the old baseline; the next run differs again.
  for (int run = 0; run < 2; ++run) {
    const std::string id = start(startInfo("Checkout"), 200);
    EXPECT_FALSE(check(id, changedHome, "home"));
    EXPECT_TRUE(check(id, cart, "cart"));
    results = stop(id, false);
    EXPECT_EQ(results["stepsInfo"][0]["isDifferent"], true);
    EXPECT_TRUE(results["stepsInfo"][0]["apiUrls"].contains("diffImage"));
  }
}

// What a stop saves, seen from the test's next start (201: there is no baseline).
TEST_F(ServerProtocol, AStopSavesOnlyARunThatWasNeitherAbortedNorFailedWhenAskedTo) {
  const struct {
    const char* test;
    bool baseline;  // a saved run of screen 1 first
    unsigned word;  // the screen checked; 0: a step without a screenshot
    bool aborted, update, asExpected;
    const char* status;  // null: not looked at
    int nextStart;
  } cases[] = {
      {"Saved difference", true, 5, false, true, false, "Unresolved", 200},
      {"New not saved", false, 1, false, false, true, "Unresolved", 201},
      {"No screenshot", false, 0, false, true, false, "Failed", 201},
      {"Aborted", false, 1, true, true, true, nullptr, 201},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.test);
    if (c.baseline) {
      const std::string id = start(startInfo(c.test), 201);
      check(id, screen(1), "one");
      stop(id, true);
    }
    const std::string id = start(startInfo(c.test), c.baseline ? 200 : 201);
    auto res = matchWindow(id, matchData(c.word ? screenshot64(screen(c.word)) : "", "one"));
    ASSERT_TRUE(res);
    EXPECT_EQ(Json::parse(res->body)["asExpected"], c.asExpected);
    const Json results = stop(id, c.update, c.aborted);
    EXPECT_EQ(results["isAborted"], c.aborted);
    if (c.status) {
      EXPECT_EQ(results["status"], c.status);
    }
    const std::string next = start(startInfo(c.test), c.nextStart);
    if (c.nextStart == 200) {
      EXPECT_TRUE(check(next, screen(c.word), "one"));  // the saved difference is the baseline
    }
  }
}

TEST_F(ServerProtocol, MissingAndExtraStepsLeaveTheTestUnresolved) {
  const std::string first = start(startInfo("Search"), 201);
  check(first, screen(1), "one");
  check(first, screen(2), "two");
  stop(first, true);

  const std::string shorter = start(startInfo("Search"), 200);
  EXPECT_TRUE(check(shorter, screen(1), "one"));
  Json results = stop(shorter, false);
  EXPECT_EQ(results["status"], "Unresolved");
  EXPECT_EQ(results["missing"], 1);
  EXPECT_EQ(results["steps"], 2);
  EXPECT_EQ(results["stepsInfo"][1]["hasBaselineImage"], true);
  EXPECT_EQ(results["stepsInfo"][1]["hasCurrentImage"], false);

  const std::string longer = start(startInfo("Search"), 200);
  EXPECT_TRUE(check(longer, screen(1), "one"));
  EXPECT_TRUE(check(longer, screen(2), "two"));
  EXPECT_TRUE(check(longer, screen(3), "three"));  // nothing to compare with yet
  results = stop(longer, false);
  EXPECT_EQ(results["status"], "Unresolved");
  EXPECT_EQ(results["isDifferent"], true);
  EXPECT_EQ(results["matches"], 2);
}

TEST_F(ServerProtocol, ABranchWithoutABaselineUsesTheDefaultBranchs) {
  const std::string base = start(startInfo("Cart"), 201);
  check(base, screen(1), "cart");
  stop(base, true);

  // The feature branch compares with the default branch's baseline and saves its own.
  const std::string feature = start(startInfo("Cart", "feature"), 200);
  EXPECT_TRUE(check(feature, screen(1), "cart", true));
  EXPECT_EQ(stop(feature, false)["status"], "Passed");
  const std::string changed = start(startInfo("Cart", "feature"), 200);
  EXPECT_FALSE(check(changed, screen(4), "cart"));
  EXPECT_EQ(stop(changed, true)["branchName"], "feature");

  const std::string onFeature = start(startInfo("Cart", "feature"), 200);
  EXPECT_TRUE(check(onFeature, screen(4), "cart"));
  stop(onFeature, false);
  const std::string onDefault = start(startInfo("Cart"), 200);
  EXPECT_TRUE(check(onDefault, screen(1), "cart"));
  stop(onDefault, false);
  // Another branch still falls back to the default one, not to the feature branch.
  const std::string other = start(startInfo("Cart", "other"), 200);
  EXPECT_TRUE(check(other, screen(1), "cart"));
  stop(other, false);
}

TEST_F(ServerProtocol, TheEnvironmentIsTheBaselineEnvNameOrTheDeviceItRunsOn) {
  const std::string first = start(startInfo("Home", "", "phones"), 201);
  check(first, screen(1), "home");
  stop(first, true);

  Json otherDevice = startInfo("Home", "", "phones");
  otherDevice["environment"]["DeviceInfo"] = "Pixel 8";
  start(otherDevice, 200);

  const std::string plain = start(startInfo("Home"), 201);
  check(plain, screen(1), "home");
  stop(plain, true);
  Json otherSize = startInfo("Home");
  otherSize["environment"]["displaySize"]["width"] = 390;
  start(otherSize, 201);
  Json otherOs = startInfo("Home");
  otherOs["environment"]["OSInfo"] = "iOS 18";
  start(otherOs, 201);
  start(startInfo("Home"), 200);
}

TEST_F(ServerProtocol, MatchSettingsOfEachStepAreApplied) {
  const std::string first = start(startInfo("Regions"), 201);
  check(first, screen(1, kRed), "screen");
  stop(first, true);

  const std::string id = start(startInfo("Regions"), 200);
  EXPECT_FALSE(check(id, screen(2, kBlue), "screen", true));
  Json ignoring = settings("Content");
  ignoring["Ignore"] = {{{"left", 10}, {"top", 55}, {"width", 180}, {"height", 25}}};
  EXPECT_FALSE(check(id, screen(2, kBlue), "screen", true, settings("Content")));
  EXPECT_TRUE(check(id, screen(2, kBlue), "screen", true, ignoring));
  const Json results = stop(id, false);
  EXPECT_EQ(results["contentMatches"], 1);
  EXPECT_EQ(results["matches"], 1);
  EXPECT_EQ(results["steps"], 1);

  const std::string layout = start(startInfo("Regions"), 200);
  EXPECT_TRUE(check(layout, screen(2, kBlue), "screen", true, settings("Layout")));
  EXPECT_EQ(stop(layout, false)["layoutMatches"], 1);

  const std::string floating = start(startInfo("Regions"), 200);
  Json moving = settings("Strict");
  moving["Floating"] = {{{"left", 36},
                         {"top", 116},
                         {"width", 128},
                         {"height", 44},
                         {"maxUpOffset", 10},
                         {"maxDownOffset", 10},
                         {"maxLeftOffset", 0},
                         {"maxRightOffset", 0}}};
  EXPECT_FALSE(check(floating, screen(1, kRed, 126), "screen", true));
  EXPECT_TRUE(check(floating, screen(1, kRed, 126), "screen", true, moving));
  EXPECT_EQ(stop(floating, false)["status"], "Passed");
}

// A restart between two checkpoints lets the test finish; baselines and the results of
// sessions before it stay.
TEST_F(ServerProtocol, ARestartKeepsARunningSessionBaselinesAndResults) {
  const std::string first = start(startInfo("Restart"), 201);
  check(first, screen(1), "one");
  check(first, screen(2), "two");
  stop(first, true);
  const std::string id = start(startInfo("Restart"), 200);
  EXPECT_TRUE(check(id, screen(1), "one"));
  stopServer();
  startServer();
  EXPECT_TRUE(check(id, screen(2), "two"));
  EXPECT_EQ(stop(id, false)["status"], "Passed");
  const std::string after = start(startInfo("Restart"), 200);
  EXPECT_FALSE(check(after, screen(3), "one"));
  auto res = client_->Get("/api/sessions/" + first + ".json?" + keyQuery());
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(Json::parse(res->body)["isNew"], true);
}

TEST_F(ServerProtocol, ConcurrentSessionsDoNotDisturbOneAnother) {
  runParallelTests({server_->port()}, 8);
}

}  // namespace
}  // namespace lumo::server::testing
