// The server against the client's own records: requests written by the client's writers,
// answers read by the client's readers, so the two sides cannot drift apart unnoticed.
#include <gtest/gtest.h>

#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "lumo/image_match_settings.h"
#include "lumo/running_session.h"
#include "lumo/session_start_info.h"
#include "lumo/test_results.h"
#include "server_fixture.h"

namespace lumo::server::testing {
namespace {

using ClientRecords = ServerTest;

Json clientStartInfo(const std::string& test, std::optional<std::string> branch = std::nullopt) {
  SessionStartInfo info;
  auto batch = std::make_shared<BatchInfo>("Client batch");
  batch->setBatchId("client-batch");
  info.setupWithAgentId(
      "lumo/0.1", "Shop", test, std::nullopt,
      std::make_shared<AppEnvironment>("iOS 17.2", std::nullopt, "iPhone 15", Size{200, 240}),
      batch, branch, branch, std::nullopt, false,
      std::make_shared<ImageMatchSettings>(MatchLevelStrict));
  return info.dictionary();
}

TEST_F(ClientRecords, TheClientsReadersSeeNewTestPassAndDifferences) {
  auto res = startSession(clientStartInfo("Records"));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 201);
  const RunningSession session(Json::parse(res->body));
  ASSERT_TRUE(session.sessionId());
  EXPECT_EQ(session.url(), server_->baseUrl() + "/sessions/" + *session.sessionId());

  ImageMatchSettings settings(MatchLevelStrict);
  EXPECT_TRUE(check(*session.sessionId(), screen(1), "home", false, settings.dictionary()));
  res = stopSession(*session.sessionId(), false, true);
  ASSERT_TRUE(res);
  const TestResults created(Json::parse(res->body));
  EXPECT_EQ(created.status(), TestResultsStatusUnresolved);
  EXPECT_TRUE(created.isNew());
  EXPECT_EQ(created.url(), session.url());
  EXPECT_EQ(created.batchId(), "client-batch");
  EXPECT_EQ(created.batchName(), "Client batch");
  EXPECT_EQ(created.hostDisplaySize(), (Size{200, 240}));
  ASSERT_TRUE(created.stepsInfo());
  ASSERT_EQ(created.stepsInfo()->size(), 1u);
  EXPECT_TRUE((*created.stepsInfo())[0].hasCurrentImage());
  ASSERT_TRUE((*created.stepsInfo())[0].apiUrls());
  ASSERT_TRUE(created.defaultMatchSettings());
  EXPECT_EQ(created.defaultMatchSettings()->matchLevel(), "Strict");

  // A changed text on a feature branch, with its region ignored by the client's settings.
  const std::string id = start(clientStartInfo("Records", "feature"), 200);
  settings.setIgnoredRegions(std::vector<Region>{Region(10, 55, 180, 25)});
  EXPECT_FALSE(check(id, screen(2), "home", true));
  EXPECT_TRUE(check(id, screen(2), "home", true, settings.dictionary()));
  res = stopSession(id, false, false);
  ASSERT_TRUE(res);
  const TestResults passed(Json::parse(res->body));
  EXPECT_TRUE(passed.isPassed());
  EXPECT_FALSE(passed.isNew());
  EXPECT_EQ(passed.branchName(), "feature");
  EXPECT_EQ(passed.strictMatches(), 1);

  const std::string differing = start(clientStartInfo("Records"), 200);
  EXPECT_FALSE(check(differing, screen(2), "home"));
  res = stopSession(differing, false, false);
  ASSERT_TRUE(res);
  const TestResults different(Json::parse(res->body));
  EXPECT_EQ(different.status(), TestResultsStatusUnresolved);
  EXPECT_FALSE(different.isNew());
  EXPECT_TRUE(different.isDifferent());
  EXPECT_EQ(different.mismatches(), 1);
  EXPECT_TRUE((*different.stepsInfo())[0].isDifferent());
}

}  // namespace
}  // namespace lumo::server::testing
