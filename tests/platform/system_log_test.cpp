#include "lumo/system_log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace lumo::test {
namespace {

// Points stderr at a temporary file for its lifetime.
class StderrToFile {
 public:
  StderrToFile() : file_(std::tmpfile()), saved_(::dup(STDERR_FILENO)) {
    ::dup2(::fileno(file_), STDERR_FILENO);
  }
  ~StderrToFile() {
    restore();
    std::fclose(file_);
  }
  void restore() {
    if (saved_ >= 0) {
      ::dup2(saved_, STDERR_FILENO);
      ::close(saved_);
      saved_ = -1;
    }
  }
  std::string contents() {
    std::string text;
    std::rewind(file_);
    char buffer[4096];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, file_)) {
      text.append(buffer, n);
    }
    return text;
  }

 private:
  std::FILE* file_;
  int saved_;
};

TEST(SystemLog, DefaultSinkWritesWholeStampedLinesFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kLinesEach = 200;
  StderrToFile redirect;
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
  redirect.restore();

  std::istringstream lines(redirect.contents());
  std::string line;
  std::vector<int> nextLine(kThreads, 0);
  int count = 0;
  while (std::getline(lines, line)) {
    // "YYYY-MM-DD HH:MM:SS.mmm name[pid:tid] [BrixtelLumo] thread T line N xxx..."
    int date[7];
    char name[64];
    long pid = 0, tid = 0;
    int thread = -1, index = -1, consumed = 0;
    const int fields = std::sscanf(
        line.c_str(),
        "%4d-%2d-%2d %2d:%2d:%2d.%3d %63[^[][%ld:%ld] [BrixtelLumo] thread %d line %d %n", &date[0],
        &date[1], &date[2], &date[3], &date[4], &date[5], &date[6], name, &pid, &tid, &thread,
        &index, &consumed);
    ASSERT_EQ(fields, 12) << line;
    EXPECT_EQ(line.substr(10, 1), " ");
    EXPECT_EQ(line.substr(19, 1), ".");
    EXPECT_EQ(line.substr(consumed), std::string(300, 'x')) << line;
    EXPECT_EQ(pid, ::getpid());
    ASSERT_TRUE(thread >= 0 && thread < kThreads) << line;
    EXPECT_EQ(index, nextLine[thread]++);  // each thread's lines stay in order
    ++count;
  }
  EXPECT_EQ(count, kThreads * kLinesEach);
}

TEST(SystemLog, SinkCanBeReplacedAndRestored) {
  std::vector<std::string> first;
  std::vector<std::string> second;
  SystemLogSink original =
      setSystemLogSink([&](std::string_view line) { first.emplace_back(line); });
  systemLog("one");
  SystemLogSink returned =
      setSystemLogSink([&](std::string_view line) { second.emplace_back(line); });
  systemLog("two");
  returned("three");  // the previous sink comes back as a working function
  setSystemLogSink(original);
  EXPECT_EQ(first, (std::vector<std::string>{"one", "three"}));
  EXPECT_EQ(second, (std::vector<std::string>{"two"}));

  // An empty sink restores the default stderr writer.
  StderrToFile redirect;
  setSystemLogSink([](std::string_view) {});
  setSystemLogSink({});
  systemLog("back to stderr");
  redirect.restore();
  EXPECT_NE(redirect.contents().find("] back to stderr\n"), std::string::npos);
}

TEST(SystemLog, CaptureSeesLinesFromOtherThreads) {
  LogCapture capture;
  std::thread([] { systemLog("from a worker"); }).join();
  EXPECT_EQ(capture.lines(), std::vector<std::string>{"from a worker"});
}

}  // namespace
}  // namespace lumo::test
