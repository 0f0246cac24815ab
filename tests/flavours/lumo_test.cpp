#include "lumo/lumo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "connectivity/server_connector.h"
#include "core/fluent/region_provider_protocol.h"
#include "lumo/detail/json.h"
#include "lumo/lumo_exception.h"
#include "lumo/match_result.h"
#include "lumo/new_test_exception.h"
#include "lumo/running_session.h"
#include "lumo/test_failed_exception.h"
#include "lumo/test_results.h"
#include "platform/base64.h"
#include "platform/png.h"
#include "support/fast_wait_policy.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

// A screen whose pixels encode their position (red x, green y), so crops show on the wire.
ImagePtr screen(int width, int height) {
  Image image(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = static_cast<std::uint8_t>(x);
      p[1] = static_cast<std::uint8_t>(y);
      p[2] = 0x80;
      p[3] = 0xff;
    }
  }
  return std::make_shared<const Image>(std::move(image));
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
    auto lumo = std::make_unique<Lumo>(server_.baseURL(), std::move(source));
    lumo->setApiKey("key");
    lumo->setWaitPolicy(policy ? policy : policy_);
    return lumo;
  }

  void openAndCheck(Lumo& lumo, CheckSettings settings = {}) {
    lumo.open("Shop", "Login", {100, 200});
    lumo.check("home", settings);
  }

  ScriptedResponse answer(const RecordedRequest& request) {
    std::lock_guard lock(mutex_);
    if (request.method == "POST" && request.path == kStartPath) {
      return {newSession_ ? 201 : 200, R"({"id":"s1","url":"http://results/s1"})"};
    }
    if (request.method == "POST") {
      const bool asExpected = matchAnswers_.empty() ? defaultMatch_ : matchAnswers_.front();
      if (!matchAnswers_.empty()) {
        matchAnswers_.pop_front();
      }
      return {200, Json{{"asExpected", asExpected}}.dump()};
    }
    return {.status = 200, .body = results_.dump(), .delay = stopDelay_};
  }

  void script(bool newSession, std::deque<bool> matchAnswers, bool defaultMatch, Json results) {
    std::lock_guard lock(mutex_);
    newSession_ = newSession;
    matchAnswers_ = std::move(matchAnswers);
    defaultMatch_ = defaultMatch;
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
  std::deque<bool> matchAnswers_;
  bool defaultMatch_ = true;
  Json results_ = resultsWith("Passed", false);
  std::chrono::milliseconds stopDelay_{0};

  std::shared_ptr<FastWaitPolicy> policy_ = std::make_shared<FastWaitPolicy>();
  std::shared_ptr<MemoryScreenshotSource> source_ =
      std::make_shared<MemoryScreenshotSource>(std::vector<ImagePtr>{screen(100, 200)});
  std::unique_ptr<Lumo> lumo_;
};

TEST_F(LumoTest, NewTestStartsWith201AndEndsAsNewTestException) {
  script(true, {}, true, resultsWith("Unresolved", true));
  LogCapture log;
  lumo_->open("Shop", "Login", {100, 200});
  const auto result = lumo_->check("home", CheckSettings().timeoutInSeconds(2));
  ASSERT_TRUE(result && result->asExpected());
  EXPECT_TRUE(lumo_->runningSession()->isNewSession());
  // A new session makes one attempt after sleeping the match timeout.
  EXPECT_EQ(policy_->sleeps(), std::vector<std::int64_t>{2});
  EXPECT_EQ(sent("POST").size(), 1u);

  EXPECT_THROW(lumo_->close(nullptr), NewTestException);
  const auto lines = log.lines();
  EXPECT_TRUE(contains(lines, "[BrixtelLumo] --- New test started - 'Login' of 'Shop' " +
                                  lumo_->appEnvironment()->description()));
  EXPECT_TRUE(contains(lines,
                       "[BrixtelLumo] --- New test ended. Please approve the new baseline at "
                       "http://results/s1"));
  ASSERT_EQ(sent("DELETE").size(), 1u);
  EXPECT_EQ(sent("DELETE")[0].path, "/api/sessions/running/s1.json");
  EXPECT_FALSE(lumo_->isOpen() || lumo_->runningSession());
}

// What the controller puts into the start record: a branch property beats its environment
// variable and an empty one falls back to it; no batch gives a nameless one; properties go
// along in order.
TEST_F(LumoTest, StartRecordTakesConfigurationThenEnvironment) {
  ScopedEnv branch("BRIXTEL_BRANCH", "env-branch");
  ScopedEnv parent("BRIXTEL_PARENT_BRANCH", "env-parent");
  ScopedEnv baseline("BRIXTEL_BASELINE_BRANCH", nullptr);
  ScopedEnv batchId("BRIXTEL_BATCH_ID", nullptr);
  ScopedEnv batchName("BRIXTEL_BATCH_NAME", nullptr);
  lumo_->setBranchName("feature");
  lumo_->setParentBranchName("");
  lumo_->setSaveDiffs(true);
  lumo_->setBaselineEnvName("my phone");
  lumo_->addProperty("team", "checkout");
  lumo_->addProperty("team", "again");
  LogCapture log;
  openAndCheck(*lumo_);
  const Json start = Json::parse(sent("POST", true).at(0).body)["startInfo"];
  EXPECT_EQ(start["appIdOrName"], "Shop");
  EXPECT_EQ(start["scenarioIdOrName"], "Login");
  EXPECT_EQ(start["branchName"], "feature");
  // Present because the environment gave a parent; it carries the branch name on purpose.
  EXPECT_EQ(start["parentBranchName"], "feature");
  EXPECT_FALSE(start.contains("baselineBranchName"));
  EXPECT_EQ(start["baselineEnvName"], "myphone");
  EXPECT_EQ(start["saveDiffs"], true);
  EXPECT_FALSE(start["batchInfo"].contains("name"));
  EXPECT_FALSE(start["batchInfo"]["id"].get<std::string>().empty());
  EXPECT_EQ(start["properties"], Json::parse(R"([{"name":"team","value":"checkout"},
                                                 {"name":"team","value":"again"}])"));
  EXPECT_EQ(start["environment"]["displaySize"], Json::parse(R"({"width":100,"height":200})"));
  const auto lines = log.lines();
  for (const char* line : {"[BrixtelLumo] No running session, calling start session..",
                           "[BrixtelLumo] No batch set", "[BrixtelLumo] Starting server session...",
                           "[BrixtelLumo] Calling match window...", "[BrixtelLumo] Done!"}) {
    EXPECT_TRUE(contains(lines, line)) << line;
  }
  EXPECT_TRUE(std::ranges::any_of(lines, [](const std::string& line) {
    return line.starts_with("[BrixtelLumo] --- Test started - 'Login' of 'Shop' ");
  }));
  lumo_->close(nullptr);
}

// The save decision on the wire for each session kind and save flag.
TEST_F(LumoTest, SaveFlagsDecideUpdateBaseline) {
  struct Case {
    bool newSession, saveNewTests, saveFailedTests;
    const char* query;
  };
  for (const Case& c : {Case{true, true, false, "apiKey=key&aborted=0&updateBaseline=1"},
                        Case{true, false, false, "apiKey=key&aborted=0&updateBaseline=0"},
                        Case{false, true, true, "apiKey=key&aborted=0&updateBaseline=1"},
                        Case{false, true, false, "apiKey=key&aborted=0&updateBaseline=0"}}) {
    SCOPED_TRACE(c.query);
    script(c.newSession, {}, true, resultsWith("Passed", false));
    lumo_->setSaveNewTests(c.saveNewTests);
    lumo_->setSaveFailedTests(c.saveFailedTests);
    openAndCheck(*lumo_);
    LogCapture log;
    lumo_->close(nullptr);
    EXPECT_EQ(sent("DELETE").back().query, c.query);
    const bool saved = std::string(c.query).ends_with("1");
    EXPECT_TRUE(contains(log.lines(), std::string("[BrixtelLumo] Automatically save test? ") +
                                          (saved ? "YES" : "NO")));
  }
}

TEST_F(LumoTest, EachVerdictAsErrorOrException) {
  struct Case {
    std::string status;
    bool isNew;
    std::string description;  // empty: passes
  };
  const std::vector<Case> cases = {
      {"Passed", false, ""},
      {"Unresolved", true, "Login of Shop. Please approve the new baseline at http://results/s1"},
      {"Unresolved", false,
       "Test Login of Shop detected differences! See details at: http://results/s1"},
      {"Failed", false, "Login of Shop. See details at http://results/s1"},
  };
  for (const auto& c : cases) {
    for (bool throwing : {true, false}) {
      SCOPED_TRACE(c.status + (c.isNew ? " new" : "") + (throwing ? " throwing" : ""));
      script(false, {}, true, resultsWith(c.status, c.isNew));
      openAndCheck(*lumo_);
      Error error;
      std::shared_ptr<TestResults> results;
      std::string thrown;
      try {
        results = lumo_->closeWithThrow(throwing, &error);
      } catch (const TestFailedException& e) {
        thrown = e.reason();
        EXPECT_EQ(e.testResults(), lumo_->testResult()) << "the exception carries the results";
      }
      EXPECT_EQ(thrown, throwing ? c.description : "");
      EXPECT_EQ(error.localizedDescription(), throwing ? "" : c.description);
      if (c.description.empty()) {
        ASSERT_TRUE(results);
        EXPECT_TRUE(results->isPassed());
      } else if (!throwing) {
        EXPECT_EQ(error.domain(), "com.brixtel.lumo");
        EXPECT_EQ(error.code(), 1);
        EXPECT_EQ(results, lumo_->testResult());
      }
    }
  }
}

// The rounds themselves are the task's; the controller logs the mismatch and runs later checks
// once.
TEST_F(LumoTest, MismatchOnAnExistingBaselineMakesLaterChecksRunOnce) {
  script(false, {}, false, resultsWith("Unresolved", false));
  LogCapture log;
  lumo_->open("Shop", "Login", {100, 200});
  const auto result = lumo_->check("home", CheckSettings().timeoutInSeconds(3));
  ASSERT_TRUE(result);
  EXPECT_FALSE(result->asExpected());
  EXPECT_EQ(sent("POST").size(), 4u) << "three rounds and the last attempt";
  EXPECT_EQ(policy_->sleeps(), (std::vector<std::int64_t>{1, 1, 1}));
  EXPECT_TRUE(contains(log.lines(), "[BrixtelLumo] Mismatch! (home)"));
  EXPECT_TRUE(lumo_->shouldMatchWindowRunOnceOnTimeout());

  // After a mismatch the next check sleeps its timeout once and makes a single attempt.
  lumo_->check("second", CheckSettings().timeoutInSeconds(3).ignoreCaret());
  EXPECT_EQ(sent("POST").size(), 5u);
  EXPECT_EQ(policy_->sleeps(), (std::vector<std::int64_t>{1, 1, 1, 3}));
  EXPECT_THROW(lumo_->close(nullptr), TestFailedException);
}

// Regions are read when the check runs (a shared region changed after the settings were built
// is sent as it is then), shifted up by the status bar once, and the cut screen is sent.
TEST_F(LumoTest, CheckSettingsBecomeTheImageMatchSettingsWithTheStatusBarShift) {
  source_->setStatusBarHeight(20);
  lumo_->setShouldCropStatusBar(true);
  lumo_->setMatchLevel(MatchLevelLayout);
  auto moving = std::make_shared<Region>(1, 2, 3, 4);
  const CheckSettings settings = CheckSettings()
                                     .ignore({Region(5, 100, 50, 60)})
                                     .strict(moving)
                                     .floating(Region(0, 30, 10, 10), 1, 2, 3, 4)
                                     .ignoreCaret();
  *moving = Region(10, 40, 30, 40);
  lumo_->open("Shop", "Login", {100, 200});
  lumo_->check(std::string(), settings);
  const auto body = Json::parse(sent("POST").at(0).body);
  EXPECT_EQ(body["tag"], "");
  EXPECT_EQ(body["options"]["name"], "");
  const auto& match = body["options"]["imageMatchSettings"];
  EXPECT_EQ(match["matchLevel"], "Layout") << "None on the check takes the default";
  EXPECT_EQ(match["ignoreCaret"], true);
  EXPECT_EQ(match["Ignore"], Json::parse(R"([{"left":5,"top":80,"width":50,"height":60}])"));
  EXPECT_EQ(match["Strict"], Json::parse(R"([{"left":10,"top":20,"width":30,"height":40}])"));
  EXPECT_EQ(match["Floating"], Json::parse(R"([{"left":0,"top":10,"width":10,"height":10,
      "maxUpOffset":1,"maxDownOffset":2,"maxLeftOffset":4,"maxRightOffset":3}])"));
  EXPECT_EQ(match["Layout"], Json::array());
  // Base64 travels in lines of 64 characters joined by CR LF.
  const std::string text = body["appOutput"]["screenshot64"].get<std::string>();
  for (std::size_t at = 64; at < text.size(); at += 66) {
    ASSERT_EQ(text.substr(at, 2), "\r\n") << "at " << at;
  }
  EXPECT_EQ(body["appOutput"]["title"], "Base title");
  lumo_->close(nullptr);
}

