#pragma once

#include <cstdint>

#include "lumo/image.h"

namespace lumo::server::detail {

// The ways in which a pixel's change is a shift of at most a pixel, as bits: for each of the
// four diagonal directions (sx, sy), bit k (k = (sx > 0) + 2 * (sy > 0)) when the pixel of `a`
// mixes the colours of `b`'s 2 x 2 block from it one step towards (sx, sy), and bit k + 4 when
// the pixel of `b` mixes `a`'s one step back: what a re-rasterisation a fraction of a pixel
// off gives. Either way the other image's colour must be found within a few pixels, so a
// change on a flat area, or a colour of its own, is no shift. A pixel alone says little: a
// rearranged pattern has each pixel's colour nearby too, but not one shared way for a block.
unsigned shiftDirections(const Image& a, const Image& b, int x, int y);

}  // namespace lumo::server::detail
