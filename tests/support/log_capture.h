#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "lumo/system_log.h"

namespace lumo::test {

// Captures every system-log line for its lifetime (from any thread) and restores the previous
// sink when destroyed.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines logged so far, in the order they arrived.
  std::vector<std::string> lines() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  SystemLogSink previous_;
};

}  // namespace lumo::test
