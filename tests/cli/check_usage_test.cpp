#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "run_lumo.h"
#include "server/temp_dir.h"
#include "support/test_server.h"

namespace lumo::cli {
namespace {

using testing::lineCount;
using testing::runLumo;

class CheckUsage : public lumo::test::TestServerFixture {
 protected:
  void SetUp() override {
    TestServerFixture::SetUp();
    image_ = testing::writePng(dir_.path() / "home.png", testing::screen(40, 60, 90));
    notPng_ = dir_.path() / "notes.png";
    std::ofstream(notPng_) << "not a picture";
  }

  // A valid command line with `extra` inserted before the screenshot.
  std::vector<std::string> args(std::vector<std::string> extra,
                                std::vector<std::string> images = {}) const {
    std::vector<std::string> a = {"check",  "--server", server_.baseURL(), "--app", "Shop",
                                  "--test", "Home",     "--api-key",       "key"};
    a.insert(a.end(), extra.begin(), extra.end());
    if (images.empty()) images = {image_.string()};
    a.insert(a.end(), images.begin(), images.end());
    return a;
  }

  void expectUsageError(const std::vector<std::string>& arguments, const std::string& says) {
    const auto outcome = runLumo(arguments);
    std::string line;
    for (const auto& a : arguments) {
      line += a + " ";
    }
    EXPECT_EQ(outcome.status, kExitUsage) << line;
    EXPECT_EQ(lineCount(outcome.err), 1u) << line << "\n" << outcome.err;
    EXPECT_NE(outcome.err.find(says), std::string::npos) << line << "\n" << outcome.err;
    EXPECT_EQ(outcome.out, "") << line;
  }

  lumo::server::testing::TempDir dir_;
  std::filesystem::path image_;
  std::filesystem::path notPng_;
};

TEST_F(CheckUsage, EachBadArgumentIsOneLineAndExitThreeWithNothingSent) {
  expectUsageError(args({"--viewport", "0x844"}), "--viewport");
  expectUsageError(args({"--viewport", "wide"}), "--viewport");
  expectUsageError(args({"--match-level", "Fuzzy"}), "--match-level");
  expectUsageError(args({"--match-timeout", "1"}), "--match-timeout");
  expectUsageError(args({"--match-timeout", "-2"}), "--match-timeout");
  expectUsageError(args({"--region", "1,2,3"}), "--region");
  expectUsageError(args({"--ignore", "1,2,3,x"}), "--ignore");
  expectUsageError(args({"--layout", "1,2,0,4"}), "--layout");
  expectUsageError(args({"--strict", ""}), "--strict");
  expectUsageError(args({"--content", "1,2,3,4,5"}), "--content");
  expectUsageError(args({"--floating", "1,2,3,4,5"}), "--floating");
  expectUsageError(args({"--scale", "0"}), "--scale");
  expectUsageError(args({"--scale", "two"}), "--scale");
  expectUsageError(args({"--status-bar-height", "-1"}), "--status-bar-height");
  expectUsageError(args({"--save-new-tests", "maybe"}), "--save-new-tests");
  expectUsageError(args({"--save-failed-tests", "1"}), "--save-failed-tests");
  expectUsageError(args({"--property", "os"}), "--property");
  expectUsageError(args({"--report", "r.html"}), "--report: expected a file ending in .xml");
  expectUsageError(args({"--colour", "red"}), "--colour");
  expectUsageError({"check", "--app", "Shop", "--test", "Home", image_.string()}, "--server");
  expectUsageError({"check", "--server", "localhost:8088", "--app", "Shop", "--test", "Home",
                    "--api-key", "key", image_.string()},
                   "--server");
  expectUsageError({"check", "--server", server_.baseURL(), "--test", "Home", image_.string()},
                   "--app");
  expectUsageError({"check", "--server", server_.baseURL(), "--app", "Shop", "--test", "Home",
                    "--api-key", "key"},
                   "no screenshots");
  expectUsageError({}, "subcommand");
  expectUsageError({"frobnicate"}, "frobnicate");
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(CheckUsage, UnreadableScreensAreFoundBeforeAnythingIsSent) {
  // The good screen comes first: nothing may be sent before the last one is read.
  expectUsageError(args({}, {image_.string(), (dir_.path() / "missing.png").string()}),
                   "missing.png");
  expectUsageError(args({}, {image_.string(), notPng_.string()}), "notes.png");
  expectUsageError(args({}, {image_.string() + "="}), "tag");
  // 40 x 60 pixels at scale 2 is 20 x 30 points.
  expectUsageError(args({"--scale", "2", "--region", "0,0,20,31"}), "--region 0,0,20,31");
  expectUsageError(args({"--capture", "false"}, {"home"}), "cannot capture");
  expectUsageError(args({"--capture", "echo not a png"}, {"home"}), "cannot capture");
  expectUsageError({"check", "--server", server_.baseURL(), "--app", "Shop", "--test", "Home",
                    "--api-key", "key", "--capture", "cat " + image_.string()},
                   "TAG");
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(CheckUsage, ApiKeyDefaultsToTheEnvironment) {
  const char* saved = std::getenv("BRIXTEL_API_KEY");
  const std::string previous = saved ? saved : "";
  unsetenv("BRIXTEL_API_KEY");
  expectUsageError(
      {"check", "--server", server_.baseURL(), "--app", "Shop", "--test", "Home", image_.string()},
      "BRIXTEL_API_KEY");
  EXPECT_TRUE(server_.requests().empty());

  // With the variable set the same command reaches the server, which here answers no session.
  setenv("BRIXTEL_API_KEY", "from-env", 1);
  const auto outcome = runLumo(
      {"check", "--server", server_.baseURL(), "--app", "Shop", "--test", "Home", image_.string()});
  if (saved) {
    setenv("BRIXTEL_API_KEY", previous.c_str(), 1);
  } else {
    unsetenv("BRIXTEL_API_KEY");
  }
  EXPECT_EQ(outcome.status, kExitUnreachable) << outcome.err;
  EXPECT_NE(outcome.err.find("did not start a session"), std::string::npos) << outcome.err;
  ASSERT_FALSE(server_.requests().empty());
  EXPECT_NE(server_.requests().front().query.find("apiKey=from-env"), std::string::npos);
}

TEST(CheckHelp, HelpListsTheOptionsAndExitsZero) {
  const auto outcome = runLumo({"check", "--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.out.find("--floating"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("--capture"), std::string::npos) << outcome.out;
}

}  // namespace
}  // namespace lumo::cli
