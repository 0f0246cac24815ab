#include "lumo/system_log.h"

#include <errno.h>
#include <fmt/format.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "replaceable.h"

namespace lumo {
namespace {

const char* processName() {
#ifdef __GLIBC__
  return program_invocation_short_name;
#else
  return "lumo";
#endif
}

std::uint64_t threadId() {
#ifdef SYS_gettid
  return static_cast<std::uint64_t>(::syscall(SYS_gettid));
#else
  return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(pthread_self()));
#endif
}

std::mutex& stderrMutex() {
  static std::mutex mutex;
  return mutex;
}

void writeToStderr(std::string_view line) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  struct tm local {};
  localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  const std::string text = fmt::format("{}.{:03d} {}[{}:{}] {}\n", stamp, millis, processName(),
                                       ::getpid(), threadId(), line);

  // One write call per line where the kernel allows it; the mutex keeps lines whole even when
  // stderr is a file or terminal that splits large writes.
  std::lock_guard lock(stderrMutex());
  const char* data = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    const ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;  // Nowhere left to report a failing log.
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
}

detail::Replaceable<SystemLogSink>& slot() {
  static detail::Replaceable<SystemLogSink> instance(writeToStderr);
  return instance;
}

}  // namespace

void systemLog(std::string_view line) { (*slot().current())(line); }

SystemLogSink setSystemLogSink(SystemLogSink sink) { return slot().replace(std::move(sink)); }

}  // namespace lumo
