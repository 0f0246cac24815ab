#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace lumo::detail {

// A process-wide callback that any thread may replace while others call it. Callers take a
// counted reference, so a callback that replaces itself while it runs stays alive until it
// returns; an empty replacement restores the fallback.
template <typename Function>
class Replaceable {
 public:
  explicit Replaceable(Function fallback)
      : fallback_(std::move(fallback)), current_(std::make_shared<const Function>(fallback_)) {}

  std::shared_ptr<const Function> current() const {
    std::lock_guard lock(mutex_);
    return current_;
  }

  // Installs `next` and returns the callback it replaces.
  Function replace(Function next) {
    auto installed = std::make_shared<const Function>(next ? std::move(next) : fallback_);
    std::lock_guard lock(mutex_);
    Function previous = *current_;
    current_ = std::move(installed);
    return previous;
  }

 private:
  const Function fallback_;
  mutable std::mutex mutex_;
  std::shared_ptr<const Function> current_;
};

}  // namespace lumo::detail
