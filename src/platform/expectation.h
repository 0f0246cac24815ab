#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

namespace lumo {

// Something a thread waits for with Waiter: fulfilled once, from any thread. Share it as a
// std::shared_ptr so that a completion arriving after its wait timed out still finds it alive;
// fulfilling it again, or after the wait gave up, is harmless.
class Expectation {
 public:
  explicit Expectation(std::string description = {});
  Expectation(const Expectation&) = delete;
  Expectation& operator=(const Expectation&) = delete;

  const std::string& description() const { return description_; }

  // Marks the expectation fulfilled and wakes its waiter. Thread-safe; never blocks for long.
  void fulfill();
  bool isFulfilled() const;

 private:
  friend class Waiter;

  const std::string description_;
  mutable std::mutex mutex_;
  std::condition_variable fulfilled_;
  bool isFulfilled_ = false;
};

}  // namespace lumo
