#include "lumo/session_start_info.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "lumo/exception.h"
#include "lumo/internal_inconsistency_exception.h"
#include "lumo/running_session.h"

namespace lumo::test {
namespace {

using Opt = std::optional<std::string>;

class SessionStartInfoTest : public ::testing::Test {
 protected:
  void setUp(Opt branch = {}, Opt parent = {}, Opt baseline = {}, Opt baselineEnv = {}) {
    info_.setupWithAgentId("agent/1", "Shop", "Login", std::move(baselineEnv), env_, batch_,
                           std::move(branch), std::move(parent), std::move(baseline), true,
                           settings_);
  }

  // The eight keys every start record has, spelt as the server reads them.
  Json baseRecord() const {
    return {{"appIdOrName", "Shop"},
            {"scenarioIdOrName", "Login"},
            {"batchInfo", batch_->dictionary()},
            {"environment", env_->dictionary()},
            {"defaultMatchSettings", settings_->dictionary()},
            {"agentId", "agent/1"},
            {"saveDiffs", true},
            {"properties", Json::array()}};
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
  setUp();
  Json expected = baseRecord();
  expected["properties"] = Json::parse(R"([{"name":"team","value":"checkout"},
                                           {"name":"team","value":"again"}])");
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
    if (std::string(c.keys) != "throws") {
      Json expected = baseRecord();
      expected.update(Json::parse(c.keys));
      EXPECT_EQ(info_.dictionary(), expected);
      continue;
    }
    try {
      (void)info_.dictionary();
      ADD_FAILURE() << "wrote a start record without a branch name";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "IllegalArgumentException");
    }
  }
}

TEST_F(SessionStartInfoTest, SetupChecksRequiredValuesInOrderAndKeepsOldValues) {
  EXPECT_THROW((void)info_.dictionary(), Exception) << "a record never set up";
  setUp();
  try {
    info_.setupWithAgentId("a", "b", "c", "x", nullptr, nullptr, "b", "p", "q", false, settings_);
    ADD_FAILURE() << "set up without an environment";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_EQ(e.reason(), "appEnv is nil");  // checked before the batch
  }
  EXPECT_EQ(info_.dictionary(), baseRecord());
}

TEST(RunningSession, ReadsIdAndUrlAndLeavesBadValuesNil) {
  const RunningSession session(Json::parse(R"({"id":"s1","url":"https://u","x":1})"));
  EXPECT_EQ(session.sessionId(), "s1");
  EXPECT_EQ(session.url(), "https://u");
  const RunningSession bad(Json::parse(R"({"id":null,"url":7})"));
  EXPECT_EQ(bad.sessionId(), std::nullopt);
  EXPECT_EQ(bad.url(), std::nullopt);
}

}  // namespace
}  // namespace lumo::test
