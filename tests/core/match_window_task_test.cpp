#include "core/match_window_task.h"

#include <gtest/gtest.h>

#include <future>

#include "common/lumo_screenshot.h"
#include "connectivity/server_connector.h"
#include "core/app_output_with_screenshot.h"
#include "lumo/match_result.h"
#include "lumo/running_session.h"
#include "lumo/test_failed_exception.h"
#include "support/fast_wait_policy.h"
#include "support/log_capture.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

// Hands out a new screenshot for every capture, so the task's last screenshot tells which
// capture it came from.
class Provider : public AppOutputProviderProtocol {
 public:
  std::shared_ptr<AppOutputWithScreenshot> appOutputForRegion(
      const std::optional<Region>& /*region*/,
      const std::shared_ptr<LumoScreenshot>& lastSreenshot) override {
    given.push_back(lastSreenshot);
    shots.push_back(std::make_shared<LumoScreenshot>(std::make_shared<const Image>(1, 1)));
    return std::make_shared<AppOutputWithScreenshot>(AppOutput("title", "AAAA"), shots.back());
  }
  std::vector<std::shared_ptr<LumoScreenshot>> given;
  std::vector<std::shared_ptr<LumoScreenshot>> shots;
};

struct Case {
  const char* name;
  std::int64_t retryTimeout;  // as passed to the entry point; the default is 3
  bool runOnce;
  bool ignoreMismatch;
  int matchesFromPost;  // the server answers as expected from this post on (1-based)
  std::vector<std::int64_t> sleeps;
  std::vector<bool> ignoreFlagsSent;
  bool asExpected;
};

class MatchWindowTaskTest : public TestServerFixture {
 protected:
  void SetUp() override {
    TestServerFixture::SetUp();
    server_.setHandler([this](const RecordedRequest&) {
      const int post = ++posts_;
      return ScriptedResponse{200, Json{{"asExpected", post >= matchesFrom_}}.dump()};
    });
    task_ = MatchWindowTask::create(
        ServerConnector::connectorWithServerURL(server_.baseUrl(), "key"),
        std::make_shared<RunningSession>(Json{{"id", "s1"}}), 3, &provider_, policy_);
  }

  // The connector goes first, closing its kept-alive connections so the server stops at once.
  void TearDown() override {
    task_.reset();
    TestServerFixture::TearDown();
  }

  // One checkpoint; waits for the handler, which a single attempt calls on the worker thread.
  std::shared_ptr<MatchResult> check(const Case& c) {
    matchesFrom_ = c.matchesFromPost;
    std::promise<std::shared_ptr<MatchResult>> done;
    task_->matchWindow(
        std::nullopt, nullptr, "tag", c.runOnce, c.ignoreMismatch, settings_, c.retryTimeout,
        [&](std::shared_ptr<MatchResult> result, auto) { done.set_value(std::move(result)); });
    auto future = done.get_future();
    EXPECT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    return future.get();
  }

  std::vector<bool> ignoreFlagsSent() const {
    std::vector<bool> flags;
    for (const auto& request : server_.requests()) {
      flags.push_back(Json::parse(request.body)["options"]["ignoreMismatch"].get<bool>());
    }
    return flags;
  }

  std::atomic<int> posts_{0};
  std::atomic<int> matchesFrom_{1};
  std::shared_ptr<FastWaitPolicy> policy_ = std::make_shared<FastWaitPolicy>(0.3);
  std::shared_ptr<ImageMatchSettings> settings_ = std::make_shared<ImageMatchSettings>();
  Provider provider_;
  std::shared_ptr<MatchWindowTask> task_;
};

class MatchWindowTaskCases : public MatchWindowTaskTest,
                             public ::testing::WithParamInterface<Case> {};

