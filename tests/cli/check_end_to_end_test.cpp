#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "check_command.h"
#include "lumo/detail/json.h"
#include "lumo/server/server.h"
#include "run_lumo.h"
#include "server/temp_dir.h"
#include "support/test_server.h"

namespace lumo::cli {
namespace {

using testing::runLumo;

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class CheckEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    lumo::server::ServerConfig config;
    config.dataDir = data_.path();
    server_ = std::make_unique<lumo::server::Server>(config);
    server_->start();
    home_ = testing::writePng(files_.path() / "home.png", testing::screen(40, 60, 90));
    cart_ = testing::writePng(files_.path() / "cart.png", testing::screen(40, 60, 180));
    cartChanged_ =
        testing::writePng(files_.path() / "cart-new.png", testing::screen(40, 60, 180, 10));
  }
  void TearDown() override { server_->stop(); }

  testing::Outcome check(std::vector<std::string> extra, std::vector<std::string> images) {
    std::vector<std::string> a = {
        "check",           "--server",  server_->baseUrl(),
        "--app",           "Shop",      "--test",
        "Browse",          "--api-key", std::string(lumo::server::kDemoApiKey),
        "--match-timeout", "0"};
    a.insert(a.end(), extra.begin(), extra.end());
    a.insert(a.end(), images.begin(), images.end());
    return runLumo(a);
  }

  lumo::server::testing::TempDir data_;
  lumo::server::testing::TempDir files_;
  std::unique_ptr<lumo::server::Server> server_;
  std::filesystem::path home_, cart_, cartChanged_;
};

TEST_F(CheckEndToEnd, NewThenUnchangedThenChangedGiveTwoZeroOne) {
  const auto created = check({}, {home_.string(), cart_.string()});
  EXPECT_EQ(created.status, kExitNewTest) << created.err;
  EXPECT_TRUE(contains(created.out, "home: new\ncart: new\n")) << created.out;
  EXPECT_TRUE(contains(created.out, "Browse of Shop. Please approve the new baseline at http"))
      << created.out;

  const auto unchanged = check({}, {home_.string(), cart_.string()});
  EXPECT_EQ(unchanged.status, kExitPassed) << unchanged.err;
  EXPECT_TRUE(contains(unchanged.out, "home: matched\ncart: matched\n")) << unchanged.out;
  EXPECT_TRUE(contains(unchanged.out, "Test passed. See details at " + server_->baseUrl()))
      << unchanged.out;

  const auto changed = check({}, {home_.string(), cartChanged_.string() + "=cart"});
  EXPECT_EQ(changed.status, kExitDifferences) << changed.err;
  EXPECT_TRUE(contains(changed.out, "home: matched\ncart: did not match\n")) << changed.out;
  EXPECT_TRUE(contains(changed.out, "Test Browse of Shop detected differences! See details at: "))
      << changed.out;

  // Failed runs are not saved by default: the baseline is still the first one...
  EXPECT_EQ(check({}, {home_.string(), cart_.string()}).status, kExitPassed);
  // ...and regions reach the server: ignoring the changed corner makes the change pass.
  const auto ignored =
      check({"--ignore", "0,0,12,12"}, {home_.string(), cartChanged_.string() + "=cart"});
  EXPECT_EQ(ignored.status, kExitPassed) << ignored.out << ignored.err;
}

TEST_F(CheckEndToEnd, CaptureCommandTakesEachCheckpointFromTheCommand) {
  EXPECT_EQ(check({"--capture", "cat " + home_.string()}, {"first"}).status, kExitNewTest);
  const auto again = check({"--capture", "cat " + home_.string()}, {"first"});
  EXPECT_EQ(again.status, kExitPassed) << again.err;
  EXPECT_TRUE(contains(again.out, "first: matched\n")) << again.out;
}

