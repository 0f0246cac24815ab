#pragma once

#include <cstdint>

#include "lumo/detail/json.h"

namespace lumo {

// A floating region: a rectangle whose content may move up to the given offsets in each
// direction. Immutable value; negative values are kept as given. Copying it is the
// "initWithRegion" of another floating region.
class FloatingMatchSettings {
 public:
  FloatingMatchSettings(std::int64_t left, std::int64_t top, std::int64_t width,
                        std::int64_t height, std::int64_t maxUpOffset, std::int64_t maxDownOffset,
                        std::int64_t maxLeftOffset, std::int64_t maxRightOffset);

  std::int64_t left() const { return left_; }
  std::int64_t top() const { return top_; }
  std::int64_t width() const { return width_; }
  std::int64_t height() const { return height_; }
  std::int64_t maxUpOffset() const { return maxUpOffset_; }
  std::int64_t maxDownOffset() const { return maxDownOffset_; }
  std::int64_t maxLeftOffset() const { return maxLeftOffset_; }
  std::int64_t maxRightOffset() const { return maxRightOffset_; }

  // The eight values as integers under their own names.
  Json dictionary() const;

  friend bool operator==(const FloatingMatchSettings&, const FloatingMatchSettings&) = default;

 private:
  std::int64_t left_;
  std::int64_t top_;
  std::int64_t width_;
  std::int64_t height_;
  std::int64_t maxUpOffset_;
  std::int64_t maxDownOffset_;
  std::int64_t maxLeftOffset_;
  std::int64_t maxRightOffset_;
};

}  // namespace lumo
