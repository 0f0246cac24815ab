#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "lumo/image.h"

namespace lumo {

// Raised for PNG data that cannot be decoded; the message says what is wrong.
class PngError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr std::uint64_t kDefaultMaxPngPixels = 100'000'000;

// How hard the PNG encoder compresses: the size a checkpoint sends, or the time of an image
// only a person looks at later.
enum class PngCompression { Balanced, Fast };

// Encodes a standard 8-bit PNG: RGB when every pixel is opaque, RGBA otherwise. Tuned for
// screenshots (flat areas, text): the checkpoint's hot path.
std::vector<std::uint8_t> encodePng(const Image& image,
                                    PngCompression compression = PngCompression::Balanced);

// Decodes any valid PNG (palette, grey, 16-bit, interlaced, transparency) to RGBA. Throws
// PngError for corrupt or truncated data and for images of more than `maxPixels` pixels.
Image decodePng(std::span<const std::uint8_t> bytes,
                std::uint64_t maxPixels = kDefaultMaxPngPixels);

// Checks a PNG's structure without inflating it: the signature, a valid IHDR first, every
// chunk's length and CRC, an IDAT and an IEND. Returns {width, height}; throws PngError saying
// what is wrong, as decodePng would for those faults. A few hundred times cheaper than
// decoding; only a deflate stream that was wrong before its CRC was computed passes it.
std::pair<int, int> checkPng(std::span<const std::uint8_t> bytes,
                             std::uint64_t maxPixels = kDefaultMaxPngPixels);

}  // namespace lumo