TEST_F(CheckEndToEnd, TheBatchIsNamedAfterAppTestAndLocalTimeUnlessGiven) {
  auto batchName = [&](std::vector<std::string> extra) {
    const auto outcome = check(std::move(extra), {home_.string()});
    const auto at = outcome.out.find("/sessions/");
    EXPECT_NE(at, std::string::npos) << outcome.out;
    const std::string id = outcome.out.substr(at + 10, 32);
    httplib::Client client("127.0.0.1", server_->port());
    auto res = client.Get("/api/sessions/" + id +
                          ".json?apiKey=" + std::string(lumo::server::kDemoApiKey));
    return res ? lumo::Json::parse(res->body).value("batchName", "") : std::string("no answer");
  };
  EXPECT_THAT(batchName({}),
              ::testing::MatchesRegex("Shop Browse [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}"));
  EXPECT_EQ(batchName({"--batch", "Nightly"}), "Nightly");
}

TEST_F(CheckEndToEnd, WrongApiKeyIsNoVerdict) {
  const auto outcome = runLumo({"check", "--server", server_->baseUrl(), "--app", "Shop", "--test",
                                "Browse", "--api-key", "wrong", home_.string()});
  EXPECT_EQ(outcome.status, kExitUnreachable);
  EXPECT_TRUE(contains(outcome.err, "did not start a session")) << outcome.err;
  EXPECT_EQ(outcome.out, "");
}

TEST(CheckUnreachable, RefusedConnectionIsExitFourWithTheReason) {
  lumo::server::testing::TempDir files;
  const auto image = testing::writePng(files.path() / "home.png", testing::screen(20, 20, 50));
  lumo::test::RefusingPort refusing;
  const auto outcome = runLumo({"check", "--server", refusing.baseURL(), "--app", "Shop", "--test",
                                "Home", "--api-key", "key", image.string()});
  EXPECT_EQ(outcome.status, kExitUnreachable);
  EXPECT_TRUE(contains(outcome.err, "cannot reach the server at " + refusing.baseURL() + ": "))
      << outcome.err;
  EXPECT_EQ(testing::lineCount(outcome.err), 1u) << outcome.err;
}

// Stands in for the 60-second bound, which the shipped command keeps.
class ShortWaits : public WaitPolicy {
 public:
  double serverAnswerSeconds() const override { return 0.3; }
};

TEST(CheckUnreachable, SilentServerIsExitFourAfterTheBound) {
  lumo::test::TestServer server;
  server.start();
  server.hold();
  CheckOptions options;
  options.serverURL = server.baseURL();
  options.appName = "Shop";
  options.testName = "Home";
  options.apiKey = "key";
  options.checkpoints.push_back(
      {"home", {}, std::make_shared<const Image>(testing::screen(20, 20, 50))});
  options.waitPolicy = std::make_shared<ShortWaits>();
  std::ostringstream out, err;
  EXPECT_EQ(runCheck(options, out, err), kExitUnreachable);
  EXPECT_TRUE(contains(err.str(), "did not answer in time")) << err.str();
  EXPECT_EQ(server.requests().size(), 1u);
  server.stop();
}

// A stop answered with anything but a JSON object is no verdict: never a pass.
TEST(CheckVerdict, StopAnswerThatIsNoObjectIsExitFour) {
  for (const char* stopBody : {"[]", "\"Passed\"", "0", "<html></html>"}) {
    SCOPED_TRACE(stopBody);
    lumo::test::TestServer server;
    server.setHandler([&](const lumo::test::RecordedRequest& request) {
      if (request.method == "DELETE") return lumo::test::ScriptedResponse{200, stopBody};
      if (request.path == "/api/sessions/running.json") {
        return lumo::test::ScriptedResponse{200, R"({"id":"s1","url":"http://results/s1"})"};
      }
      return lumo::test::ScriptedResponse{200, R"({"asExpected":true})"};
    });
    server.start();
    CheckOptions options;
    options.serverURL = server.baseURL();
    options.appName = "Shop";
    options.testName = "Home";
    options.apiKey = "key";
    options.matchTimeout = 0;
    options.checkpoints.push_back(
        {"home", {}, std::make_shared<const Image>(testing::screen(20, 20, 50))});
    options.waitPolicy = std::make_shared<ShortWaits>();
    std::ostringstream out, err;
    EXPECT_EQ(runCheck(options, out, err), kExitUnreachable);
    EXPECT_TRUE(contains(err.str(), "gave no verdict")) << err.str();
    EXPECT_FALSE(contains(out.str(), "Test passed")) << out.str();
    server.stop();
  }
}

}  // namespace
}  // namespace lumo::cli
