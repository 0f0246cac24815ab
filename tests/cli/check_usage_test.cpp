#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_lumo.h"
#include "support/scoped_env.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

class CheckUsage : public TestServerFixture {
 protected:
  void SetUp() override {
    TestServerFixture::SetUp();
    image_ = writePng(dir_.path() / "home.png", markedScreen(40, 60, 90)).string();
    std::ofstream(dir_.path() / "notes.png") << "not a picture";
  }

  // A valid command line with `extra` inserted before the screenshots (this one by default).
  std::vector<std::string> args(std::vector<std::string> extra,
                                std::vector<std::string> images = {}) const {
    std::vector<std::string> a = {"check",  "--server", server_.baseUrl(), "--app", "Shop",
                                  "--test", "Home",     "--api-key",       "key"};
    a.insert(a.end(), extra.begin(), extra.end());
    if (images.empty()) {
      images = {image_};
    }
    a.insert(a.end(), images.begin(), images.end());
    return a;
  }

  // Exit 3 with one line on stderr that says `says`, nothing on stdout and nothing sent.
  void expectUsageError(const std::vector<std::string>& arguments, const std::string& says) {
    const auto outcome = runLumo(arguments);
    const std::string line = ::testing::PrintToString(arguments);
    EXPECT_EQ(outcome.status, kExitUsage) << line;
    EXPECT_EQ(lineCount(outcome.err), 1u) << line << "\n" << outcome.err;
    EXPECT_THAT(outcome.err, ::testing::HasSubstr(says)) << line;
    EXPECT_EQ(outcome.out, "") << line;
    EXPECT_TRUE(server_.requests().empty()) << line;
  }

  TempDir dir_;
  std::string image_;
};

TEST_F(CheckUsage, EachBadArgumentOrScreenIsOneLineAndExitThreeWithNothingSent) {
  // Each option's refusals are pinned with its parser; here a refused value and an unknown
  // option stop the command.
  expectUsageError(args({"--viewport", "0x844"}), "--viewport");
  expectUsageError(args({"--colour", "red"}), "--colour");
  expectUsageError(args({"--report", "r.html"}), "--report: expected a file ending in .xml");
  expectUsageError({"check", "--app", "Shop", "--test", "Home", image_}, "--server");
  expectUsageError({"check", "--server", "localhost:8088", "--app", "Shop", "--test", "Home",
                    "--api-key", "key", image_},
                   "--server");
  expectUsageError({"check", "--server", server_.baseUrl(), "--app", "Shop", "--test", "Home",
                    "--api-key", "key"},
                   "no screenshots");
  expectUsageError({}, "subcommand");
  expectUsageError({"frobnicate"}, "frobnicate");
  // The good screen comes first: nothing may be sent before the last one is read.
  expectUsageError(args({}, {image_, (dir_.path() / "missing.png").string()}), "missing.png");
  expectUsageError(args({}, {image_, (dir_.path() / "notes.png").string()}), "notes.png");
  expectUsageError(args({}, {image_ + "="}), "tag");
  // 40 x 60 pixels at scale 2 is 20 x 30 points.
  expectUsageError(args({"--scale", "2", "--region", "0,0,20,31"}), "--region 0,0,20,31");
  expectUsageError(args({"--capture", "false"}, {"home"}), "cannot capture");
}

TEST_F(CheckUsage, ApiKeyDefaultsToTheEnvironment) {
  const std::vector<std::string> keyless = {
      "check", "--server", server_.baseUrl(), "--app", "Shop", "--test", "Home", image_};
  {
    ScopedEnv unset("BRIXTEL_API_KEY", nullptr);
    expectUsageError(keyless, "BRIXTEL_API_KEY");
  }
  // With the variable set the same command reaches the server, which here answers no session.
  ScopedEnv set("BRIXTEL_API_KEY", "from-env");
  EXPECT_EQ(runLumo(keyless).status, kExitUnreachable);
  ASSERT_FALSE(server_.requests().empty());
  EXPECT_THAT(server_.requests().front().query, ::testing::HasSubstr("apiKey=from-env"));
}

}  // namespace
}  // namespace lumo::test
