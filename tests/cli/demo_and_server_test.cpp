#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "lumo/server/server.h"
#include "platform/png.h"
#include "run_lumo.h"
#include "server/temp_dir.h"
#include "server_command.h"

namespace lumo::test {
namespace {

Image readPng(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
  return decodePng(bytes);
}

TEST(Demo, GivesNewTestThenPassedThenDifferences) {
  const auto outcome = runLumo({"demo"});
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  const auto at = [&](const std::string& text) { return outcome.out.find(text); };
  ASSERT_NE(at("Exit status 2: new test"), std::string::npos) << outcome.out;
  ASSERT_NE(at("Exit status 0: passed"), std::string::npos) << outcome.out;
  ASSERT_NE(at("Exit status 1: differences found"), std::string::npos) << outcome.out;
  EXPECT_LT(at("Exit status 2"), at("Exit status 0"));
  EXPECT_LT(at("Exit status 0"), at("Exit status 1"));
  EXPECT_NE(at("Login: did not match"), std::string::npos) << outcome.out;
  EXPECT_NE(at("Results pages: http://127.0.0.1:"), std::string::npos) << outcome.out;
  // The library's log lines stay out of the demo's output unless asked for.
  EXPECT_EQ(at("[BrixtelLumo]"), std::string::npos);
}

TEST(Demo, WritesItsScreensForLumoCheck) {
  server::testing::TempDir dir;
  ASSERT_EQ(runLumo({"demo", "--write-screens", dir.path().string()}).status, 0);
  const Image login = readPng(dir.path() / "Login.png");
  EXPECT_EQ(login.width(), 360);
  EXPECT_EQ(login.height(), 640);
  for (const char* other : {"Inbox.png", "Settings.png"}) {
    EXPECT_EQ(readPng(dir.path() / other).width(), 360) << other;
  }
  EXPECT_NE(readPng(dir.path() / "Login-changed.png"), login);
}

TEST(ServerCommand, ServesUntilToldToStop) {
  server::testing::TempDir dir;
  ServerOptions options;
  options.port = 0;
  options.dataDir = dir.path() / "data";
  std::ostringstream out, err;
  int pageStatus = 0;
  const int status = runServer(options, out, err, [&](lumo::server::Server& server) {
    httplib::Client client("127.0.0.1", server.port());
    if (auto response = client.Get("/")) {
      pageStatus = response->status;
    }
  });
  EXPECT_EQ(status, 0) << err.str();
  EXPECT_EQ(pageStatus, 200);
  EXPECT_NE(out.str().find("Lumo server listening at http://127.0.0.1:"), std::string::npos)
      << out.str();
  EXPECT_NE(out.str().find(std::string(lumo::server::kDemoApiKey)), std::string::npos);
}

TEST(ServerCommand, BadArgumentsAreUsageErrors) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"server", "--port", "70000"},
                                             {"server", "--port", "http"},
                                             {"server", "--cert", "cert.pem"},
                                             {"server", "--cert", "nope.pem", "--key", "nope.key"},
                                             {"server", "--baseline-cache-mb", "-5"},
                                             {"server", "--baseline-cache-mb", "lots"},
                                             {"server", "--public-url", "lumo.example.com"},
                                             {"server", "--store", "mysql://db/lumo"},
                                             {"server", "--store", "lumo.db"},
                                             {"demo", "--port", "-1"}}) {
    const auto outcome = runLumo(args);
    EXPECT_EQ(outcome.status, kExitUsage) << args[1];
    EXPECT_EQ(lineCount(outcome.err), 1u) << outcome.err;
  }
}

}  // namespace
}  // namespace lumo::test
