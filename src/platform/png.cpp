#include "platform/png.h"

#include <libdeflate.h>
#include <png.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

namespace lumo {
namespace {

// libdeflate at this level is about as small as zlib's default and several times faster on
// screenshots; measured in bench/png_encode_bench.

constexpr std::uint8_t kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};

// PNG stores every length, size and CRC as a big-endian 32-bit number.
std::uint32_t bigEndian32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 |
         std::uint32_t{p[3]};
}
enum Filter : std::uint8_t { kNone = 0, kSub = 1, kUp = 2 };

// Writes into a buffer sized in advance: appending chunk by chunk made GCC's -O3 see a
// vector growth it could not bound and warn about the copy.
std::uint8_t* putU32(std::uint8_t* out, std::uint32_t value) {
  out[0] = static_cast<std::uint8_t>(value >> 24);
  out[1] = static_cast<std::uint8_t>(value >> 16);
  out[2] = static_cast<std::uint8_t>(value >> 8);
  out[3] = static_cast<std::uint8_t>(value);
  return out + 4;
}

std::uint8_t* putChunk(std::uint8_t* out, const char type[4], const std::uint8_t* data,
                       std::size_t size) {
  out = putU32(out, static_cast<std::uint32_t>(size));
  std::uint8_t* const start = out;
  std::memcpy(out, type, 4);
  if (size > 0) {
    std::memcpy(out + 4, data, size);
  }
  out += 4 + size;
  return putU32(out, libdeflate_crc32(0, start, size + 4));
}

// Looks at whole rows without an early exit per pixel, so the compiler can vectorise the AND.
bool isOpaque(const Image& image) {
  const std::size_t width = static_cast<std::size_t>(image.width());
  for (int y = 0; y < image.height(); ++y) {
    const std::uint8_t* p = image.row(y);
    std::uint32_t all = 0xffffffff;
    for (std::size_t x = 0; x < width; ++x) {
      std::uint32_t pixel;
      std::memcpy(&pixel, p + x * 4, 4);
      all &= pixel;
    }
    std::uint8_t channels[4];
    std::memcpy(channels, &all, 4);
    if (channels[3] != 0xff) {
      return false;
    }
  }
  return true;
}

// The sum of the bytes read as signed magnitudes (0x01 and 0xff both count 1): the usual
// estimate of how well a filtered line compresses. Vectorised by hand because this runs over
// every byte of the screen twice, and the compiler leaves it scalar at -O2.
std::uint32_t magnitudeSum(const std::uint8_t* bytes, std::size_t size) {
  std::size_t i = 0;
  std::uint32_t sum = 0;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  __m128i total = zero;
  for (; i + 16 <= size; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
    // min(v, 256 - v) is the magnitude of v as a signed byte.
    const __m128i magnitude = _mm_min_epu8(v, _mm_sub_epi8(zero, v));
    total = _mm_add_epi64(total, _mm_sad_epu8(magnitude, zero));
  }
  sum = static_cast<std::uint32_t>(_mm_cvtsi128_si32(total) +
                                   _mm_cvtsi128_si32(_mm_unpackhi_epi64(total, total)));
#endif
  for (; i < size; ++i) {
    sum += static_cast<std::uint32_t>(std::abs(static_cast<std::int8_t>(bytes[i])));
  }
  return sum;
}

// out[i] = a[i] - b[i], bytewise modulo 256; `out` may not overlap either input.
void subtractBytes(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out,
                   std::size_t size) {
  std::size_t i = 0;
#if defined(__SSE2__)
  for (; i + 16 <= size; i += 16) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
    const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_sub_epi8(x, y));
  }
#endif
  for (; i < size; ++i) {
    out[i] = static_cast<std::uint8_t>(a[i] - b[i]);
  }
}

