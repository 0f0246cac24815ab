#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace lumo::server::detail {

// A colour as people see it: OKLab, with the lightness given the toe that makes equal steps
// of it look equal in the dark too. Distances in this space are roughly perceptual: about
// kJustNoticeable apart, two flat colours side by side are just told apart.
struct Lab {
  float l = 0, a = 0, b = 0;
};

// The smallest distance between two colours that a reviewer notices over an area, side by
// side: a grey 8 levels off a light background, a blue 26 levels off in red, are each a bit
// more than this.
inline constexpr float kJustNoticeable = 0.02f;

// The colour of an RGBA pixel composed over white (what a person sees of a translucent one).
Lab toLab(const std::uint8_t* rgba);

inline float distance(const Lab& p, const Lab& q) {
  const float dl = p.l - q.l, da = p.a - q.a, db = p.b - q.b;
  return std::sqrt(dl * dl + da * da + db * db);
}

// The distance of two RGBA pixels; exactly 0 for equal ones.
inline float distance(const std::uint8_t* p, const std::uint8_t* q) {
  return std::memcmp(p, q, 4) == 0 ? 0.0f : distance(toLab(p), toLab(q));
}

// toLab for a stream of pixels from one image. Screens hold few colours and long runs of
// each, so a colour seen before is looked up rather than converted again. Not thread-safe:
// one per thread.
class LabCache {
 public:
  LabCache();

  Lab operator()(const std::uint8_t* rgba) {
    std::uint32_t key;
    std::memcpy(&key, rgba, sizeof key);
    Entry& e = entries_[(key * 2654435761u) >> (32 - kBits)];
    if (e.key != key) {
      e.key = key;
      e.lab = toLab(rgba);
    }
    return e.lab;
  }

 private:
  static constexpr int kBits = 12;
  struct Entry {
    std::uint32_t key = 0;
    Lab lab;
  };
  std::array<Entry, std::size_t{1} << kBits> entries_;
};

}  // namespace lumo::server::detail
