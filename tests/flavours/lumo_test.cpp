#include "lumo/lumo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "lumo/detail/json.h"
#include "lumo/diffs_found_exception.h"
#include "lumo/lumo_exception.h"
#include "lumo/match_result.h"
#include "lumo/new_test_exception.h"
#include "lumo/test_failed_exception.h"
#include "platform/base64.h"
#include "platform/png.h"
#include "support/fast_wait_policy.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/test_images.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

ImagePtr screen(int width, int height) {
  return std::make_shared<const Image>(positionScreen(width, height));
}

Json resultsWith(const std::string& status, bool isNew) {
  return Json{{"status", status},
              {"isNew", isNew},
              {"apiUrls", {{"session", "http://results/s1"}}},
              {"appUrls", Json::object()}};
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

const std::string kStartPath = "/api/sessions/running.json";

// Drives a whole visual test through `Lumo` against a loopback server that speaks the
// protocol from a script: 201 or 200 at start, scripted match answers, scripted results.
class LumoTest : public TestServerFixture {
 protected:
  void SetUp() override {
    TestServerFixture::SetUp();
    server_.setHandler([this](const RecordedRequest& request) { return answer(request); });
    lumo_ = controller(source_);
  }

  // The controller goes first: its client closes the kept-alive connections, so the server
  // stops at once instead of waiting for them to time out.
  void TearDown() override {
    lumo_.reset();
    TestServerFixture::TearDown();
  }

  std::unique_ptr<Lumo> controller(std::shared_ptr<ScreenshotSource> source,
                                   std::shared_ptr<FastWaitPolicy> policy = nullptr) {
    auto lumo = std::make_unique<Lumo>(server_.baseUrl(), std::move(source));
    lumo->setApiKey("key");
    lumo->setWaitPolicy(policy ? policy : policy_);
    return lumo;
  }

  void openAndCheck(Lumo& lumo) {
    lumo.open("Shop", "Login", {100, 200});
    lumo.check("home");
  }

  ScriptedResponse answer(const RecordedRequest& request) {
    std::lock_guard lock(mutex_);
    if (request.method == "POST" && request.path == kStartPath) {
      return {newSession_ ? 201 : 200, R"({"id":"s1","url":"http://results/s1"})"};
    }
    if (request.method == "POST") {
      return {200, Json{{"asExpected", matches_}}.dump()};
    }
    return {.status = 200, .body = results_.dump(), .delay = stopDelay_};
  }

  // `matches` answers every match post.
  void script(bool newSession, Json results, bool matches = true) {
    std::lock_guard lock(mutex_);
    newSession_ = newSession;
    matches_ = matches;
    results_ = std::move(results);
  }

  // The requests of one method; POSTs split into session starts and match posts.
  std::vector<RecordedRequest> sent(const std::string& method, bool starts = false) const {
    std::vector<RecordedRequest> found;
    for (auto& request : server_.requests()) {
      if (request.method == method && (request.path == kStartPath) == starts) {
        found.push_back(request);
      }
    }
    return found;
  }

  std::mutex mutex_;
  bool newSession_ = false;
  bool matches_ = true;
  Json results_ = resultsWith("Passed", false);
  std::chrono::milliseconds stopDelay_{0};

  std::shared_ptr<FastWaitPolicy> policy_ = std::make_shared<FastWaitPolicy>();
  std::shared_ptr<MemoryScreenshotSource> source_ =
      std::make_shared<MemoryScreenshotSource>(std::vector<ImagePtr>{screen(100, 200)});
  std::unique_ptr<Lumo> lumo_;
};

TEST_F(LumoTest, NewTestRunsOnceAndEndsAsNewTestException) {
  script(true, resultsWith("Unresolved", true));
  LogCapture log;
  lumo_->open("Shop", "Login", {100, 200});
  const auto result = lumo_->check("home", CheckSettings().timeoutInSeconds(2));
  ASSERT_TRUE(result && result->asExpected());
  // A new session makes one attempt after sleeping the match timeout.
  EXPECT_EQ(policy_->sleeps(), std::vector<std::int64_t>{2});
  EXPECT_EQ(sent("POST").size(), 1u);
  EXPECT_THROW(lumo_->close(nullptr), NewTestException);
  EXPECT_TRUE(contains(log.lines(), "[BrixtelLumo] --- New test started - 'Login' of 'Shop' " +
                                        lumo_->appEnvironment()->description()));
  EXPECT_TRUE(contains(log.lines(),
                       "[BrixtelLumo] --- New test ended. Please approve the new baseline at "
                       "http://results/s1"));
  EXPECT_FALSE(lumo_->isOpen() || lumo_->runningSession());
}

// What the controller puts into the start record: a branch property beats its environment
// variable and an empty one falls back to it.
TEST_F(LumoTest, StartRecordTakesConfigurationThenEnvironment) {
  ScopedEnv branch("BRIXTEL_BRANCH", "env-branch");
  ScopedEnv parent("BRIXTEL_PARENT_BRANCH", "env-parent");
  ScopedEnv baseline("BRIXTEL_BASELINE_BRANCH", nullptr);
  lumo_->setBranchName("feature");
  lumo_->setParentBranchName("");
  lumo_->setSaveDiffs(true);
  lumo_->addProperty("team", "checkout");
  LogCapture log;
  openAndCheck(*lumo_);
  Json start = Json::parse(sent("POST", true).at(0).body)["startInfo"];
  EXPECT_EQ(start["environment"]["displaySize"], Json::parse(R"({"width":100,"height":200})"));
  for (const char* key : {"batchInfo", "environment", "defaultMatchSettings", "agentId"}) {
    start.erase(key);
  }
  // The parent is there because the environment gave one; it carries the branch name on purpose.
  EXPECT_EQ(start, Json::parse(R"({"appIdOrName":"Shop","scenarioIdOrName":"Login",
      "saveDiffs":true,"properties":[{"name":"team","value":"checkout"}],
      "branchName":"feature","parentBranchName":"feature"})"));
  for (const std::string& line :
       {std::string("No running session, calling start session.."), std::string("No batch set"),
        std::string("Starting server session..."),
        "--- Test started - 'Login' of 'Shop' " + lumo_->appEnvironment()->description(),
        std::string("Calling match window..."), std::string("Done!")}) {
    EXPECT_TRUE(contains(log.lines(), "[BrixtelLumo] " + line)) << line;
  }
}

// A new session saves by saveNewTests, any other by saveFailedTests; both set against their
// defaults here.
TEST_F(LumoTest, SaveFlagsDecideUpdateBaseline) {
  lumo_->setSaveNewTests(false);
  lumo_->setSaveFailedTests(true);
  for (const bool newSession : {true, false}) {
    script(newSession, resultsWith("Passed", false));
    openAndCheck(*lumo_);
    LogCapture log;
    lumo_->close(nullptr);
    EXPECT_EQ(sent("DELETE").back().query,
              std::string("apiKey=key&aborted=0&updateBaseline=") + (newSession ? "0" : "1"));
    EXPECT_TRUE(contains(log.lines(), std::string("[BrixtelLumo] Automatically save test? ") +
                                          (newSession ? "NO" : "YES")));
  }
}

// The verdicts of an existing baseline that no other test judges through the controller:
// differences raised, a failure written into the error slot when not throwing.
TEST_F(LumoTest, DifferencesRaiseAndAFailureFillsTheErrorWhenNotThrowing) {
  script(false, resultsWith("Unresolved", false));
  openAndCheck(*lumo_);
  try {
    lumo_->close(nullptr);
    ADD_FAILURE() << "differences must raise";
  } catch (const DiffsFoundException& e) {
    EXPECT_EQ(e.reason(),
              "Test Login of Shop detected differences! See details at: http://results/s1");
    EXPECT_EQ(e.testResults(), lumo_->testResult());
  }
  script(false, resultsWith("Failed", false));
  openAndCheck(*lumo_);
  Error error;
  const auto returned = lumo_->closeWithThrow(false, &error);
  EXPECT_EQ(returned, lumo_->testResult());
  EXPECT_EQ(error.localizedDescription(), "Login of Shop. See details at http://results/s1");
}

// The rounds themselves are the task's; the controller logs the mismatch and runs later checks
// once, sleeping their timeout first.
TEST_F(LumoTest, MismatchOnAnExistingBaselineMakesLaterChecksRunOnce) {
  script(false, resultsWith("Unresolved", false), false);
  LogCapture log;
  lumo_->open("Shop", "Login", {100, 200});
  EXPECT_FALSE(lumo_->check("home", CheckSettings().timeoutInSeconds(3))->asExpected());
  EXPECT_TRUE(contains(log.lines(), "[BrixtelLumo] Mismatch! (home)"));
  lumo_->check("second", CheckSettings().timeoutInSeconds(3));
  EXPECT_EQ(policy_->sleeps(), (std::vector<std::int64_t>{1, 1, 1, 3}));
  EXPECT_EQ(sent("POST").size(), 5u) << "three rounds and the last attempt, then one attempt";
}

// What each source sends: the source's own PNG bytes while nothing changed the pixels, else the
// cut or the region (which beats the cut) encoded again; regions move up by the status bar
// once. The file is compressed otherwise than the encoder would, so bytes sent as they are can
// be told from bytes encoded again.
TEST_F(LumoTest, SourcePngIsSentAsItIsUnlessACropOrScaleChangesThePixels) {
  const std::vector<std::uint8_t> file = encodePng(*screen(100, 200), PngCompression::Fast);
  ASSERT_NE(file, encodePng(*screen(100, 200)));
  const auto path = std::filesystem::temp_directory_path() /
                    ("lumo-source-" + std::to_string(server_.port()) + ".png");
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
  struct Case {
    std::shared_ptr<ScreenshotSource> source;
    double scale;
    double statusBar;  // points, cut off
    Region region;
    bool asItIs;
    int height, top;  // of the image sent; `top`: the screen row it starts at
  };
  const Case cases[] = {
      {std::make_shared<PngFileScreenshotSource>(std::vector{path}), 1, 0, Region(), true, 200, 0},
      {std::make_shared<CommandScreenshotSource>("cat '" + path.string() + "'"), 1, 20, Region(),
       false, 180, 20},
      {source_, 2, 10, Region(10, 10, 20, 20), false, 20, 20},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    c.source->setScaleRatio(c.scale);
    c.source->setStatusBarHeight(c.statusBar);
    auto lumo = controller(c.source);
    lumo->setShouldCropStatusBar(true);
    lumo->open("Shop", "Login", {100 / c.scale, 200 / c.scale});
    lumo->checkRegion(c.region, "home", CheckSettings().ignore({Region(5, 100, 50, 60)}));
    lumo->close(nullptr);
    const auto body = Json::parse(sent("POST").back().body);
    const auto bytes = base64Decode(body["appOutput"]["screenshot64"].get<std::string>());
    EXPECT_EQ(bytes == file, c.asItIs);
    EXPECT_EQ(body["options"]["imageMatchSettings"]["Ignore"][0]["top"], 100 - c.statusBar);
    const Image image = decodePng(bytes);
    EXPECT_EQ(image.height(), c.height);
    // Green is the screen row; at scale 2 two rows are averaged into one point.
    EXPECT_NEAR(image.row(0)[1], c.top, 1);
  }
  std::filesystem::remove(path);
}

// A second open aborts the running test, whose reply clears the session, and fails. The abort's
// DELETE goes out, and its late reply is harmless, even when the controller goes right after it.
TEST_F(LumoTest, AbortsStopTheSessionEvenWhenTheControllerGoesRightAfter) {
  openAndCheck(*lumo_);
  LogCapture log;
  EXPECT_THROW(lumo_->open("Shop", "Login", {100, 200}), LumoException);
  for (int i = 0; i < 500 && lumo_->runningSession(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_FALSE(lumo_->runningSession());
  EXPECT_TRUE(contains(log.lines(), "[BrixtelLumo] --- Test aborted."));
  EXPECT_EQ(sent("DELETE").at(0).query, "apiKey=key&aborted=1&updateBaseline=0");

  openAndCheck(*lumo_);  // the abort left the controller closed
  stopDelay_ = std::chrono::milliseconds(100);
  lumo_->abortIfNotClosed();
  lumo_.reset();
  EXPECT_EQ(sent("DELETE").size(), 2u);
}

// A stop answered after its wait gave up ends in the time-out exception; the late answer still
// clears the session, so the next test starts its own.
TEST_F(LumoTest, ALateStopTimesOutAndStillClearsTheSession) {
  lumo_ = controller(source_, std::make_shared<FastWaitPolicy>(0.2));
  openAndCheck(*lumo_);
  server_.hold();
  try {
    lumo_->close(nullptr);
    ADD_FAILURE() << "the held answer must time out";
  } catch (const TestFailedException& e) {
    EXPECT_EQ(e.reason(), "--- Time-out exception");
  }
  EXPECT_TRUE(lumo_->runningSession()) << "nothing has answered yet";
  server_.release();
  for (int i = 0; i < 1000 && lumo_->runningSession(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_FALSE(lumo_->runningSession());
  openAndCheck(*lumo_);
  EXPECT_EQ(sent("POST", true).size(), 2u);
  lumo_->close(nullptr);
}

// A session start answered after the check gave up on it still becomes the test's session:
// the next check starts no second one on the server.
TEST_F(LumoTest, ALateStartIsStillTheTestsSession) {
  lumo_ = controller(source_, std::make_shared<FastWaitPolicy>(0.2));
  lumo_->open("Shop", "Login", {100, 200});
  server_.hold();
  EXPECT_THROW(lumo_->check("home"), TestFailedException);
  server_.release();
  for (int i = 0; i < 1000 && !lumo_->runningSession(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  lumo_->setWaitPolicy(policy_);
  if (!lumo_->isOpen()) {
    lumo_->open("Shop", "Login", {100, 200});
  }
  EXPECT_TRUE(lumo_->check("next"));
  EXPECT_EQ(sent("POST", true).size(), 1u);
}

// A refused start closes the test; the check still says it calls the match window, then fails
// at once rather than waiting out a bound nothing can answer.
TEST(LumoUnreachable, RefusedSessionStartClosesTheTestAndTheCheckFailsAtOnce) {
  RefusingPort refusing;
  Lumo lumo(refusing.baseUrl(),
            std::make_shared<MemoryScreenshotSource>(std::vector<ImagePtr>{screen(10, 10)}));
  lumo.setApiKey("key");
  lumo.setWaitPolicy(std::make_shared<FastWaitPolicy>(30));
  LogCapture log;
  lumo.open("Shop", "Login", {10, 10});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THROW(lumo.check("home"), TestFailedException);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_FALSE(lumo.isOpen());
  const auto lines = log.lines();
  const auto at = [&](const std::string& line) { return std::ranges::find(lines, line); };
  EXPECT_NE(at("[BrixtelLumo] Failed to start session: " +
               lumo.sessionStartError().value().localizedDescription()),
            lines.end());
  EXPECT_LT(at("[BrixtelLumo] --- Empty test ended."), at("[BrixtelLumo] Calling match window..."))
      << "the test is closed before the check goes on";
  EXPECT_NE(at("[BrixtelLumo] Calling match window..."), lines.end());
}

}  // namespace
}  // namespace lumo::test
