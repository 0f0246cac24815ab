#include "image_codec.h"

#include <openssl/evp.h>
#include <png.h>

#include <cstring>
#include <memory>

namespace lumo::server::detail {

std::optional<std::string> decodeBase64(std::string_view text) {
  std::string clean;
  for (char c : text) {
    if (c != '\r' && c != '\n') {
      clean += c;
    }
  }
  if (clean.size() % 4 != 0) {
    return std::nullopt;
  }
  std::string out(clean.size() / 4 * 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(clean.data()),
                                static_cast<int>(clean.size()));
  if (n < 0) {
    return std::nullopt;
  }
  std::size_t size = static_cast<std::size_t>(n);
  if (clean.ends_with("==")) {
    size -= 2;
  } else if (clean.ends_with("=")) {
    size -= 1;
  }
  out.resize(size);
  return out;
}

std::optional<std::pair<std::uint32_t, std::uint32_t>> pngSize(std::string_view png) {
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

std::optional<Image> decodePngImage(std::string_view png) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, png.data(), png.size())) {
    return std::nullopt;
  }
  image.format = PNG_FORMAT_RGBA;
  std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
    png_image_free(&image);
    return std::nullopt;
  }
  return Image(static_cast<int>(image.width), static_cast<int>(image.height), std::move(pixels));
}

std::string encodePngImage(const Image& source) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(source.width());
  image.height = static_cast<png_uint_32>(source.height());
  image.format = PNG_FORMAT_RGBA;
  png_alloc_size_t size = 0;
  png_image_write_to_memory(&image, nullptr, &size, 0, source.data(), 0, nullptr);
  std::string out(size, '\0');
  png_image_write_to_memory(&image, out.data(), &size, 0, source.data(), 0, nullptr);
  out.resize(size);
  return out;
}

}  // namespace lumo::server::detail
