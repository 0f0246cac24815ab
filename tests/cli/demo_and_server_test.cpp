#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <vector>

#include "run_lumo.h"
#include "server_command.h"

namespace lumo::test {
namespace {

using ::testing::HasSubstr;

TEST(Demo, GivesNewTestThenPassedThenDifferences) {
  const auto outcome = runLumo({"demo"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out,
              ::testing::ContainsRegex("Exit status 2: new test(.|\n)*Exit status 0: "
                                       "passed(.|\n)*Exit status 1: differences found"));
  EXPECT_THAT(outcome.out, HasSubstr("Login: did not match"));
  EXPECT_THAT(outcome.out, HasSubstr("Results pages: http://127.0.0.1:"));
  // The library's log lines stay out of the demo's output unless asked for.
  EXPECT_THAT(outcome.out, ::testing::Not(HasSubstr("[BrixtelLumo]")));
}

TEST(ServerCommand, ServesUntilToldToStop) {
  TempDir dir;
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
  EXPECT_THAT(out.str(), HasSubstr("Lumo server listening at http://127.0.0.1:"));
}

TEST(ServerCommand, BadArgumentsAreUsageErrors) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"server", "--port", "70000"},
                                             {"server", "--cert", "cert.pem"},
                                             {"server", "--cert", "nope.pem", "--key", "nope.key"},
                                             {"server", "--baseline-cache-mb", "-5"},
                                             {"server", "--public-url", "lumo.example.com"},
                                             {"server", "--store", "mysql://db/lumo"}}) {
    const auto outcome = runLumo(args);
    EXPECT_EQ(outcome.status, kExitUsage) << args[1];
    EXPECT_EQ(lineCount(outcome.err), 1u) << outcome.err;
  }
}

}  // namespace
}  // namespace lumo::test
