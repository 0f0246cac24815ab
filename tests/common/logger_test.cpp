#include "common/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "common/general_utils.h"
#include "support/log_capture.h"

namespace lumo::test {
namespace {

TEST(Logger, PrefixesTheTagAndFormatsIntoOneLine) {
  LogCapture capture;
  Logger::log("abc");
  Logger::logWithFormat("Lumo server URL is {} ({}, {}, {}, {}, [{}])", "https://x", 42,
                        textOrNull(std::nullopt), yesNo(true), yesNo(false),
                        textOrNull(std::string()));
  Logger::logWithFormat("no arguments, 100% literal");
  EXPECT_THAT(
      capture.lines(),
      ::testing::ElementsAre("[BrixtelLumo] abc",
                             "[BrixtelLumo] Lumo server URL is https://x (42, (null), YES, NO, [])",
                             "[BrixtelLumo] no arguments, 100% literal"));
}

TEST(GeneralUtils, SleepCountsWholeSecondsAndNoneForZeroOrLess) {
  const auto start = std::chrono::steady_clock::now();
  GeneralUtils::sleep(0);
  GeneralUtils::sleep(-3);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  GeneralUtils::sleep(1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

}  // namespace
}  // namespace lumo::test
