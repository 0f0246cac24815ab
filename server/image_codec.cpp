#include "image_codec.h"

#include <cstring>
#include <stdexcept>

#include "lumo/base64.h"
#include "lumo/png.h"

namespace lumo::server::detail {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
  try {
    const std::vector<std::uint8_t> bytes = base64Decode(text);
    return std::string(bytes.begin(), bytes.end());
  } catch (const std::invalid_argument&) {
    return std::nullopt;
  }
}

std::optional<std::pair<std::uint32_t, std::uint32_t>> pngSize(std::string_view png) {
  // The signature, then the IHDR chunk's length and type, then width and height big-endian.
  static constexpr unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (png.size() < 24 || std::memcmp(png.data(), kSignature, 8) != 0 ||
      png.substr(12, 4) != "IHDR") {
    return std::nullopt;
  }
  auto be32 = [&](std::size_t at) {
    const auto* p = reinterpret_cast<const unsigned char*>(png.data() + at);
    return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 |
           std::uint32_t{p[3]};
  };
  return std::pair{be32(16), be32(20)};
}

std::optional<Image> decodePngImage(std::string_view png, std::uint64_t maxPixels) {
  try {
    return decodePng(bytesOf(png), maxPixels);
  } catch (const PngError&) {
    return std::nullopt;
  }
}

std::string encodePngImage(const Image& image) {
  const std::vector<std::uint8_t> bytes = encodePng(image);
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace lumo::server::detail
