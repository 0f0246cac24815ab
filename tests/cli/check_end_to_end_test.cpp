#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "check_command.h"
#include "lumo/detail/json.h"
#include "run_lumo.h"
#include "support/fast_wait_policy.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

using CheckEndToEnd = EmbeddedServerTest;
using ::testing::HasSubstr;

// New, unchanged and changed runs give 2, 0 and 1, each with its lines and its report.
TEST_F(CheckEndToEnd, NewThenUnchangedThenChangedGiveTwoZeroOneAndTheirReports) {
  const auto report = [&](const std::string& name) {
    return std::vector<std::string>{"--batch", "Nightly", "--report",
                                    (files_.path() / name).string()};
  };
  const auto created = check(report("new.xml"), {home_, cart_});
  EXPECT_EQ(created.status, kExitNewTest) << created.err;
  EXPECT_THAT(created.out, HasSubstr("home: new\ncart: new\n"));
  const std::string xml = readFile(files_.path() / "new.xml");
  EXPECT_EQ(count(xml, "<skipped message=\"new baseline: approve it at http://"), 2u) << xml;

  const auto unchanged = check(report("passed.json"), {home_, cart_});
  EXPECT_EQ(unchanged.status, kExitPassed) << unchanged.err;
  EXPECT_THAT(unchanged.out, HasSubstr("home: matched\ncart: matched\n"));
  EXPECT_THAT(unchanged.out, HasSubstr("Test passed. See details at " + server_->baseUrl()));
  Json passed = Json::parse(readFile(files_.path() / "passed.json"));
  EXPECT_TRUE(passed["batch"]["id"].is_string());
  EXPECT_THAT(passed["url"].get<std::string>(), ::testing::StartsWith(server_->baseUrl()));
  passed["batch"].erase("id");
  passed.erase("url");
  EXPECT_EQ(passed, Json::parse(R"({"app":"Shop","test":"Browse","verdict":"passed","exitStatus":0,
      "batch":{"name":"Nightly"},"checkpoints":[{"tag":"home","verdict":"matched"},
      {"tag":"cart","verdict":"matched"}]})"));

  const auto changed = check({}, {home_, changed_ + "=cart"});
  EXPECT_EQ(changed.status, kExitDifferences) << changed.err;
  EXPECT_THAT(changed.out, HasSubstr("home: matched\ncart: did not match\n"));

  // Failed runs are not saved by default: the baseline is still the first one...
  EXPECT_EQ(check({}, {home_, cart_}).status, kExitPassed);
  // ...and regions reach the server: ignoring the changed corner makes the change pass.
  EXPECT_EQ(check({"--ignore", "0,0,12,12"}, {home_, changed_ + "=cart"}).status, kExitPassed);
}

TEST_F(CheckEndToEnd, CaptureCommandTakesEachCheckpointFromTheCommand) {
  EXPECT_EQ(check({"--capture", "cat " + home_}, {"first"}).status, kExitNewTest);
  const auto again = check({"--capture", "cat " + home_}, {"first"});
  EXPECT_EQ(again.status, kExitPassed) << again.err;
  EXPECT_THAT(again.out, HasSubstr("first: matched\n"));
}

TEST(CheckUnreachable, RefusedConnectionIsExitFourWithTheReasonAndItsReport) {
  TempDir files;
  const auto image = writePng(files.path() / "home.png", markedScreen(20, 20, 50));
  RefusingPort refusing;
  const auto outcome = runLumo({"check", "--server", refusing.baseUrl(), "--app", "Shop", "--test",
                                "Home", "--api-key", "key", "--report",
                                (files.path() / "down.json").string(), image.string()});
  EXPECT_EQ(outcome.status, kExitUnreachable);
  EXPECT_THAT(outcome.err, HasSubstr("cannot reach the server at " + refusing.baseUrl() + ": "));
  EXPECT_EQ(lineCount(outcome.err), 1u) << outcome.err;
  const Json report = Json::parse(readFile(files.path() / "down.json"));
  EXPECT_EQ(report["verdict"], "unreachable");
  EXPECT_EQ(report["checkpoints"][0]["verdict"], "not checked");
}

// One checkpoint held in memory against the server at `url`; the 0.3-second answer bound
// stands in for the 60 seconds the shipped command keeps.
int checkInMemory(const std::string& url, std::ostringstream& out, std::ostringstream& err) {
  CheckOptions options;
  options.serverURL = url;
  options.appName = "Shop";
  options.testName = "Home";
  options.apiKey = "key";
  options.matchTimeout = 0;
  options.checkpoints.push_back(
      {"home", {}, std::make_shared<const Image>(markedScreen(20, 20, 50))});
  options.waitPolicy = std::make_shared<FastWaitPolicy>(0.3);
  return runCheck(options, out, err);
}

TEST(CheckUnreachable, SilentServerIsExitFourAfterTheBound) {
  TestServer server;
  server.start();
  server.hold();
  std::ostringstream out, err;
  EXPECT_EQ(checkInMemory(server.baseUrl(), out, err), kExitUnreachable);
  EXPECT_THAT(err.str(), HasSubstr("did not answer in time"));
  EXPECT_EQ(server.requests().size(), 1u);
  server.stop();
}

// A stop answered with anything but a JSON object is no verdict: never a pass.
// Which answers count as no JSON object is pinned with the connector.
TEST(CheckVerdict, StopAnswerThatIsNoObjectIsExitFour) {
  TestServer server;
  // The start, the one match and the stop, in turn.
  server.enqueue({200, R"({"id":"s1","url":"http://results/s1"})"});
  server.enqueue({200, R"({"asExpected":true})"});
  server.enqueue({200, "[]"});
  server.start();
  std::ostringstream out, err;
  EXPECT_EQ(checkInMemory(server.baseUrl(), out, err), kExitUnreachable);
  EXPECT_THAT(err.str(), HasSubstr("gave no verdict"));
  EXPECT_THAT(out.str(), ::testing::Not(HasSubstr("Test passed")));
  server.stop();
}

}  // namespace
}  // namespace lumo::test
