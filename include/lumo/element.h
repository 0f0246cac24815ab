#pragma once

#include <mutex>

#include "lumo/geometry.h"

namespace lumo {

// A UI element whose frame (in the application's points, the coordinates of the region lists)
// is read each time a check runs. Adapt your UI driver's element to it.
class Element {
 public:
  virtual ~Element() = default;
  // The element's current frame. May be called from the test thread at any time.
  virtual Rect frame() const = 0;
};

// An element whose frame the test sets and moves. Thread-safe.
class MovableElement : public Element {
 public:
  explicit MovableElement(Rect frame) : frame_(frame) {}

  Rect frame() const override {
    std::lock_guard lock(mutex_);
    return frame_;
  }
  void setFrame(Rect frame) {
    std::lock_guard lock(mutex_);
    frame_ = frame;
  }

 private:
  mutable std::mutex mutex_;
  Rect frame_;
};

}  // namespace lumo
