#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lumo/detail/json.h"
#include "lumo/region.h"

namespace lumo {

// The server's default match settings of a finished test, as it reports them (not the
// ImageMatchSettings the client sends). Immutable value. The flag `reminder` travels under
// the key "remainder"; the split heights are kept only as flags.
class DefaultMatchSettings {
 public:
  using Regions = std::optional<std::vector<Region>>;

  DefaultMatchSettings() = default;
  // Lenient: absent, null or mistyped values keep their defaults; never throws. Floating
  // regions keep only their rectangles.
  explicit DefaultMatchSettings(const Json& dictionary);

  // One region per entry, in order; missing (or non-numeric) keys count as 0 and a non-object
  // entry gives the zero region. A non-array gives an empty list.
  static std::vector<Region> regionsFromDictionaries(const Json& dictionaries);
  // Each region's own dictionary, in order.
  static Json dictionariesFromRegions(const std::vector<Region>& regions);

  const Regions& content() const { return content_; }
  const Regions& floating() const { return floating_; }
  const Regions& ignore() const { return ignore_; }
  bool ignoreCaret() const { return ignoreCaret_; }
  const Regions& layout() const { return layout_; }
  // The server's text, not mapped to MatchLevel.
  const std::optional<std::string>& matchLevel() const { return matchLevel_; }
  bool reminder() const { return reminder_; }
  // Read through single precision.
  double scale() const { return scale_; }
  bool splitBottomHeight() const { return splitBottomHeight_; }
  bool splitTopHeight() const { return splitTopHeight_; }
  const Regions& strict() const { return strict_; }

  Json dictionary() const;
  std::string description() const { return dictionary().dump(); }

 private:
  Regions content_;
  Regions floating_;
  Regions ignore_;
  bool ignoreCaret_ = false;
  Regions layout_;
  std::optional<std::string> matchLevel_;
  bool reminder_ = false;
  double scale_ = 0;
  bool splitBottomHeight_ = false;
  bool splitTopHeight_ = false;
  Regions strict_;
};

}  // namespace lumo