// Rounds force ignoreMismatch on the wire; only the single or last attempt sends the caller's.
// A never-matching server gives in at post 9, so a loop that stops counting time still ends.
INSTANTIATE_TEST_SUITE_P(
    Rounds, MatchWindowTaskCases,
    ::testing::Values(
        Case{"NoTimeoutOneAttemptNoSleep", 0, false, false, 9, {}, {false}, false},
        Case{"RunOnceSleepsTheTimeoutFirst", 5, true, true, 9, {5}, {true}, false},
        Case{"MatchInTheSecondRound", 5, false, false, 2, {1, 1}, {true, true}, true},
        Case{"NegativeIsDefault", -1, false, false, 9, {1, 1, 1}, {true, true, true, false}, false},
        Case{"LastAttemptMatches", 2, false, true, 3, {1, 1}, {true, true, true}, true}),
    [](const auto& p) { return std::string(p.param.name); });

TEST_P(MatchWindowTaskCases, PostsSleepsAndFlags) {
  const Case& c = GetParam();
  LogCapture log;
  auto result = check(c);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->asExpected(), c.asExpected);
  EXPECT_EQ(policy_->sleeps(), c.sleeps);
  EXPECT_EQ(ignoreFlagsSent(), c.ignoreFlagsSent);
  const std::int64_t used = c.retryTimeout < 0 ? 3 : c.retryTimeout;
  EXPECT_EQ(log.lines().front(), "[BrixtelLumo] retryTimeout = " + std::to_string(used));
}

TEST_F(MatchWindowTaskTest, RoundsLogTheSecondsSpentWithoutTheTag) {
  LogCapture log;
  check({"", 3, false, false, 9, {}, {}, false});
  std::vector<std::string> untagged = log.lines();
  std::erase_if(untagged,
                [](const std::string& line) { return line.starts_with("[BrixtelLumo]"); });
  EXPECT_EQ(untagged, (std::vector<std::string>{"Retry timeout seconds left = 1",
                                                "Retry timeout seconds left = 2",
                                                "Retry timeout seconds left = 3"}));
}

// The last screenshot moves on only when the mismatch is not ignored; the provider is always
// given the task's own, not the caller's.
TEST_F(MatchWindowTaskTest, IgnoredMismatchKeepsTheLastScreenshot) {
  check({"", 0, false, false, 9, {}, {}, false});
  ASSERT_EQ(task_->lastScreenshot(), provider_.shots.at(0));
  check({"", 0, false, true, 9, {}, {}, false});
  EXPECT_EQ(task_->lastScreenshot(), provider_.shots.at(0));
  EXPECT_EQ(provider_.given.at(1), provider_.shots.at(0));
  check({"", 1, false, true, 9, {}, {}, false});
  EXPECT_EQ(task_->lastScreenshot(), provider_.shots.at(0)) << "retry path";
  check({"", 1, false, false, 9, {}, {}, false});
  EXPECT_EQ(task_->lastScreenshot(), provider_.shots.back());
}

// A silent server ends the call with the time-out exception, in a round or in the last attempt.
TEST_F(MatchWindowTaskTest, SilentServerTimesOutInARoundAndInTheLastAttempt) {
  for (const std::int64_t retryTimeout : {3, 1}) {
    SCOPED_TRACE(retryTimeout);
    const std::size_t before = server_.requests().size();
    // Round one mismatches at once; whatever comes next is late.
    if (retryTimeout == 1) {
      server_.enqueue({200, R"({"asExpected":false})"});
    }
    server_.enqueue({.status = 200, .body = "{}", .delay = std::chrono::milliseconds(600)});
    try {
      task_->matchWindow(std::nullopt, nullptr, "tag", false, false, settings_, retryTimeout, {});
      ADD_FAILURE() << "no time-out";
    } catch (const TestFailedException& e) {
      EXPECT_EQ(e.reason(), "--- Time-out exception");
    }
    EXPECT_EQ(server_.requests().size() - before, retryTimeout == 1 ? 2u : 1u);
  }
}

}  // namespace
}  // namespace lumo::test