// Each scanline gets the filter, Sub or Up, whose output has the smaller sum of magnitudes:
// Up wins on the vertical repetition of UI screens, Sub on gradients and text runs. Writes the
// lines [begin, end) of `out`, one filter byte and rowBytes bytes each.
void filterRows(const Image& image, std::size_t channels, int begin, int end, std::uint8_t* out) {
  const std::size_t width = static_cast<std::size_t>(image.width());
  const std::size_t rowBytes = width * channels;
  // RGB rows go to the two halves of `packed` in turn, so that the previous one stays. Each
  // pixel is copied as four bytes, the fourth overwritten by the next pixel (each half has one
  // spare byte at its end): one store a pixel instead of three.
  std::vector<std::uint8_t> packed(channels == 4 ? 0 : 2 * (rowBytes + 1)), up(rowBytes);
  const auto pixels = [&](int y) {
    if (channels == 4) {
      return image.row(y);
    }
    const std::uint8_t* rgba = image.row(y);
    std::uint8_t* rgb = packed.data() + (y % 2) * (rowBytes + 1);
    for (std::size_t x = 0; x < width; ++x) {
      std::memcpy(&rgb[x * 3], rgba + x * 4, 4);
    }
    return static_cast<const std::uint8_t*>(rgb);
  };
  const std::uint8_t* previous = begin > 0 ? pixels(begin - 1) : nullptr;
  for (int y = begin; y < end; ++y) {
    const std::uint8_t* raw = pixels(y);
    std::uint8_t* line = out + static_cast<std::size_t>(y) * (rowBytes + 1);
    std::uint8_t* sub = line + 1;
    std::memcpy(sub, raw, channels);
    subtractBytes(raw + channels, raw, sub + channels, rowBytes - channels);
    line[0] = kSub;
    if (previous != nullptr) {
      subtractBytes(raw, previous, up.data(), rowBytes);
      if (magnitudeSum(up.data(), rowBytes) <= magnitudeSum(sub, rowBytes)) {
        line[0] = kUp;
        std::memcpy(sub, up.data(), rowBytes);
      }
    }
    previous = raw;
  }
}

// The filtered lines of the whole image. The buffer is left uninitialised on purpose: every
// byte is written, and clearing megabytes first costs as much as a fifth of the filtering.
// One thread: filtering is a tenth of the encode (deflate is the rest), and filtering the two
// halves at once measured no faster (46 ms either way on 1170 x 2532).
std::unique_ptr<std::uint8_t[]> filterScanlines(const Image& image, std::size_t channels) {
  const std::size_t size = (image.width() * channels + 1) * image.height();
  std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[size]);
  filterRows(image, channels, 0, image.height(), out.get());
  return out;
}

struct CompressorDeleter {
  void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};

// Everything the libpng read touches lives here, outside the frame that calls setjmp, so a
// longjmp out of libpng leaves no C++ object in an indeterminate state.
struct ReadState {
  std::span<const std::uint8_t> bytes;
  std::uint64_t maxPixels = 0;
  std::size_t offset = 0;
  png_uint_32 width = 0;
  png_uint_32 height = 0;
  std::vector<std::uint8_t> pixels;
  std::vector<png_bytep> rows;
  char message[256] = "";
};

void readBytes(png_structp png, png_bytep out, png_size_t count) {
  auto* state = static_cast<ReadState*>(png_get_io_ptr(png));
  if (count > state->bytes.size() - state->offset) {
    png_error(png, "truncated data");
  }
  std::memcpy(out, state->bytes.data() + state->offset, count);
  state->offset += count;
}

[[noreturn]] void failRead(png_structp png, png_const_charp message) {
  auto* state = static_cast<ReadState*>(png_get_error_ptr(png));
  std::snprintf(state->message, sizeof state->message, "%s", message);
  png_longjmp(png, 1);
}

void ignoreWarning(png_structp, png_const_charp) {}

