#pragma once

#include "lumo/geometry.h"

namespace lumo {

// A width/height pair of doubles, used for viewport sizes. Immutable value.
class RectangleSize {
 public:
  RectangleSize() = default;
  explicit RectangleSize(Size size) : size_(size) {}

  static RectangleSize emptySize() { return RectangleSize(); }

  double width() const { return size_.width; }
  double height() const { return size_.height; }
  Size size() const { return size_; }
  // True only for the zero size.
  bool isEmpty() const { return *this == emptySize(); }

  friend bool operator==(const RectangleSize&, const RectangleSize&) = default;

 private:
  Size size_;
};

}  // namespace lumo
