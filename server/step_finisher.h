#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace lumo::server::detail {

// Runs what a step needs after its verdict was answered (the full comparison, the diff image,
// the difference boxes) on one background thread, so a checkpoint's answer does not wait for
// them. Work is kept per session: a session's stop waits for its own work only. Thread-safe.
// The destructor finishes the queued work.
class StepFinisher {
 public:
  // At most `capacity` pieces of work wait at once: each holds two decoded screens.
  explicit StepFinisher(std::size_t capacity = 4);
  ~StepFinisher();
  StepFinisher(const StepFinisher&) = delete;
  StepFinisher& operator=(const StepFinisher&) = delete;

  // Queues `work` for `sessionId`; false, with nothing queued, when the queue is full (the
  // caller then runs it itself). `work` must not throw.
  bool tryPost(const std::string& sessionId, std::function<void()> work);

  // Returns once no work of `sessionId` is queued or running.
  void waitFor(const std::string& sessionId);

 private:
  void run();

  const std::size_t capacity_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::pair<std::string, std::function<void()>>> queue_;
  std::map<std::string, int, std::less<>> pending_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace lumo::server::detail
