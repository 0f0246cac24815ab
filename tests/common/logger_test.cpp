#include "common/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "support/log_capture.h"

namespace lumo::test {
namespace {

TEST(Logger, PrefixesTheTagAndFormatsIntoOneLine) {
  LogCapture capture;
  Logger::log("abc");
  Logger::logWithFormat("Lumo server URL is {} ({}, {}, {})", "https://x", 42,
                        textOrNull(std::nullopt), yesNo(true));
  Logger::logWithFormat("no arguments, 100% literal");
  EXPECT_THAT(capture.lines(),
              ::testing::ElementsAre("[BrixtelLumo] abc",
                                     "[BrixtelLumo] Lumo server URL is https://x (42, (null), YES)",
                                     "[BrixtelLumo] no arguments, 100% literal"));
}

}  // namespace
}  // namespace lumo::test
