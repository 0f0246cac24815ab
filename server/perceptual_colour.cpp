#include "perceptual_colour.h"

#include <cmath>

namespace lumo::server::detail {
namespace {

float linearFromSrgb(float c) {
  c /= 255.0f;
  return c <= 0.04045f ? c / 12.92f : std::pow((c + 0.055f) / 1.055f, 2.4f);
}

struct LinearTable {
  float values[256];
  LinearTable() {
    for (int i = 0; i < 256; ++i) {
      values[i] = linearFromSrgb(static_cast<float>(i));
    }
  }
};

// OKLab's lightness compresses the darks; this toe (from the same author's Okhsl) spreads
// them so that a step near black counts as much as one near white.
float toe(float l) {
  constexpr float k1 = 0.206f, k2 = 0.03f, k3 = (1.0f + k1) / (1.0f + k2);
  const float t = k3 * l - k1;
  return 0.5f * (t + std::sqrt(t * t + 4.0f * k2 * k3 * l));
}

}  // namespace

Lab toLab(const std::uint8_t* rgba) {
  static const LinearTable table;
  float r, g, b;
  if (rgba[3] == 255) {
    r = table.values[rgba[0]], g = table.values[rgba[1]], b = table.values[rgba[2]];
  } else {
    const float alpha = static_cast<float>(rgba[3]) / 255.0f;
    auto overWhite = [alpha](std::uint8_t c) {
      return linearFromSrgb(255.0f + (static_cast<float>(c) - 255.0f) * alpha);
    };
    r = overWhite(rgba[0]), g = overWhite(rgba[1]), b = overWhite(rgba[2]);
  }
  const float l = std::cbrt(0.4122214708f * r + 0.5363325363f * g + 0.0514459929f * b);
  const float m = std::cbrt(0.2119034982f * r + 0.6806995451f * g + 0.1073969566f * b);
  const float s = std::cbrt(0.0883024619f * r + 0.2817188376f * g + 0.6299787005f * b);
  return {toe(0.2104542553f * l + 0.7936177850f * m - 0.0040720468f * s),
          1.9779984951f * l - 2.4285922050f * m + 0.4505937099f * s,
          0.0259040371f * l + 0.7827717662f * m - 0.8086757660f * s};
}

LabCache::LabCache() {
  // Every slot starts as transparent black, correctly converted, so no slot needs a flag.
  const std::uint8_t clear[4] = {0, 0, 0, 0};
  const Lab lab = toLab(clear);
  for (Entry& e : entries_) {
    e.lab = lab;
  }
}

}  // namespace lumo::server::detail