// A PNG of `image` that the encoder would not write: a text chunk before IEND. Bytes sent as
// they are can thus be told from bytes encoded again.
std::vector<std::uint8_t> foreignPng(const Image& image) {
  std::vector<std::uint8_t> png = encodePng(image);
  const std::string text("tEXtSource\0camera", 17);
  std::vector<std::uint8_t> chunk = {0, 0, 0, static_cast<std::uint8_t>(text.size() - 4)};
  chunk.insert(chunk.end(), text.begin(), text.end());
  std::uint32_t crc = 0xffffffff;
  for (std::size_t i = 4; i < chunk.size(); ++i) {
    crc ^= chunk[i];
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) ? 0xedb88320 ^ (crc >> 1) : crc >> 1;
    }
  }
  for (int shift = 24; shift >= 0; shift -= 8) {
    chunk.push_back(static_cast<std::uint8_t>(~crc >> shift));
  }
  png.insert(png.end() - 12, chunk.begin(), chunk.end());
  return png;
}

// What each source sends: the source's own PNG bytes while nothing changed the pixels, else a
// crop in points (a region beats the status-bar cut) encoded again.
TEST_F(LumoTest, SourcePngIsSentAsItIsUnlessACropOrScaleChangesThePixels) {
  const std::vector<std::uint8_t> file = foreignPng(*screen(100, 200));
  const auto path = std::filesystem::temp_directory_path() /
                    ("lumo-source-" + std::to_string(server_.port()) + ".png");
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
  enum class Kind { File, Command, Memory };
  struct Case {
    const char* name;
    Kind kind;
    double scale;
    double statusBar;  // points
    bool cut;
    std::optional<Region> region;
    bool asItIs;
    int width, height, top;  // of the image sent; `top`: the screen row it starts at
  };
  const Case cases[] = {
      {"file, whole screen", Kind::File, 1, 0, false, std::nullopt, true, 100, 200, 0},
      {"command, whole screen", Kind::Command, 1, 0, false, std::nullopt, true, 100, 200, 0},
      {"status bar of no height", Kind::File, 1, 0, true, std::nullopt, true, 100, 200, 0},
      {"status-bar cut", Kind::File, 1, 20, true, std::nullopt, false, 100, 180, 20},
      {"region", Kind::File, 1, 0, false, Region(0, 0, 50, 50), false, 50, 50, 0},
      {"scale 2", Kind::Command, 2, 0, false, std::nullopt, false, 50, 100, 0},
      {"region at scale 2", Kind::Memory, 2, 10, true, Region(10, 10, 20, 20), false, 20, 20, 20},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::shared_ptr<ScreenshotSource> source;
    if (c.kind == Kind::Command) {
      source = std::make_shared<CommandScreenshotSource>("cat '" + path.string() + "'");
    } else if (c.kind == Kind::File) {
      source = std::make_shared<PngFileScreenshotSource>(std::vector{path});
    } else {
      source = std::make_shared<MemoryScreenshotSource>(std::vector<ImagePtr>{screen(100, 200)});
    }
    source->setScaleRatio(c.scale);
    source->setStatusBarHeight(c.statusBar);
    auto lumo = controller(source);
    lumo->setShouldCropStatusBar(c.cut);
    lumo->open("Shop", "Login", {100 / c.scale, 200 / c.scale});
    if (c.region) {
      lumo->checkRegion(*c.region, "home");
    } else {
      lumo->check("home");
    }
    lumo->close(nullptr);
    const auto body = Json::parse(sent("POST").back().body);
    const auto bytes = base64Decode(body["appOutput"]["screenshot64"].get<std::string>());
    EXPECT_EQ(bytes == file, c.asItIs);
    const Image image = decodePng(bytes);
    EXPECT_EQ(image.width(), c.width);
    EXPECT_EQ(image.height(), c.height);
    // Green is the screen row; at scale 2 two rows are averaged into one point.
    EXPECT_NEAR(image.row(0)[1], c.top, 1);
    EXPECT_NEAR(image.row(c.height - 1)[1], c.top + (c.height - 1) * c.scale, 1);
  }
  std::filesystem::remove(path);
}