// Any colour type, bit depth and interlacing becomes 8-bit RGBA: 16-bit samples keep their
// high byte (no gamma conversion), palettes and transparency expand to alpha.
bool readPng(ReadState* state) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, state, failRead, ignoreWarning);
  if (png == nullptr) {
    return false;
  }
  png_infop info = png_create_info_struct(png);
  if (info == nullptr || setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return false;
  }
  png_set_read_fn(png, state, readBytes);
  png_read_info(png, info);
  state->width = png_get_image_width(png, info);
  state->height = png_get_image_height(png, info);
  if (std::uint64_t{state->width} * state->height > state->maxPixels) {
    std::snprintf(state->message, sizeof state->message, "%ux%u pixels exceed the limit of %llu",
                  state->width, state->height, static_cast<unsigned long long>(state->maxPixels));
    png_longjmp(png, 1);
  }
  png_set_expand(png);
  png_set_strip_16(png);
  png_set_gray_to_rgb(png);
  png_set_add_alpha(png, 0xff, PNG_FILLER_AFTER);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  if (png_get_rowbytes(png, info) != std::size_t{state->width} * 4) {
    png_error(png, "unsupported pixel format");
  }
  state->pixels.resize(std::size_t{state->width} * state->height * 4);
  state->rows.resize(state->height);
  for (png_uint_32 y = 0; y < state->height; ++y) {
    state->rows[y] = state->pixels.data() + std::size_t{y} * state->width * 4;
  }
  png_read_image(png, state->rows.data());
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}

// The decoder of what screenshots are: 8-bit RGB or RGBA, not interlaced, no transparency
// chunk. libdeflate inflates the whole image at once, several times faster than libpng's
// zlib stream, and the five row filters are undone here. Anything else, and any stream that
// does not inflate to exactly the image, goes to libpng (nullopt), which says what is wrong.
std::optional<Image> decodeScreenshotPng(std::span<const std::uint8_t> bytes,
                                         std::uint64_t maxPixels) {
  auto u32 = [&](std::size_t at) { return bigEndian32(bytes.data() + at); };
  std::size_t at = sizeof kSignature;
  std::uint32_t width = 0, height = 0;
  std::size_t channels = 0;
  std::vector<std::uint8_t> compressed;
  bool ended = false;
  while (!ended && at + 12 <= bytes.size()) {
    const std::size_t length = u32(at);
    if (length > bytes.size() - at - 12) {
      return std::nullopt;
    }
    const std::uint8_t* type = bytes.data() + at + 4;
    const std::uint8_t* data = type + 4;
    if (libdeflate_crc32(0, type, length + 4) != u32(at + 8 + length)) {
      return std::nullopt;
    }
    if (std::memcmp(type, "IHDR", 4) == 0) {
      if (length != 13 || at != sizeof kSignature) {
        return std::nullopt;
      }
      width = u32(at + 8), height = u32(at + 12);
      const std::uint8_t depth = data[8], colour = data[9], interlace = data[12];
      if (depth != 8 || (colour != 2 && colour != 6) || data[10] != 0 || data[11] != 0 ||
          interlace != 0 || width == 0 || height == 0 || width > 0x7fffffff ||
          height > 0x7fffffff) {
        return std::nullopt;
      }
      channels = colour == 2 ? 3 : 4;
      if (std::uint64_t{width} * height > maxPixels) {
        throw PngError("invalid PNG: " + std::to_string(width) + "x" + std::to_string(height) +
                       " pixels exceed the limit of " + std::to_string(maxPixels));
      }
    } else if (std::memcmp(type, "tRNS", 4) == 0 || channels == 0) {
      return std::nullopt;
    } else if (std::memcmp(type, "IDAT", 4) == 0) {
      compressed.insert(compressed.end(), data, data + length);
    } else if (std::memcmp(type, "IEND", 4) == 0) {
      ended = true;
    }
    at += length + 12;
  }
  const std::size_t rowBytes = std::size_t{width} * channels;
  const std::size_t rawSize = (rowBytes + 1) * height;
  // Deflate expands at most about 1032 to 1: a stream too short for the image is cut off, and
  // must not cost the image's memory before that is found out.
  if (!ended || compressed.size() * 1032 + 1024 < rawSize) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> raw(rawSize);
  std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> inflater(
      libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
  if (!inflater) {
    throw std::bad_alloc();
  }
  std::size_t inflated = 0;
  if (libdeflate_zlib_decompress(inflater.get(), compressed.data(), compressed.size(), raw.data(),
                                 raw.size(), &inflated) != LIBDEFLATE_SUCCESS ||
      inflated != rawSize) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> pixels(std::size_t{width} * height * 4);
  const std::size_t bpp = channels;
  std::vector<std::uint8_t> zero(rowBytes, 0);
  const std::uint8_t* prior = zero.data();
  for (std::uint32_t y = 0; y < height; ++y) {
    std::uint8_t* line = raw.data() + y * (rowBytes + 1);
    const std::uint8_t filter = line[0];
    std::uint8_t* row = line + 1;
    switch (filter) {
      case 0:
        break;
      case 1:
        for (std::size_t i = bpp; i < rowBytes; ++i) {
          row[i] += row[i - bpp];
        }
        break;
      case 2:
        for (std::size_t i = 0; i < rowBytes; ++i) {
          row[i] += prior[i];
        }
        break;
      case 3:
        for (std::size_t i = 0; i < rowBytes; ++i) {
          const int left = i >= bpp ? row[i - bpp] : 0;
          row[i] += static_cast<std::uint8_t>((left + prior[i]) / 2);
        }
        break;
      case 4:
        for (std::size_t i = 0; i < rowBytes; ++i) {
          const int a = i >= bpp ? row[i - bpp] : 0, b = prior[i],
                    c = i >= bpp ? prior[i - bpp] : 0;
          const int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
          row[i] += static_cast<std::uint8_t>(pa <= pb && pa <= pc ? a : pb <= pc ? b : c);
        }
        break;
      default:
        return std::nullopt;
    }
    std::uint8_t* out = pixels.data() + std::size_t{y} * width * 4;
    if (channels == 4) {
      std::memcpy(out, row, rowBytes);
    } else {
      for (std::size_t x = 0; x < width; ++x) {
        out[x * 4] = row[x * 3], out[x * 4 + 1] = row[x * 3 + 1], out[x * 4 + 2] = row[x * 3 + 2];
        out[x * 4 + 3] = 0xff;
      }
    }
    prior = row;
  }
  return Image(static_cast<int>(width), static_cast<int>(height), std::move(pixels));
}

}  // namespace

