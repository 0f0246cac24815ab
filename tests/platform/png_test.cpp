#include "platform/png.h"

#include <gtest/gtest.h>
#include <png.h>

namespace lumo::test {
namespace {

Image pattern(int width, int height, bool translucent) {
  Image image(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = static_cast<std::uint8_t>(x * 7 + y);
      p[1] = static_cast<std::uint8_t>(y * 3);
      p[2] = static_cast<std::uint8_t>((x ^ y) & 0xff);
      p[3] = translucent ? static_cast<std::uint8_t>(x + y * 5) : 0xff;
    }
  }
  return image;
}

// A PNG written by libpng's own writer with the given layout; `rows` hold raw samples.
std::vector<std::uint8_t> libpngWrite(int width, int height, int colorType, int bitDepth,
                                      int interlace, std::vector<std::vector<std::uint8_t>> rows) {
  std::vector<std::uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(
      png, &out,
      [](png_structp p, png_bytep data, png_size_t n) {
        auto* sink = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(p));
        sink->insert(sink->end(), data, data + n);
      },
      nullptr);
  png_set_IHDR(png, info, width, height, bitDepth, colorType, interlace,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  std::vector<png_bytep> pointers;
  for (auto& row : rows) {
    pointers.push_back(row.data());
  }
  png_write_image(png, pointers.data());
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

// Opaque images are written as RGB (colour type 2 in IHDR), others as RGBA (6).
TEST(Png, RoundTripsOpaqueTranslucentOddAndExtremeSizes) {
  for (auto [width, height] : {std::pair{1, 1}, {17, 9}, {4000, 2}}) {
    for (bool translucent : {false, true}) {
      const Image image = pattern(width, height, translucent);
      const auto png = encodePng(image);
      EXPECT_EQ(png[25], translucent ? 6 : 2);
      EXPECT_EQ(decodePng(png), image) << width << "x" << height;
    }
  }
}

TEST(Png, Decodes16BitInterlacedGreyToRgba) {
  const Image expected(3, 2, {0,   0,   0,   255, 50,  50,  50,  255, 100, 100, 100, 255,
                              150, 150, 150, 255, 200, 200, 200, 255, 250, 250, 250, 255});
  EXPECT_EQ(decodePng(libpngWrite(3, 2, PNG_COLOR_TYPE_GRAY, 16, PNG_INTERLACE_ADAM7,
                                  {{0, 1, 50, 2, 100, 3}, {150, 4, 200, 5, 250, 6}})),
            expected)
      << "16-bit samples keep their high byte";
}

// checkPng, which reads only the chunks, refuses what decodePng refuses for these faults.
TEST(Png, RefusesCorruptTruncatedAndOversizedData) {
  auto png = encodePng(pattern(20, 20, false));
  EXPECT_EQ(checkPng(png), std::pair(20, 20));
  auto badCrc = png, badData = png, absurd = png;
  badCrc[30] ^= 0xff;                // inside IHDR's data: its CRC no longer matches
  badData[png.size() - 20] ^= 0xff;  // inside IDAT's data
  absurd[16] = 0x7f;                 // width of two billion pixels
  const std::vector<std::uint8_t> garbage{1, 2, 3};
  const std::vector<std::span<const std::uint8_t>> faulty{garbage,
                                                          std::span(png).first(png.size() / 2),
                                                          std::span(png).first(png.size() - 12),
                                                          badCrc,
                                                          badData,
                                                          absurd};
  for (std::span<const std::uint8_t> bytes : faulty) {
    EXPECT_THROW(decodePng(bytes), PngError) << bytes.size();
    EXPECT_THROW(checkPng(bytes), PngError) << bytes.size();
  }
  EXPECT_THROW(decodePng(png, 399), PngError);
  EXPECT_THROW(checkPng(png, 399), PngError);
  EXPECT_THROW(encodePng(Image()), PngError);
}

}  // namespace
}  // namespace lumo::test
