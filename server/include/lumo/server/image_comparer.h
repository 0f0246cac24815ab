#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "lumo/geometry.h"
#include "lumo/image.h"
#include "lumo/match_level.h"

namespace lumo::server {

// A region whose content may be found moved by up to the four offsets (in pixels). Offsets
// reach at most to the image's borders, however large they are given.
struct FloatingRect {
  Rect rect;
  int maxUpOffset = 0;
  int maxDownOffset = 0;
  int maxLeftOffset = 0;
  int maxRightOffset = 0;
};

// What to compare and how: the step's level for the whole image and the regions that change
// it locally. Ignore regions win over every other kind; strict regions win over content
// regions, which win over layout regions. Regions are in the pixels of the compared images,
// in whole numbers; parts outside the image are ignored, and a negative width or height
// covers nothing.
struct CompareSettings {
  MatchLevel level = MatchLevelStrict;
  std::vector<Rect> ignore;
  std::vector<Rect> layout;
  std::vector<Rect> content;
  std::vector<Rect> strict;
  std::vector<FloatingRect> floating;
  // A text caret shown in one image and not the other does not count, at every level.
  bool ignoreCaret = false;
};

// The verdict of one comparison and what the diff image shows.
struct CompareResult {
  bool matches = true;
  // False when only the verdict was sought (ImageComparer::verdict) and it was found early:
  // the counts, boxes and marks below then cover only what was scanned.
  bool complete = true;
  // The two images differ in size; nothing else was compared.
  bool sizeMismatch = false;
  // Pixels that differ at their level.
  std::uint64_t differentPixels = 0;
  // Pixels that differ but are tolerated (anti-aliasing, sub-pixel drift, an edge redrawn a
  // pixel off).
  std::uint64_t toleratedPixels = 0;
  // Clusters of differing pixels and the different areas, as bounding boxes in image
  // coordinates; the whole current image when the sizes differ.
  std::vector<Rect> boxes;
  // Areas that differ as a whole: elements that moved, appeared or vanished at Layout, and
  // floating regions whose content was not found within their offsets.
  std::vector<Rect> differentAreas;
  // Carets left out of the comparison (ignoreCaret), each with a pixel around it.
  std::vector<Rect> carets;
  // A byte per pixel (row-major, the images' width) saying what was found there: 0 nothing,
  // 1 tolerated, 2 differs. Null when no pixel was compared one by one.
  std::shared_ptr<const std::uint8_t[]> marks;
};

// Tuning of the metrics. The defaults are what the server uses.
struct ComparerOptions {
  // Strict: the perceptual colour distance (OKLab with a toe on lightness, 0..1) at which an
  // average shift over 4 x 4 pixels or more is a change: a just-noticeable difference.
  float justNoticeable = 0.02f;
  // Strict: the distance at which a single pixel is a change on its own, unless
  // anti-aliasing or a shift of at most a pixel explains it.
  float visibleAlone = 0.1f;
  // Content and Layout: a luminance step (0..255) between neighbours that counts as an edge.
  int edgeThreshold = 24;
  // Layout: edges closer than this (in pixels) join into one element.
  int layoutCell = 8;
  // Layout: how far (in pixels) an element's sides may shift and still be the same element.
  int layoutTolerance = 8;
  // Difference boxes: differing pixels closer than about this (in pixels) share a box.
  int boxGap = 16;
  // Threads for the Strict scan of large images (at most this many, at least 1).
  int threads = 2;
};

// Compares a current image with its baseline. Stateless apart from its options; one instance
// may be used from several threads at once.
class ImageComparer {
 public:
  explicit ImageComparer(ComparerOptions options = {});

  // Compares at the settings' level and regions. Images of different sizes never match,
  // except at None, which always matches. Allocates a few bytes per pixel of the images at
  // most, and a floating region's search stops after a bounded number of comparisons.
  CompareResult compare(const Image& baseline, const Image& current,
                        const CompareSettings& settings) const;

  // compare()'s verdict, found sooner when the images differ: the pixel scan stops at the
  // first pixel that differs, and the result is then incomplete. Matching images get the
  // whole result.
  CompareResult verdict(const Image& baseline, const Image& current,
                        const CompareSettings& settings) const;

  // An image that shows what differs: the current image faded, differing pixels red,
  // tolerated anti-aliasing yellow, differing areas outlined in red, ignored regions shaded.
  // When the sizes differ it has the current image's size and marks in red what the baseline
  // does not cover, and with a red line the sides beyond which only the baseline goes.
  Image diffImage(const Image& baseline, const Image& current, const CompareSettings& settings,
                  const CompareResult& result) const;

  // The options given at construction.
  const ComparerOptions& options() const { return options_; }

 private:
  CompareResult compare(const Image& baseline, const Image& current,
                        const CompareSettings& settings, bool verdictOnly) const;

  ComparerOptions options_;
};

}  // namespace lumo::server