std::vector<std::uint8_t> encodePng(const Image& image, PngCompression compression) {
  if (image.empty()) {
    throw PngError("cannot encode an empty image as PNG");
  }
  const bool opaque = isOpaque(image);
  const std::size_t channels = opaque ? 3 : 4;
  const std::size_t filteredSize =
      (static_cast<std::size_t>(image.width()) * channels + 1) * image.height();
  const std::unique_ptr<std::uint8_t[]> filtered = filterScanlines(image, channels);

  // Level 5 keeps a checkpoint's PNG no larger than libpng's defaults at a tenth of its time;
  // level 1 roughly halves that again for a diff image, about a fifth larger.
  std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor(
      libdeflate_alloc_compressor(compression == PngCompression::Fast ? 1 : 5));
  if (!compressor) {
    throw std::bad_alloc();
  }
  // Uninitialised for the same reason as the filtered lines: the bound is megabytes, the
  // output a fraction of it.
  const std::size_t bound = libdeflate_zlib_compress_bound(compressor.get(), filteredSize);
  const std::unique_ptr<std::uint8_t[]> compressed(new std::uint8_t[bound]);
  const std::size_t compressedSize = libdeflate_zlib_compress(
      compressor.get(), filtered.get(), filteredSize, compressed.get(), bound);
  if (compressedSize == 0) {
    throw PngError("deflate failed");
  }

  std::uint8_t header[13] = {0, 0, 0, 0, 0, 0, 0, 0, 8, static_cast<std::uint8_t>(opaque ? 2 : 6)};
  for (int i = 0; i < 4; ++i) {
    header[i] =
        static_cast<std::uint8_t>(static_cast<std::uint32_t>(image.width()) >> (24 - 8 * i));
    header[4 + i] =
        static_cast<std::uint8_t>(static_cast<std::uint32_t>(image.height()) >> (24 - 8 * i));
  }
  constexpr std::size_t kChunkFrame = 12;  // length, type and CRC
  std::vector<std::uint8_t> png(sizeof kSignature + 3 * kChunkFrame + sizeof header +
                                compressedSize);
  std::uint8_t* out = png.data();
  std::memcpy(out, kSignature, sizeof kSignature);
  out = putChunk(out + sizeof kSignature, "IHDR", header, sizeof header);
  out = putChunk(out, "IDAT", compressed.get(), compressedSize);
  putChunk(out, "IEND", nullptr, 0);
  return png;
}

