#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lumo/detail/json.h"
#include "lumo/floating_match_settings.h"
#include "lumo/match_level.h"
#include "lumo/region.h"

namespace lumo {

// How the server compares one screenshot with its baseline: the match level, whether the text
// caret is ignored, and five lists of special regions. A list may be unset (nullopt), which
// the wire form writes like an empty list. Plain mutable value.
class ImageMatchSettings {
 public:
  using Regions = std::optional<std::vector<Region>>;
  using FloatingRegions = std::optional<std::vector<FloatingMatchSettings>>;

  // Strict, caret not ignored, no lists.
  ImageMatchSettings() = default;
  explicit ImageMatchSettings(MatchLevel matchLevel) : matchLevel_(matchLevel) {}

  static ImageMatchSettings defaultImageMatchSettings();
  static std::string matchLevelToString(MatchLevel matchLevel);

  MatchLevel matchLevel() const { return matchLevel_; }
  void setMatchLevel(MatchLevel matchLevel) { matchLevel_ = matchLevel; }
  bool ignoreCaret() const { return ignoreCaret_; }
  void setIgnoreCaret(bool ignoreCaret) { ignoreCaret_ = ignoreCaret; }

  const Regions& ignoredRegions() const { return ignoredRegions_; }
  void setIgnoredRegions(Regions regions) { ignoredRegions_ = std::move(regions); }
  const Regions& layoutRegions() const { return layoutRegions_; }
  void setLayoutRegions(Regions regions) { layoutRegions_ = std::move(regions); }
  const Regions& strictRegions() const { return strictRegions_; }
  void setStrictRegions(Regions regions) { strictRegions_ = std::move(regions); }
  const Regions& contentRegions() const { return contentRegions_; }
  void setContentRegions(Regions regions) { contentRegions_ = std::move(regions); }
  const FloatingRegions& floatingRegions() const { return floatingRegions_; }
  void setFloatingRegions(FloatingRegions regions) { floatingRegions_ = std::move(regions); }

  // "Match level: <name>".
  std::string description() const;
  // Always the seven keys "matchLevel", "ignoreCaret", "Ignore", "Layout", "Strict", "Content",
  // "Floating"; the lists keep their order and duplicates.
  Json dictionary() const;

 private:
  MatchLevel matchLevel_ = MatchLevelStrict;
  bool ignoreCaret_ = false;
  Regions ignoredRegions_;
  Regions layoutRegions_;
  Regions strictRegions_;
  Regions contentRegions_;
  FloatingRegions floatingRegions_;
};

}  // namespace lumo
