#pragma once

#include <cstdint>
#include <vector>

#include "lumo/server/image_comparer.h"

namespace lumo::server::detail {

// Groups the pixels marked kDiffers into clusters and returns each cluster's bounding box in
// image coordinates, top to bottom. Pixels less than about `gap` pixels apart join one
// cluster, so a changed word is one box rather than one per stroke. `marks` has a byte per
// pixel (width * height); rows whose `rowMarked` byte is 0 are not read. The work is a pass
// over the marked rows and a pass over a grid of gap x gap cells.
std::vector<Rect> differenceBoxes(const std::uint8_t* marks, const std::uint8_t* rowMarked,
                                  int width, int height, int gap);

}  // namespace lumo::server::detail