TEST_F(LumoTest, ClosingTwiceEndsAnEmptyTest) {
  openAndCheck(*lumo_);
  lumo_->close(nullptr);
  LogCapture log;
  const auto results = lumo_->close(nullptr);
  ASSERT_TRUE(results);
  EXPECT_TRUE(results->isPassed());
  EXPECT_TRUE(contains(log.lines(), "[BrixtelLumo] --- Empty test ended."));
  EXPECT_EQ(sent("DELETE").size(), 1u);
}

TEST_F(LumoTest, OpeningTwiceAbortsTheRunningTestAndFails) {
  openAndCheck(*lumo_);
  LogCapture log;
  try {
    lumo_->open("Shop", "Login", {100, 200});
    FAIL() << "a second open must throw";
  } catch (const LumoException& e) {
    EXPECT_EQ(e.reason(), "A test is already running");
  }
  ASSERT_TRUE(server_.waitForRequests(3, std::chrono::seconds(5)));
  ASSERT_EQ(sent("DELETE").size(), 1u);
  EXPECT_EQ(sent("DELETE")[0].query, "apiKey=key&aborted=1&updateBaseline=0");
  // The abort's reply clears the session on the worker thread.
  for (int i = 0; i < 500 && lumo_->runningSession(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_FALSE(lumo_->runningSession());
  EXPECT_TRUE(contains(log.lines(), "[BrixtelLumo] --- Test aborted."));
  lumo_->open("Shop", "Login", {100, 200});  // the abort left the controller closed
}

// An answer that comes after its wait gave up is still stored, as if it had come in time.
TEST_F(LumoTest, LateAnswersAreStoredAfterTheTimeOut) {
  const auto openOnly = [](Lumo& lumo) { lumo.open("Shop", "Login", {100, 200}); };
  const auto thenMismatch = [this](Lumo& lumo) {
    openAndCheck(lumo);
    script(false, {false}, true, resultsWith("Passed", false));  // the held answer mismatches
  };
  const auto runsOnce = [](Lumo& lumo) { return lumo.shouldMatchWindowRunOnceOnTimeout(); };
  struct Case {
    const char* name;
    std::function<void(Lumo&)> prepare;   // runs before the server holds its answers
    std::function<void(Lumo&)> timesOut;  // must end in the time-out exception
    std::function<bool(Lumo&)> settled;   // true once the late answer is in
    std::size_t starts;                   // session starts from the held call to the next check
  };
  const std::vector<Case> cases = {
      {"a late start is the test's session", openOnly, [](Lumo& lumo) { lumo.check("home"); },
       [](Lumo& lumo) { return lumo.runningSession() != nullptr; }, 1},
      {"a late single attempt's mismatch makes later checks run once", thenMismatch,
       [](Lumo& lumo) { lumo.check("late", CheckSettings().timeoutInSeconds(0)); }, runsOnce, 0},
      {"a late retry round's mismatch makes later checks run once", thenMismatch,
       [](Lumo& lumo) { lumo.check("late", CheckSettings().timeoutInSeconds(3)); }, runsOnce, 0},
      {"a late stop clears the session, so the next test starts its own",
       [this](Lumo& lumo) { openAndCheck(lumo); }, [](Lumo& lumo) { lumo.close(nullptr); },
       [](Lumo& lumo) { return lumo.runningSession() == nullptr; }, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    script(false, {}, true, resultsWith("Passed", false));
    lumo_ = controller(source_, std::make_shared<FastWaitPolicy>(0.2));
    c.prepare(*lumo_);
    const auto startsBefore = sent("POST", true).size();
    server_.hold();
    try {
      c.timesOut(*lumo_);
      ADD_FAILURE() << "the held answer must time out";
    } catch (const TestFailedException& e) {
      EXPECT_EQ(e.reason(), "--- Time-out exception");
    }
    EXPECT_FALSE(c.settled(*lumo_)) << "nothing has answered yet";
    server_.release();
    for (int i = 0; i < 1000 && !c.settled(*lumo_); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(c.settled(*lumo_));
    lumo_->setWaitPolicy(policy_);
    if (!lumo_->isOpen()) {
      openOnly(*lumo_);
    }
    EXPECT_TRUE(lumo_->check("next"));
    EXPECT_EQ(sent("POST", true).size(), startsBefore + c.starts);
    lumo_->close(nullptr);
  }
}

// The DELETE of an abort goes out even when the controller is destroyed right after it; a
// server that never answers holds the destructor only for the client's grace.
TEST_F(LumoTest, DestroyingTheControllerRightAfterAnAbortStillStopsTheSession) {
  stopDelay_ = std::chrono::milliseconds(100);
  openAndCheck(*lumo_);
  lumo_->abortIfNotClosed();
  lumo_.reset();
  ASSERT_EQ(sent("DELETE").size(), 1u);

  lumo_ = controller(source_);
  openAndCheck(*lumo_);
  lumo_->serverConnector()->setShutdownGrace(std::chrono::milliseconds(100));
  server_.hold();
  lumo_->abortIfNotClosed();
  const auto start = std::chrono::steady_clock::now();
  lumo_.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  server_.release();
}

// Counts how often a check asks for its target region and its element's frame.
struct CountingProvider : RegionProviderProtocol, Element {
  std::shared_ptr<Region> getRegion() const override {
    ++regionCalls;
    return std::make_shared<Region>(1, 1, 5, 5);
  }
  Rect frame() const override {
    ++frameCalls;
    return Rect(0, 0, 2, 2);
  }
  mutable std::atomic<int> regionCalls{0}, frameCalls{0};
};

// A refused start closes the test; the check still builds its settings and says it calls the
// match window, then fails at once rather than waiting out a bound nothing can answer.
TEST(LumoUnreachable, RefusedSessionStartStillAsksTheProvidersThenFailsAtOnce) {
  RefusingPort refusing;
  Lumo lumo(refusing.baseURL(),
            std::make_shared<MemoryScreenshotSource>(std::vector<ImagePtr>{screen(10, 10)}));
  lumo.setApiKey("key");
  lumo.setWaitPolicy(std::make_shared<FastWaitPolicy>(30));
  LogCapture log;
  lumo.open("Shop", "Login", {10, 10});
  auto counting = std::make_shared<CountingProvider>();
  const CheckSettings settings = CheckSettings().ignore(std::shared_ptr<Element>(counting));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THROW(lumo.checkWindowBase(counting.get(), "home", false, &settings, {}),
               TestFailedException);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(counting->regionCalls, 1);
  EXPECT_EQ(counting->frameCalls, 1);
  EXPECT_FALSE(lumo.isOpen());
  ASSERT_TRUE(lumo.sessionStartError());
  const std::string failed =
      "[BrixtelLumo] Failed to start session: " + lumo.sessionStartError()->localizedDescription();
  EXPECT_NE(failed.find(refusing.baseURL() + kStartPath), std::string::npos) << failed;
  const auto lines = log.lines();
  const auto at = [&](const std::string& line) { return std::ranges::find(lines, line); };
  EXPECT_NE(at(failed), lines.end());
  EXPECT_LT(at("[BrixtelLumo] --- Empty test ended."), at("[BrixtelLumo] Calling match window..."))
      << "the test is closed before the check goes on";
  EXPECT_NE(at("[BrixtelLumo] Calling match window..."), lines.end());
}

}  // namespace
}  // namespace lumo::test
