#pragma once

#include "lumo/geometry.h"

// The server's rectangles are lumo::Rect holding whole pixels. Its loops work in ints, read
// once per rectangle through these. The sides are taken as given rather than standardised: a
// region sent with a negative width or height covers nothing, as it always has.
namespace lumo::server::detail {

inline int leftOf(const Rect& r) { return static_cast<int>(r.origin.x); }
inline int topOf(const Rect& r) { return static_cast<int>(r.origin.y); }
inline int widthOf(const Rect& r) { return static_cast<int>(r.size.width); }
inline int heightOf(const Rect& r) { return static_cast<int>(r.size.height); }

// The rectangle of whole pixels from (left, top) of that width and height.
inline Rect pixelRect(int left, int top, int width, int height) {
  return Rect(left, top, width, height);
}

}  // namespace lumo::server::detail
