#include "image_codec.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "platform/base64.h"
#include "platform/png.h"

namespace lumo::server::detail {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

namespace {

constexpr std::uint8_t kNotData = 0x80;  // CR, LF, '=' and anything not base64

constexpr std::array<std::uint8_t, 256> kBase64Values = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(kNotData);
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}();

}  // namespace

bool decodeBase64InPlace(std::string& text) {
  char* const data = text.data();
  const std::size_t size = text.size();
  std::size_t in = 0, out = 0;
  // The bytes of a screenshot are groups of four plain characters, maybe in lines: three
  // bytes per group, written behind the reading position.
  while (in + 4 <= size) {
    const std::uint32_t a = kBase64Values[static_cast<unsigned char>(data[in])];
    const std::uint32_t b = kBase64Values[static_cast<unsigned char>(data[in + 1])];
    const std::uint32_t c = kBase64Values[static_cast<unsigned char>(data[in + 2])];
    const std::uint32_t d = kBase64Values[static_cast<unsigned char>(data[in + 3])];
    if (((a | b | c | d) & kNotData) != 0) {
      // A line break between groups, as clients write them: skip it and go on.
      if (data[in] == '\r' || data[in] == '\n') {
        ++in;
        continue;
      }
      break;
    }
    const std::uint32_t quad = a << 18 | b << 12 | c << 6 | d;
    data[out] = static_cast<char>(quad >> 16);
    data[out + 1] = static_cast<char>(quad >> 8);
    data[out + 2] = static_cast<char>(quad);
    in += 4;
    out += 3;
  }
  // The rest one character at a time: line breaks, padding and anything invalid.
  const std::size_t rest = in;
  try {
    const std::vector<std::uint8_t> tail = base64Decode(std::string_view(data + rest, size - rest));
    // std::copy, not memcpy: an empty tail has no data pointer to pass.
    std::copy(tail.begin(), tail.end(), data + out);
    out += tail.size();
  } catch (const std::invalid_argument&) {
    return false;
  }
  text.resize(out);
  return true;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  std::string bytes(text);
  if (!decodeBase64InPlace(bytes)) {
    return std::nullopt;
  }
  return bytes;
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

bool pngDataCanFill(std::string_view png) {
  if (!pngSize(png) || png.size() < 33) {
    return false;
  }
  const auto byteAt = [&](std::size_t at) { return static_cast<unsigned char>(png[at]); };
  const auto be32 = [&](std::size_t at) {
    return std::uint32_t{byteAt(at)} << 24 | std::uint32_t{byteAt(at + 1)} << 16 |
           std::uint32_t{byteAt(at + 2)} << 8 | std::uint32_t{byteAt(at + 3)};
  };
  const std::uint64_t width = be32(16), height = be32(20);
  const unsigned bitDepth = byteAt(24);
  unsigned channels = 1;  // greyscale and palette
  switch (byteAt(25)) {
    case 2:
      channels = 3;
      break;
    case 4:
      channels = 2;
      break;
    case 6:
      channels = 4;
      break;
    default:
      break;
  }
  // Count the image data present, chunk by chunk; a truncated chunk counts what is there.
  std::uint64_t compressed = 0;
  for (std::size_t at = 8; at + 8 <= png.size();) {
    const std::uint64_t length = be32(at);
    const std::string_view type = png.substr(at + 4, 4);
    const std::uint64_t present = std::min<std::uint64_t>(length, png.size() - at - 8);
    if (type == "IDAT") {
      compressed += present;
    }
    at += 12 + present;
  }
  // Deflate expands at most about 1032 to 1; past that the data cannot hold every row.
  constexpr std::uint64_t kMaxDeflateRatio = 1040;
  // In floating point: the declared sizes may overflow any integer product.
  const double rawBytes =
      static_cast<double>(width) * static_cast<double>(height) * channels * bitDepth / 8.0;
  return static_cast<double>(compressed) * kMaxDeflateRatio >= rawBytes;
}

std::optional<Image> decodePngImage(std::string_view png, std::uint64_t maxPixels) {
  // The decoder allocates the whole image from the header before reading any row, so a short
  // file declaring a large image would cost its full size for nothing.
  if (!pngDataCanFill(png)) {
    return std::nullopt;
  }
  try {
    return decodePng(bytesOf(png), maxPixels);
  } catch (const PngError&) {
    return std::nullopt;
  }
}

std::string encodePngImage(const Image& image, PngCompression compression) {
  const std::vector<std::uint8_t> bytes = encodePng(image, compression);
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace lumo::server::detail
