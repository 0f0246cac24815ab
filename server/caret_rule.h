#pragma once

#include <vector>

#include "lumo/image.h"
#include "lumo/server/image_comparer.h"

namespace lumo::server::detail {

// A text caret blinks, so that a screenshot shows it or not by chance: a thin vertical bar,
// one to three pixels wide and about a text line high.
inline constexpr int kMaxCaretWidth = 3;
inline constexpr int kMinCaretHeight = 8;
inline constexpr int kMaxCaretHeight = 160;

// Whether everything that differs within two pixels of `box` is one caret: a bar of
// kMaxCaretWidth columns at most, each column a single colour in one image, where the other
// image shows the background beside it. Pixels differ when their colour distance exceeds
// maxDelta, or with `exact` when any byte differs. Reads only the pixels around the box.
bool isCaretOnly(const Image& a, const Image& b, const Rect& box, float maxDelta, bool exact);

// The carets shown in one image and not the other, each grown by a pixel on every side (the
// edges beside a bar belong to it; isCaretOnly has checked that nothing else differs there).
// Images of one size.
std::vector<Rect> findCarets(const Image& a, const Image& b, float maxDelta, bool exact);

}  // namespace lumo::server::detail
