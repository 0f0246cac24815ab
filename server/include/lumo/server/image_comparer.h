#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumo/image.h"

namespace lumo::server {

// How strictly a step is compared with its baseline. The names are the wire names.
enum class MatchLevel { None, Layout, Content, Strict, Exact };

// "None", "Layout", "Content", "Strict" or "Exact".
std::string_view matchLevelName(MatchLevel level);
// The level of a wire name; nullopt for any other text (case-sensitive).
std::optional<MatchLevel> matchLevelFromName(std::string_view name);

// A rectangle in the pixels of the compared images. Parts outside the image are ignored.
struct Rect {
  int left = 0;
  int top = 0;
  int width = 0;
  int height = 0;

  friend bool operator==(const Rect&, const Rect&) = default;
};

// A region whose content may be found moved by up to the four offsets (in pixels).
struct FloatingRect {
  Rect rect;
  int maxUpOffset = 0;
  int maxDownOffset = 0;
  int maxLeftOffset = 0;
  int maxRightOffset = 0;
};

// What to compare and how: the step's level for the whole image and the regions that change
// it locally. Ignore regions win over every other kind; strict regions win over content
// regions, which win over layout regions.
struct CompareSettings {
  MatchLevel level = MatchLevel::Strict;
  std::vector<Rect> ignore;
  std::vector<Rect> layout;
  std::vector<Rect> content;
  std::vector<Rect> strict;
  std::vector<FloatingRect> floating;
};

// The verdict of one comparison and what the diff image shows.
struct CompareResult {
  bool matches = true;
  // The two images differ in size; nothing else was compared.
  bool sizeMismatch = false;
  // Pixels (y * width + x) that differ at their level.
  std::vector<std::uint32_t> differences;
  // Pixels that differ but are tolerated as anti-aliasing.
  std::vector<std::uint32_t> tolerated;
  // Areas that differ as a whole: elements that moved, appeared or vanished at Layout, and
  // floating regions whose content was not found within their offsets.
  std::vector<Rect> differentAreas;
};

// Tuning of the metrics. The defaults are what the server uses.
struct ComparerOptions {
  // Strict: the perceptual colour distance (YIQ, 0..1) above which a pixel differs.
  float colourThreshold = 0.1f;
  // Content and Layout: a luminance step (0..255) between neighbours that counts as an edge.
  int edgeThreshold = 24;
  // Layout: edges closer than this (in pixels) join into one element.
  int layoutCell = 8;
  // Layout: how far (in pixels) an element's sides may shift and still be the same element.
  int layoutTolerance = 8;
  // Threads for the Strict scan of large images (at most this many, at least 1).
  int threads = 2;
};

// Compares a current image with its baseline. Stateless apart from its options; one instance
// may be used from several threads at once.
class ImageComparer {
 public:
  explicit ImageComparer(ComparerOptions options = {});

  // Compares at the settings' level and regions. Images of different sizes never match,
  // except at None, which always matches.
  CompareResult compare(const Image& baseline, const Image& current,
                        const CompareSettings& settings) const;

  // An image that shows what differs: the current image faded, differing pixels red,
  // tolerated anti-aliasing yellow, differing areas outlined in red, ignored regions shaded.
  // When the sizes differ it covers both images and marks what only one of them covers.
  Image diffImage(const Image& baseline, const Image& current, const CompareSettings& settings,
                  const CompareResult& result) const;

  // The options given at construction.
  const ComparerOptions& options() const { return options_; }

 private:
  ComparerOptions options_;
};

}  // namespace lumo::server
