#include "lumo/png.h"

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
#include <string>

namespace lumo {
namespace {

// libdeflate at this level is about as small as zlib's default and several times faster on
// screenshots; measured in bench/png_encode_bench.
constexpr int kCompressionLevel = 5;

constexpr std::uint8_t kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
enum Filter : std::uint8_t { kNone = 0, kSub = 1, kUp = 2 };

void putU32(std::vector<std::uint8_t>& out, std::uint32_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 24));
  out.push_back(static_cast<std::uint8_t>(value >> 16));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

void putChunk(std::vector<std::uint8_t>& out, const char type[4], const std::uint8_t* data,
              std::size_t size) {
  putU32(out, static_cast<std::uint32_t>(size));
  const std::size_t start = out.size();
  out.insert(out.end(), type, type + 4);
  if (size > 0) out.insert(out.end(), data, data + size);
  putU32(out, libdeflate_crc32(0, out.data() + start, size + 4));
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
    if (channels[3] != 0xff) return false;
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
  for (; i < size; ++i) out[i] = static_cast<std::uint8_t>(a[i] - b[i]);
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
    if (channels == 4) return image.row(y);
    const std::uint8_t* rgba = image.row(y);
    std::uint8_t* rgb = packed.data() + (y % 2) * (rowBytes + 1);
    for (std::size_t x = 0; x < width; ++x) std::memcpy(&rgb[x * 3], rgba + x * 4, 4);
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
  if (count > state->bytes.size() - state->offset) png_error(png, "truncated data");
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
  if (png == nullptr) return false;
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

}  // namespace

std::vector<std::uint8_t> encodePng(const Image& image) {
  if (image.empty()) throw PngError("cannot encode an empty image as PNG");
  const bool opaque = isOpaque(image);
  const std::size_t channels = opaque ? 3 : 4;
  const std::size_t filteredSize =
      (static_cast<std::size_t>(image.width()) * channels + 1) * image.height();
  const std::unique_ptr<std::uint8_t[]> filtered = filterScanlines(image, channels);

  std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor(
      libdeflate_alloc_compressor(kCompressionLevel));
  if (!compressor) throw std::bad_alloc();
  // Uninitialised for the same reason as the filtered lines: the bound is megabytes, the
  // output a fraction of it.
  const std::size_t bound = libdeflate_zlib_compress_bound(compressor.get(), filteredSize);
  const std::unique_ptr<std::uint8_t[]> compressed(new std::uint8_t[bound]);
  const std::size_t compressedSize = libdeflate_zlib_compress(
      compressor.get(), filtered.get(), filteredSize, compressed.get(), bound);
  if (compressedSize == 0) throw PngError("deflate failed");

  std::vector<std::uint8_t> png;
  png.reserve(compressedSize + 64);
  png.insert(png.end(), std::begin(kSignature), std::end(kSignature));
  std::uint8_t header[13] = {0, 0, 0, 0, 0, 0, 0, 0, 8, static_cast<std::uint8_t>(opaque ? 2 : 6)};
  for (int i = 0; i < 4; ++i) {
    header[i] =
        static_cast<std::uint8_t>(static_cast<std::uint32_t>(image.width()) >> (24 - 8 * i));
    header[4 + i] =
        static_cast<std::uint8_t>(static_cast<std::uint32_t>(image.height()) >> (24 - 8 * i));
  }
  putChunk(png, "IHDR", header, sizeof header);
  putChunk(png, "IDAT", compressed.get(), compressedSize);
  putChunk(png, "IEND", nullptr, 0);
  return png;
}

Image decodePng(std::span<const std::uint8_t> bytes, std::uint64_t maxPixels) {
  if (bytes.size() < sizeof kSignature ||
      std::memcmp(bytes.data(), kSignature, sizeof kSignature) != 0) {
    throw PngError("not a PNG file (bad signature)");
  }
  ReadState state;
  state.bytes = bytes;
  state.maxPixels = maxPixels;
  if (!readPng(&state)) throw PngError("invalid PNG: " + std::string(state.message));
  return Image(static_cast<int>(state.width), static_cast<int>(state.height),
               std::move(state.pixels));
}

}  // namespace lumo
