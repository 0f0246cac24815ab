#pragma once

#include <cstdint>
#include <vector>

#include "lumo/image.h"
#include "lumo/server/image_comparer.h"
#include "strict_metric.h"

namespace lumo::server::detail {

// Values of an edge map.
enum EdgeStrength : std::uint8_t { kNoEdge = 0, kWeakEdge = 1, kEdge = 2 };

// kEdge where a pixel's brightness steps by more than `threshold` (0..255) to its right or
// lower neighbour, kWeakEdge where it steps by a faint but visible amount, else kNoEdge. Colour is
// gone: only where things begin and end is kept.
std::vector<std::uint8_t> edgeMap(const Image& image, int threshold);

// The Content pass: at pixels at kAtContent, an edge in one image with not even a weak edge
// within one pixel of it in the other is marked kDiffers; one found nearby is kTolerated. The
// weak edges keep a contrast near the threshold from counting as appearing or vanishing when
// only colours change. `marks` and `rowMarked` as for scanPixelRows.
MarkCounts scanEdges(const std::vector<std::uint8_t>& edgesA,
                     const std::vector<std::uint8_t>& edgesB, int width, int height,
                     const LevelMap& map, std::uint8_t* marks, std::uint8_t* rowMarked);

// An element of a screen's layout: its bounding box, and whether it is framed (a drawn
// container such as a button or card, with an edge along most of its top or bottom) rather
// than free text or an icon.
struct LayoutElement {
  Rect box;
  bool framed = false;
};

// The elements of an image at kAtLayout pixels: groups of (full) edges closer than `cell` pixels.
std::vector<LayoutElement> layoutElements(const std::vector<std::uint8_t>& edges, int width,
                                          int height, const LevelMap& map, int cell);

// Boxes of the elements of one list that have no counterpart in the other: a counterpart has
// the same top and bottom, each within `tolerance`, and keeps both sides if either element is
// framed (a resized container is a change), else its left side, right side or centre (text
// that changed within its place is not).
std::vector<Rect> unmatchedElements(const std::vector<LayoutElement>& a,
                                    const std::vector<LayoutElement>& b, int tolerance);

// Whether nearly all full edges of `own` inside `area` have an edge, weak ones included,
// within a pixel in `other`: the element is there in both images, only its contrast changed
// (a theme's grey outline that crosses the threshold one way or the other).
bool edgesShared(const Rect& area, const std::vector<std::uint8_t>& own,
                 const std::vector<std::uint8_t>& other, int width, int height);

}  // namespace lumo::server::detail
