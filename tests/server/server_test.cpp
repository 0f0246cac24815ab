#include "lumo/server/server.h"

#include <gtest/gtest.h>

#include "server_fixture.h"

namespace lumo::test {
namespace {

class ServerProtocol : public ServerTest {
 protected:
  // A stopped, saved first run of `test` that checked `screens` in turn.
  void saveBaseline(const Json& info, const std::vector<Image>& screens) {
    const std::string id = start(info, 201);
    for (const Image& image : screens) {
      check(id, image, "step");
    }
    stop(id, true);
  }
};

// What the client's readers do not look at (see client_scenario.h for the rest): links,
// and images served back as sent.
TEST_F(ServerProtocol, ResultsLinkTheSessionBatchAndImagesServedAsSent) {
  const Image cart = screen(2, kBlue);
  const Json started = answer(startSession(startInfo("Checkout")), 201);
  const std::string first = started["id"];
  EXPECT_EQ(started["url"], server_->baseUrl() + "/sessions/" + first);
  EXPECT_TRUE(check(first, screen(1), "home"));
  EXPECT_TRUE(check(first, cart, "cart"));
  Json results = stop(first, true);
  expectFields(results, {{"/name", "Checkout"},
                         {"/appName", "Shop"},
                         {"/hostOS", "iOS 17.2"},
                         {"/apiUrls/session", started["url"]},
                         {"/apiUrls/batch", server_->baseUrl() + "/batches/B1"},
                         {"/appUrls/session", started["url"]},
                         {"/stepsInfo/1/name", "cart"},
                         {"/stepsInfo/1/hasBaselineImage", false}});
  const std::string imageUrl = results["stepsInfo"][1]["apiUrls"]["currentImage"];
  auto image = client_->Get(imageUrl.substr(server_->baseUrl().size()));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->status, 200);
  EXPECT_EQ(image->get_header_value("Content-Type"), "image/png");
  EXPECT_EQ(server::detail::decodePngImage(image->body), cart);
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
      saveBaseline(startInfo(c.test), {screen(1)});
    }
    const std::string id = start(startInfo(c.test), c.baseline ? 200 : 201);
    const auto data = matchData(c.word ? screenshot64(screen(c.word)) : "", "step");
    EXPECT_EQ(answer(matchWindow(id, data), 200)["asExpected"], c.asExpected);
    const Json results = stop(id, c.update, c.aborted);
    EXPECT_EQ(results["isAborted"], c.aborted);
    if (c.status) {
      EXPECT_EQ(results["status"], c.status);
    }
    if (c.baseline) {  // a difference from the baseline links its diff image
      EXPECT_TRUE(results["stepsInfo"][0]["apiUrls"].contains("diffImage"));
    }
    const std::string next = start(startInfo(c.test), c.nextStart);
    if (c.nextStart == 200) {
      EXPECT_TRUE(check(next, screen(c.word), "step"));  // the saved difference is the baseline
    }
  }
}

TEST_F(ServerProtocol, MissingAndExtraStepsLeaveTheTestUnresolved) {
  saveBaseline(startInfo("Search"), {screen(1), screen(2)});
  const std::string shorter = start(startInfo("Search"), 200);
  EXPECT_TRUE(check(shorter, screen(1), "one"));
  const Json results = stop(shorter, false);
  expectFields(results, {{"/status", "Unresolved"},
                         {"/missing", 1},
                         {"/steps", 2},
                         {"/stepsInfo/1/hasBaselineImage", true},
                         {"/stepsInfo/1/hasCurrentImage", false}});

  const std::string longer = start(startInfo("Search"), 200);
  for (unsigned word : {1u, 2u, 3u}) {  // the third has nothing to compare with yet
    EXPECT_TRUE(check(longer, screen(word), "step"));
  }
  expectFields(stop(longer, false),
               {{"/status", "Unresolved"}, {"/isDifferent", true}, {"/matches", 2}});
}

TEST_F(ServerProtocol, ABranchWithoutABaselineUsesTheDefaultBranchs) {
  saveBaseline(startInfo("Cart"), {screen(1)});
  // The feature branch compares with the default branch's baseline (as the client scenario
  // shows) and saves its own.
  const std::string changed = start(startInfo("Cart", "feature"), 200);
  EXPECT_FALSE(check(changed, screen(4), "cart"));
  EXPECT_EQ(stop(changed, true)["branchName"], "feature");
  // Another branch still falls back to the default one, not to the feature branch.
  for (const auto& [branch, word] :
       {std::pair{"feature", 4u}, std::pair{"", 1u}, std::pair{"other", 1u}}) {
    const std::string id = start(startInfo("Cart", branch), 200);
    EXPECT_TRUE(check(id, screen(word), "cart")) << branch;
    stop(id, false);
  }
}

TEST_F(ServerProtocol, TheEnvironmentIsTheBaselineEnvNameOrTheDeviceItRunsOn) {
  saveBaseline(startInfo("Home", "", "phones"), {screen(1)});
  Json otherDevice = startInfo("Home", "", "phones");
  otherDevice["environment"]["DeviceInfo"] = "Pixel 8";
  start(otherDevice, 200);

  saveBaseline(startInfo("Home"), {screen(1)});
  Json otherSize = startInfo("Home"), otherOs = startInfo("Home");
  otherSize["environment"]["displaySize"]["width"] = 390;
  otherOs["environment"]["OSInfo"] = "iOS 18";
  start(otherSize, 201);
  start(otherOs, 201);
  start(startInfo("Home"), 200);
}

TEST_F(ServerProtocol, MatchSettingsOfEachStepAreApplied) {
  saveBaseline(startInfo("Regions"), {screen(1, kRed)});
  const std::string id = start(startInfo("Regions"), 200);
  EXPECT_FALSE(check(id, screen(2, kBlue), "screen", true));
  Json ignoring = settings("Content");
  ignoring["Ignore"] = {{{"left", 10}, {"top", 55}, {"width", 180}, {"height", 25}}};
  EXPECT_FALSE(check(id, screen(2, kBlue), "screen", true, settings("Content")));
  EXPECT_TRUE(check(id, screen(2, kBlue), "screen", true, ignoring));
  expectFields(stop(id, false), {{"/contentMatches", 1}, {"/matches", 1}, {"/steps", 1}});

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

}  // namespace
}  // namespace lumo::test
