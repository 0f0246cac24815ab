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

// What a stop saves, seen from the test's next start: only a saved difference is a baseline.
TEST_F(ServerProtocol, AStopSavesOnlyARunThatWasNeitherAbortedNorFailedWhenAskedTo) {
  const struct {
    const char* test;
    bool baseline;  // a saved run of screen 1 first
    unsigned word;  // the screen checked; 0: a step without a screenshot
    bool aborted, update, asExpected;
    const char* status;
  } cases[] = {
      {"Saved difference", true, 5, false, true, false, "Unresolved"},
      {"New not saved", false, 1, false, false, true, "Unresolved"},
      {"No screenshot", false, 0, false, true, false, "Failed"},
      {"Aborted", false, 1, true, true, true, "Unresolved"},
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
    expectFields(results, {{"/isAborted", c.aborted}, {"/status", c.status}});
    // A difference from the baseline links its diff image.
    EXPECT_EQ(results.contains(Json::json_pointer("/stepsInfo/0/apiUrls/diffImage")), c.baseline);
    const std::string next = start(startInfo(c.test), c.baseline ? 200 : 201);
    if (c.baseline) {
      EXPECT_TRUE(check(next, screen(c.word), "step"));
    }
  }
}

// Each step is judged by the level and regions of its own settings, as read from their JSON,
// and the results count each level's matches. The text line changes in screen(2), the button
// colour in kBlue; the floating button may move down only.
TEST_F(ServerProtocol, MatchSettingsOfEachStepAreApplied) {
  saveBaseline(startInfo("Regions"), {screen(1)});
  const auto with = [](const std::string& level, const char* list, const char* region) {
    Json s = settings(level);
    s[list] = Json::array({Json::parse(region)});
    return s;
  };
  const char* line = R"({"left": 10, "top": 55, "width": 180, "height": 25})";
  const char* button = R"({"left": 30, "top": 110, "width": 140, "height": 56})";
  const char* floating = R"({"left": 36, "top": 116, "width": 128, "height": 44,
      "maxUpOffset": 0, "maxDownOffset": 10, "maxLeftOffset": 0, "maxRightOffset": 0})";
  const struct {
    Json settings;
    Image image;
    const char* counter;  // the count of the results that is 1
  } cases[] = {
      {settings("Content"), screen(2, kBlue), "mismatches"},
      {with("Content", "Ignore", line), screen(2, kBlue), "contentMatches"},
      {settings("Layout"), screen(2, kBlue), "layoutMatches"},
      {with("Layout", "Strict", button), screen(1, kBlue), "mismatches"},
      {with("Strict", "Content", button), screen(1, kBlue), "strictMatches"},
      {with("Strict", "Layout", line), screen(2), "strictMatches"},
      {with("Strict", "Floating", floating), screen(1, kRed, 126), "strictMatches"},
      {with("Strict", "Floating", floating), screen(1, kRed, 114), "mismatches"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.settings.dump());
    const std::string id = start(startInfo("Regions"), 200);
    const auto data = matchData(screenshot64(c.image), "s", false, c.settings);
    EXPECT_EQ(answer(matchWindow(id, data), 200)["asExpected"],
              std::string(c.counter) != "mismatches");
    EXPECT_EQ(stop(id, false)[c.counter], 1);
  }
}

TEST_F(ServerProtocol, AMissingStepLeavesTheTestUnresolved) {
  saveBaseline(startInfo("Search"), {screen(1), screen(2)});
  const std::string shorter = start(startInfo("Search"), 200);
  EXPECT_TRUE(check(shorter, screen(1), "one"));
  const Json results = stop(shorter, false);
  expectFields(results, {{"/name", "Search"},
                         {"/appName", "Shop"},
                         {"/hostOS", "iOS 17.2"},
                         {"/status", "Unresolved"},
                         {"/missing", 1},
                         {"/steps", 2},
                         {"/stepsInfo/1/hasBaselineImage", true},
                         {"/stepsInfo/1/hasCurrentImage", false}});
}

// Which baseline a start finds (0: none): its branch's, else the default branch's (as the
// client scenario shows); in the environment the client names, else the one it runs on.
TEST_F(ServerProtocol, AStartFindsTheBaselineOfItsBranchAndEnvironment) {
  saveBaseline(startInfo("Home"), {screen(1)});
  saveBaseline(startInfo("Home", "", "phones"), {screen(2)});
  const std::string feature = start(startInfo("Home", "feature"), 200);
  EXPECT_FALSE(check(feature, screen(4), "step"));
  stop(feature, true);
  const auto changed = [](Json info, const char* pointer, Json value) {
    info[Json::json_pointer(pointer)] = std::move(value);
    return info;
  };
  const std::pair<Json, unsigned> cases[] = {
      {startInfo("Home", "feature"), 4},
      {startInfo("Home"), 1},
      {startInfo("Home", "other"), 1},
      {changed(startInfo("Home", "", "phones"), "/environment/DeviceInfo", "Pixel 8"), 2},
      {changed(startInfo("Home"), "/environment/displaySize/width", 390), 0},
      {changed(startInfo("Home"), "/environment/OSInfo", "iOS 18"), 0},
  };
  for (const auto& [info, word] : cases) {
    SCOPED_TRACE(info.dump());
    const std::string id = start(info, word ? 200 : 201);
    if (word) {
      EXPECT_TRUE(check(id, screen(word), "step"));
    }
  }
}

}  // namespace
}  // namespace lumo::test
