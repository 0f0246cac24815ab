#include "lumo/system_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace lumo::test {
namespace {

TEST(SystemLog, DefaultSinkWritesWholeStampedLinesFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kLinesEach = 200;
  ::testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLinesEach; ++i) {
        systemLog("[BrixtelLumo] thread " + std::to_string(t) + " line " + std::to_string(i) + " " +
                  std::string(300, 'x'));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  // "YYYY-MM-DD HH:MM:SS.mmm name[pid:tid] [BrixtelLumo] thread T line N xxx..."
  const std::regex stamped(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^[]+\[(\d+):\d+\] )"
                           R"(\[BrixtelLumo\] thread ([0-3]) line (\d+) x{300})");
  std::istringstream lines(::testing::internal::GetCapturedStderr());
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, stamped)) << line;
    EXPECT_EQ(std::stol(match[1]), ::getpid());
  }
  EXPECT_EQ(count, kThreads * kLinesEach);
}

TEST(SystemLog, SinkCanBeReplacedAndRestoredAndSeesOtherThreads) {
  std::vector<std::string> seen;
  SystemLogSink original =
      setSystemLogSink([&](std::string_view line) { seen.emplace_back(line); });
  std::thread([] { systemLog("two"); }).join();
  EXPECT_EQ(seen, (std::vector<std::string>{"two"}));
  ::testing::internal::CaptureStderr();
  setSystemLogSink(original);
  systemLog("back to stderr");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr("] back to stderr\n"));
}

}  // namespace
}  // namespace lumo::test
