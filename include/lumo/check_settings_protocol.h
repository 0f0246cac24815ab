#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "lumo/element.h"
#include "lumo/match_level.h"
#include "lumo/region.h"

namespace lumo {

class CheckSettings;

// The fluent face of a check's settings. Every operation returns a modified copy and leaves
// the receiver as it was, so one value can be refined differently by several checks.
class CheckSettingsProtocol {
 public:
  virtual ~CheckSettingsProtocol() = default;

  // Special regions, appended in the order given.
  virtual CheckSettings ignore(const std::vector<Region>& regions) const = 0;
  virtual CheckSettings layout(const std::vector<Region>& regions) const = 0;
  virtual CheckSettings strict(const std::vector<Region>& regions) const = 0;
  virtual CheckSettings content(const std::vector<Region>& regions) const = 0;
  virtual CheckSettings fully() const = 0;
  // Each region may move by `maxOffset` in every direction.
  virtual CheckSettings floating(const std::vector<Region>& regions,
                                 std::int64_t maxOffset) const = 0;
  // Note the order: up, down, right, left.
  virtual CheckSettings floating(const Region& region, std::int64_t maxUpOffset,
                                 std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                 std::int64_t maxLeftOffset) const = 0;
  virtual CheckSettings timeoutInSeconds(std::uint64_t seconds) const = 0;
  virtual CheckSettings layout() const = 0;
  virtual CheckSettings exact() const = 0;
  virtual CheckSettings strict() const = 0;
  virtual CheckSettings content() const = 0;
  virtual CheckSettings matchLevel(MatchLevel matchLevel) const = 0;
  virtual CheckSettings ignoreCaret(bool ignoreCaret) const = 0;
  virtual CheckSettings ignoreCaret() const = 0;
  virtual CheckSettings withStatusBar() const = 0;
};

}  // namespace lumo
