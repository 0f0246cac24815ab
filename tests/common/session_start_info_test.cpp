#include "lumo/session_start_info.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "lumo/exception.h"
#include "lumo/internal_inconsistency_exception.h"
#include "lumo/running_session.h"

namespace lumo {
namespace {

using Opt = std::optional<std::string>;

class SessionStartInfoTest : public ::testing::Test {
 protected:
  void setUp(Opt branch, Opt parent, Opt baseline, Opt baselineEnv = std::nullopt) {
    info_.setupWithAgentId("agent/1", "Shop", "Login", std::move(baselineEnv), env_, batch_,
                           std::move(branch), std::move(parent), std::move(baseline), true,
                           settings_);
  }

  std::shared_ptr<AppEnvironment> env_ =
      std::make_shared<AppEnvironment>("Linux", std::nullopt, "pixel", Size{320, 568});
  std::shared_ptr<BatchInfo> batch_ =
      std::make_shared<BatchInfo>("nightly", std::chrono::system_clock::from_time_t(1795346513));
  std::shared_ptr<ImageMatchSettings> settings_ =
      std::make_shared<ImageMatchSettings>(MatchLevelLayout);
  SessionStartInfo info_;
};

TEST_F(SessionStartInfoTest, WritesTheEightKeysAndNestedRecords) {
  info_.addProperty(StartSessionProperty("team", "checkout"));
  info_.addProperty(StartSessionProperty("team", "again"));
  setUp(std::nullopt, std::nullopt, std::nullopt);
  const Json expected = {{"appIdOrName", "Shop"},
                         {"scenarioIdOrName", "Login"},
                         {"batchInfo", batch_->dictionary()},
                         {"environment", env_->dictionary()},
                         {"defaultMatchSettings", settings_->dictionary()},
                         {"agentId", "agent/1"},
                         {"saveDiffs", true},
                         {"properties", Json::parse(R"([{"name":"team","value":"checkout"},
                                                        {"name":"team","value":"again"}])")}};
  EXPECT_EQ(info_.dictionary(), expected);
}

// The branch keys: present when their own value is non-empty, each carrying the branch name;
// a parent or baseline branch without a branch name cannot be written.
TEST_F(SessionStartInfoTest, BranchKeysCarryTheBranchName) {
  struct Case {
    Opt branch, parent, baseline, baselineEnv;
    const char* keys;  // the written keys, or "throws"
  };
  for (const Case& c : {
           Case{"feature", "main", std::nullopt, "env",
                R"({"branchName":"feature","parentBranchName":"feature","baselineEnvName":"env"})"},
           Case{"feature", "", "release", "",
                R"({"branchName":"feature","baselineBranchName":"feature"})"},
           Case{"", "main", std::nullopt, std::nullopt, R"({"parentBranchName":""})"},
           Case{std::nullopt, "main", std::nullopt, std::nullopt, "throws"},
           Case{std::nullopt, std::nullopt, "base", std::nullopt, "throws"},
       }) {
    SCOPED_TRACE(c.keys);
    setUp(c.branch, c.parent, c.baseline, c.baselineEnv);
    if (std::string(c.keys) == "throws") {
      try {
        (void)info_.dictionary();
        ADD_FAILURE() << "wrote a start record without a branch name";
      } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "IllegalArgumentException");
        EXPECT_NE(e.reason().find("BranchName"), std::string::npos) << e.reason();
      }
      continue;
    }
    Json written = Json::object();
    for (const char* key :
         {"branchName", "parentBranchName", "baselineBranchName", "baselineEnvName"}) {
      if (info_.dictionary().contains(key)) {
        written[key] = info_.dictionary()[key];
      }
    }
    EXPECT_EQ(written, Json::parse(c.keys));
  }
}

TEST_F(SessionStartInfoTest, SetupChecksRequiredValuesInOrderAndKeepsOldValues) {
  setUp(std::nullopt, std::nullopt, std::nullopt);
  auto failing = [&](Opt agent, Opt app, Opt test, std::shared_ptr<AppEnvironment> env,
                     std::shared_ptr<BatchInfo> batch, std::shared_ptr<ImageMatchSettings> s) {
    try {
      info_.setupWithAgentId(agent, app, test, "x", env, batch, "b", "p", "q", false, s);
    } catch (const InternalInconsistencyException& e) {
      return e.reason();
    }
    return std::string("no failure");
  };
  EXPECT_EQ(failing(std::nullopt, std::nullopt, "t", env_, batch_, settings_), "agentId is nil");
  EXPECT_EQ(failing("a", std::nullopt, std::nullopt, env_, batch_, settings_), "appName is nil");
  EXPECT_EQ(failing("a", "b", std::nullopt, nullptr, batch_, settings_), "testName is nil");
  EXPECT_EQ(failing("a", "b", "c", nullptr, nullptr, settings_), "appEnv is nil");
  EXPECT_EQ(failing("a", "b", "c", env_, nullptr, nullptr), "batchInfo is nil");
  EXPECT_EQ(failing("a", "b", "c", env_, batch_, nullptr), "defaultMatchSettings is nil");
  EXPECT_EQ(info_.agentId(), "agent/1");
  EXPECT_EQ(info_.baselineEnvName(), std::nullopt);
  EXPECT_TRUE(info_.saveDiffs());
}

TEST_F(SessionStartInfoTest, NeverSetUpRecordCannotBeWritten) {
  EXPECT_THROW((void)info_.dictionary(), Exception);
}

TEST_F(SessionStartInfoTest, AddPropertyLeavesEarlierCopiesAlone) {
  info_.addProperty(StartSessionProperty("a", "1"));
  const std::vector<StartSessionProperty> before = info_.properties();
  info_.addProperty(StartSessionProperty("b", "2"));
  EXPECT_EQ(before.size(), 1u);
  EXPECT_EQ(info_.properties().back(), StartSessionProperty("b", "2"));
}

TEST_F(SessionStartInfoTest, SharesTheSettingsObjectItWasGiven) {
  setUp(std::nullopt, std::nullopt, std::nullopt);
  settings_->setMatchLevel(MatchLevelExact);
  EXPECT_EQ(info_.dictionary()["defaultMatchSettings"]["matchLevel"], "Exact");
}

TEST(RunningSession, ReadsIdAndUrlAndIgnoresTheRest) {
  const RunningSession session(Json::parse(R"({"id":"s1","url":"https://u","x":1})"));
  EXPECT_EQ(session.sessionId(), "s1");
  EXPECT_EQ(session.url(), "https://u");
  EXPECT_FALSE(session.isNewSession());
  EXPECT_EQ(RunningSession(Json::parse(R"({"id":"s1"})")).url(), std::nullopt);
}

TEST(RunningSession, BadAnswersLeaveFieldsNil) {
  for (const char* text : {R"({"id":null,"url":7})", R"([1,2])", R"("id")", "null",
                           R"({"id":{"nested":true},"url":["u"]})"}) {
    const RunningSession session(Json::parse(text));
    EXPECT_EQ(session.sessionId(), std::nullopt) << text;
    EXPECT_EQ(session.url(), std::nullopt) << text;
  }
  RunningSession session;
  session.setIsNewSession(true);
  EXPECT_TRUE(session.isNewSession());
}

}  // namespace
}  // namespace lumo
