#include "common/scaled_screenshot.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace lumo {
namespace {

// For each output index, the input indices it covers and their weights (summing to 1).
struct Taps {
  std::vector<int> first;
  std::vector<int> count;
  std::vector<float> weights;  // count[i] entries per output, packed
};

Taps areaTaps(int inSize, int outSize) {
  Taps taps;
  const double ratio = static_cast<double>(inSize) / outSize;
  for (int o = 0; o < outSize; ++o) {
    const double begin = o * ratio;
    const double end = std::min<double>(inSize, (o + 1) * ratio);
    const int first = static_cast<int>(begin);
    const int last = std::min(inSize - 1, static_cast<int>(std::ceil(end)) - 1);
    taps.first.push_back(first);
    taps.count.push_back(last - first + 1);
    for (int i = first; i <= last; ++i) {
      const double covered = std::min<double>(end, i + 1) - std::max<double>(begin, i);
      taps.weights.push_back(static_cast<float>(covered / (end - begin)));
    }
  }
  return taps;
}

}  // namespace

std::shared_ptr<LumoScreenshot> ScaledScreenshot::downscale(double scale) {
  if (!(scale > 1.0)) {
    return std::make_shared<ScaledScreenshot>(decodedImage(), png());
  }
  ImagePtr scaled = areaAverage(image(), scale);
  PngBytes png = scaled == image() ? this->png() : nullptr;
  return std::make_shared<ScaledScreenshot>(std::move(scaled), std::move(png));
}

std::shared_ptr<const ImageCropper> ScaledScreenshot::imageCropper() const {
  static const auto cropper = std::make_shared<const PixelCropper>();
  return cropper;
}

ImagePtr ScaledScreenshot::areaAverage(const ImagePtr& image, double scale) {
  if (!image || image->empty() || !(scale > 1.0)) {
    return image;
  }
  const int outWidth = std::max(1, static_cast<int>(std::lround(image->width() / scale)));
  const int outHeight = std::max(1, static_cast<int>(std::lround(image->height() / scale)));
  const Taps columns = areaTaps(image->width(), outWidth);
  const Taps rows = areaTaps(image->height(), outHeight);

  // Separable: each input row is first reduced horizontally, then rows are blended.
  std::vector<float> reduced(static_cast<std::size_t>(outWidth) * 4 * image->height());
  for (int y = 0; y < image->height(); ++y) {
    const std::uint8_t* in = image->row(y);
    float* out = &reduced[static_cast<std::size_t>(y) * outWidth * 4];
    std::size_t w = 0;
    for (int o = 0; o < outWidth; ++o) {
      float sum[4] = {0, 0, 0, 0};
      const std::uint8_t* p = in + static_cast<std::size_t>(columns.first[o]) * 4;
      for (int t = 0; t < columns.count[o]; ++t, p += 4) {
        const float weight = columns.weights[w++];
        for (int c = 0; c < 4; ++c) {
          sum[c] += weight * p[c];
        }
      }
      std::copy(sum, sum + 4, out + o * 4);
    }
  }

  Image result(outWidth, outHeight);
  std::vector<float> line(static_cast<std::size_t>(outWidth) * 4);
  std::size_t w = 0;
  for (int o = 0; o < outHeight; ++o) {
    std::fill(line.begin(), line.end(), 0.0f);
    for (int t = 0; t < rows.count[o]; ++t) {
      const float weight = rows.weights[w++];
      const float* in = &reduced[static_cast<std::size_t>(rows.first[o] + t) * outWidth * 4];
      for (std::size_t i = 0; i < line.size(); ++i) {
        line[i] += weight * in[i];
      }
    }
    std::uint8_t* out = result.row(o);
    for (std::size_t i = 0; i < line.size(); ++i) {
      out[i] = static_cast<std::uint8_t>(std::clamp(line[i] + 0.5f, 0.0f, 255.0f));
    }
  }
  return std::make_shared<const Image>(std::move(result));
}

}  // namespace lumo
