#pragma once

#include <cstdint>
#include <vector>

#include "lumo/image.h"
#include "lumo/server/image_comparer.h"
#include "strict_metric.h"

namespace lumo::server::detail {

// 1 where a pixel's brightness steps by more than `threshold` (0..255) to its right or lower
// neighbour, else 0. Colour is gone: only where things begin and end is kept.
std::vector<std::uint8_t> edgeMap(const Image& image, int threshold);

// The Content pass: at pixels at kAtContent, an edge in one image without an edge within one
// pixel of it in the other is a difference. Appends in pixel order.
void scanEdges(const std::vector<std::uint8_t>& edgesA, const std::vector<std::uint8_t>& edgesB,
               int width, int height, const LevelMap& map, PixelDiffs& out);

// The elements of an image at kAtLayout pixels: groups of edges closer than `cell` pixels,
// as bounding boxes.
std::vector<Rect> layoutElements(const std::vector<std::uint8_t>& edges, int width, int height,
                                 const LevelMap& map, int cell);

// Elements of one list that have no counterpart in the other: a counterpart has the same
// top and bottom and keeps its left side, right side or centre, each within `tolerance`.
std::vector<Rect> unmatchedElements(const std::vector<Rect>& a, const std::vector<Rect>& b,
                                    int tolerance);

}  // namespace lumo::server::detail
