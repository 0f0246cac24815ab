// The PNG decoder on any bytes: a PngError or an image, and an image that encodes and decodes
// back to the same pixels.
#include <cstdlib>

#include "fuzz_input.h"
#include "platform/png.h"

namespace {
// Small enough that a header claiming a huge image is refused before memory runs out.
constexpr std::uint64_t kMaxPixels = 1u << 22;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lumo::Image image;
  try {
    image = lumo::decodePng({data, size}, kMaxPixels);
  } catch (const lumo::PngError&) {
    return 0;
  }
  if (image.empty()) {
    return 0;
  }
  const std::vector<std::uint8_t> encoded = lumo::encodePng(image);
  if (lumo::decodePng(encoded, kMaxPixels).pixels() != image.pixels()) {
    std::abort();
  }
  return 0;
}