Image decodePng(std::span<const std::uint8_t> bytes, std::uint64_t maxPixels) {
  if (bytes.size() < sizeof kSignature ||
      std::memcmp(bytes.data(), kSignature, sizeof kSignature) != 0) {
    throw PngError("not a PNG file (bad signature)");
  }
  if (auto image = decodeScreenshotPng(bytes, maxPixels)) {
    return std::move(*image);
  }
  ReadState state;
  state.bytes = bytes;
  state.maxPixels = maxPixels;
  if (!readPng(&state)) {
    throw PngError("invalid PNG: " + std::string(state.message));
  }
  return Image(static_cast<int>(state.width), static_cast<int>(state.height),
               std::move(state.pixels));
}

std::pair<int, int> checkPng(std::span<const std::uint8_t> bytes, std::uint64_t maxPixels) {
  if (bytes.size() < sizeof kSignature ||
      std::memcmp(bytes.data(), kSignature, sizeof kSignature) != 0) {
    throw PngError("not a PNG file (bad signature)");
  }
  auto u32 = [&](std::size_t at) { return bigEndian32(bytes.data() + at); };
  std::size_t at = sizeof kSignature;
  std::uint32_t width = 0, height = 0;
  bool hasData = false;
  for (;;) {
    if (at + 12 > bytes.size() || u32(at) > bytes.size() - at - 12) {
      throw PngError("invalid PNG: the file is truncated");
    }
    const std::size_t length = u32(at);
    const std::uint8_t* type = bytes.data() + at + 4;
    if (libdeflate_crc32(0, type, length + 4) != u32(at + 8 + length)) {
      throw PngError("invalid PNG: a chunk's CRC does not match its data");
    }
    if (at == sizeof kSignature) {
      const std::uint8_t* data = type + 4;
      if (std::memcmp(type, "IHDR", 4) != 0 || length != 13) {
        throw PngError("invalid PNG: it does not start with its header");
      }
      width = u32(at + 8), height = u32(at + 12);
      if (width == 0 || height == 0 || width > 0x7fffffff || height > 0x7fffffff || data[10] != 0 ||
          data[11] != 0 || data[12] > 1) {
        throw PngError("invalid PNG: its header is not valid");
      }
      if (std::uint64_t{width} * height > maxPixels) {
        throw PngError("invalid PNG: " + std::to_string(width) + "x" + std::to_string(height) +
                       " pixels exceed the limit of " + std::to_string(maxPixels));
      }
    } else if (std::memcmp(type, "IDAT", 4) == 0) {
      hasData = true;
    } else if (std::memcmp(type, "IEND", 4) == 0) {
      break;
    }
    at += length + 12;
  }
  if (!hasData) {
    throw PngError("invalid PNG: it has no image data");
  }
  return {static_cast<int>(width), static_cast<int>(height)};
}

}  // namespace lumo
