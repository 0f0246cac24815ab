#include "step_finisher.h"

#include <utility>

namespace lumo::server::detail {

StepFinisher::StepFinisher(std::size_t capacity)
    : capacity_(capacity), thread_([this] { run(); }) {}

StepFinisher::~StepFinisher() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

bool StepFinisher::tryPost(const std::string& sessionId, std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || queue_.size() >= capacity_) {
      return false;
    }
    queue_.emplace_back(sessionId, std::move(work));
    ++pending_[sessionId];
  }
  changed_.notify_all();
  return true;
}

void StepFinisher::waitFor(const std::string& sessionId) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return pending_.find(sessionId) == pending_.end(); });
}

void StepFinisher::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) {
      return;  // stopping, with everything done
    }
    auto [sessionId, work] = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    work();
    lock.lock();
    if (--pending_[sessionId] == 0) {
      pending_.erase(sessionId);
    }
    changed_.notify_all();
  }
}

}  // namespace lumo::server::detail
