#include "common/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <optional>
#include <string>

#include "common/environment_helper.h"
#include "common/general_utils.h"
#include "support/log_capture.h"

namespace lumo::test {
namespace {

using ::testing::ElementsAre;

TEST(Logger, LogPrefixesTheTagAndOneBlank) {
  LogCapture capture;
  Logger::log("abc");
  Logger::log("");
  EXPECT_THAT(capture.lines(), ElementsAre("[BrixtelLumo] abc", "[BrixtelLumo] "));
}

TEST(Logger, LogWithFormatFormatsThenLogsOneLine) {
  LogCapture capture;
  std::optional<std::string> nil;
  Logger::logWithFormat("Lumo server URL is {} ({}, {}, {})", "https://x", 42, textOrNull(nil),
                        yesNo(true));
  Logger::logWithFormat("no arguments, 100% literal");
  EXPECT_THAT(capture.lines(),
              ElementsAre("[BrixtelLumo] Lumo server URL is https://x (42, (null), YES)",
                          "[BrixtelLumo] no arguments, 100% literal"));
}

TEST(Logger, HelpersRenderNilAndFlags) {
  EXPECT_EQ(textOrNull(std::nullopt), "(null)");
  EXPECT_EQ(textOrNull(std::string()), "");
  EXPECT_EQ(textOrNull(std::string("x")), "x");
  EXPECT_EQ(yesNo(false), "NO");
}

TEST(EnvironmentHelper, ReadsUnsetEmptyAndSetVariablesAfresh) {
  const std::string key = "LUMO_TEST_ENVIRONMENT_HELPER";
  ::unsetenv(key.c_str());
  EXPECT_EQ(EnvironmentHelper::environmentVariableForKey(key), std::nullopt);
  ::setenv(key.c_str(), "", 1);
  EXPECT_EQ(EnvironmentHelper::environmentVariableForKey(key), std::optional<std::string>(""));
  ::setenv(key.c_str(), "value", 1);
  EXPECT_EQ(EnvironmentHelper::environmentVariableForKey(key), "value");
  ::unsetenv(key.c_str());
  EXPECT_EQ(EnvironmentHelper::environmentVariableForKey(key), std::nullopt);
}

TEST(GeneralUtils, SleepOfZeroOrLessReturnsAtOnce) {
  const auto start = std::chrono::steady_clock::now();
  GeneralUtils::sleep(0);
  GeneralUtils::sleep(-3);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

TEST(GeneralUtils, SleepCountsWholeSeconds) {
  const auto start = std::chrono::steady_clock::now();
  GeneralUtils::sleep(1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

}  // namespace
}  // namespace lumo::test
