#include "lumo/lumo_base.h"

#include <gtest/gtest.h>

#include "lumo/app_environment.h"
#include "lumo/exception.h"
#include "lumo/test_results.h"
#include "lumo/version.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"

namespace lumo::test {
namespace {

class Flavour : public LumoBase {
 public:
  Flavour() : LumoBase("http://127.0.0.1:1") {}
  std::string sdkName() const override { return "lumo.cpp"; }
  std::string sdkBundleIdentifier() const override { return "com.brixtel.lumo"; }
};

TEST(LumoBase, MatchTimeoutShipsAsTwoAndRejectsOneQuotingTheValue) {
  LumoBase lumo("https://example");
  EXPECT_EQ(lumo.matchTimeout(), 2u);
  lumo.setMatchTimeout(0);
  try {
    lumo.setMatchTimeout(1);
    FAIL();
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "IllegalArgumentException");
    EXPECT_EQ(e.reason(), "Match timeout must be set in seconds, and must be > 1");
  }
  EXPECT_EQ(lumo.matchTimeout(), 0u);
}

// The base-line environment name loses its blanks; an empty one is none. A property needs a name.
TEST(LumoBase, BaselineEnvNameAndPropertiesAreNormalisedOrGuarded) {
  LumoBase lumo("https://example");
  lumo.setBaselineEnvName("my big phone");
  EXPECT_EQ(lumo.baselineEnvName(), "mybigphone");
  lumo.setBaselineEnvName("");
  EXPECT_FALSE(lumo.baselineEnvName());
  EXPECT_THROW(lumo.addProperty("", "v"), Exception);
}

TEST(LumoBase, AgentIdPutsTheUsersIdFirst) {
  Flavour lumo;
  const std::string base = std::string("lumo.cpp/") + kVersion;
  EXPECT_EQ(lumo.getFullAgentId(), base);
  lumo.setAgentId("suite");
  EXPECT_EQ(lumo.getFullAgentId(), "suite [" + base + "]");
  EXPECT_EQ(LumoBase("x").getBaseAgentId(), "/(null)") << "no SDK, no known bundle";
}

TEST(LumoBase, BaseClassTextsAndTheUsersEnvironment) {
  LumoBase lumo("https://example");
  EXPECT_EQ(lumo.title(), "Base title");
  EXPECT_EQ(lumo.appEnvironment()->hostingAppInfo(), "Test app");
  lumo.setOsInfo("Android 14");
  EXPECT_EQ(lumo.appEnvironment()->osInfo(), "Android 14");
}

TEST(LumoBase, OpenNeedsTheControllersOwnApiKey) {
  ScopedEnv key("BRIXTEL_API_KEY", "from-environment");
  LumoBase lumo("https://example");
  LogCapture log;
  EXPECT_THROW(lumo.openBase("App", "Test", {1, 1}), Exception);
  EXPECT_EQ(log.lines().back(),
            "[BrixtelLumo] API key is missing! Please set it using setApiKey()");
  EXPECT_FALSE(lumo.isOpen());
}

TEST(LumoBase, OpeningTwiceWithoutACheckKeepsFailing) {
  LumoBase lumo("https://example");
  lumo.setApiKey("key");
  lumo.openBase("", std::nullopt, {1, 1});
  EXPECT_EQ(lumo.appName(), "Application name");
  EXPECT_EQ(lumo.testName(), "Test name");
  for (int attempt = 0; attempt < 2; ++attempt) {
    LogCapture log;
    EXPECT_THROW(lumo.openBase("App", "Test", {1, 1}), Exception);
    const auto lines = log.lines();
    EXPECT_EQ(lines.front(), "[BrixtelLumo] Closed") << "no session: the abort only logs";
    EXPECT_EQ(lines.back(), "[BrixtelLumo] A test is already running");
  }
  EXPECT_TRUE(lumo.close(nullptr)->isPassed());
  lumo.openBase("App", "Test", {1, 1});
  EXPECT_TRUE(lumo.isOpen());
}

}  // namespace
}  // namespace lumo::test
