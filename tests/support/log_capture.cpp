#include "support/log_capture.h"

namespace lumo::test {

LogCapture::LogCapture() {
  previous_ = setSystemLogSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

LogCapture::~LogCapture() { setSystemLogSink(std::move(previous_)); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

}  // namespace lumo::test
