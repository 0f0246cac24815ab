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
// lower neighbour, kWeakEdge where it steps by more than half of it, else kNoEdge. Colour is
// gone: only where things begin and end is kept.
std::vector<std::uint8_t> edgeMap(const Image& image, int threshold);

// The Content pass: at pixels at kAtContent, an edge in one image with not even a weak edge
// within one pixel of it in the other is marked kDiffers; one found nearby is kTolerated. The
// weak edges keep a contrast near the threshold from counting as appearing or vanishing when
// only colours change. `marks` and `rowMarked` as for scanPixelRows.
MarkCounts scanEdges(const std::vector<std::uint8_t>& edgesA,
                     const std::vector<std::uint8_t>& edgesB, int width, int height,
                     const LevelMap& map, std::uint8_t* marks, std::uint8_t* rowMarked);

// The elements of an image at kAtLayout pixels: groups of (full) edges closer than `cell` pixels,
// as bounding boxes.
std::vector<Rect> layoutElements(const std::vector<std::uint8_t>& edges, int width, int height,
                                 const LevelMap& map, int cell);

// Elements of one list that have no counterpart in the other: a counterpart has the same
// top and bottom and keeps its left side, right side or centre, each within `tolerance`.
std::vector<Rect> unmatchedElements(const std::vector<Rect>& a, const std::vector<Rect>& b,
                                    int tolerance);

// Whether nearly all full edges of `own` inside `area` have an edge, weak ones included,
// within a pixel in `other`: the element is there in both images, only its contrast changed
// (a theme's grey outline that crosses the threshold one way or the other).
bool edgesShared(const Rect& area, const std::vector<std::uint8_t>& own,
                 const std::vector<std::uint8_t>& other, int width, int height);

}  // namespace lumo::server::detail
