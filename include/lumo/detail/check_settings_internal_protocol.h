#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "lumo/get_floating_region_protocol.h"
#include "lumo/get_region_protocol.h"
#include "lumo/match_level.h"
#include "lumo/region.h"

namespace lumo {

// What the controller reads from a check's settings. Getters return the live fields, no
// copies.
class CheckSettingsInternalProtocol {
 public:
  using RegionProviders = std::vector<std::shared_ptr<GetRegionProtocol>>;
  using FloatingRegionProviders = std::vector<std::shared_ptr<GetFloatingRegionProtocol>>;

  virtual ~CheckSettingsInternalProtocol() = default;

  virtual const std::shared_ptr<Region>& getTargetRegion() const = 0;
  // Whole seconds of retrying; 0 means a single attempt.
  virtual std::uint64_t getTimeoutInSeconds() const = 0;
  virtual const RegionProviders& getIgnoredRegions() const = 0;
  virtual const RegionProviders& getLayoutRegions() const = 0;
  virtual const RegionProviders& getStrictRegions() const = 0;
  virtual const RegionProviders& getContentRegions() const = 0;
  virtual const FloatingRegionProviders& getFloatingRegions() const = 0;
  // MatchLevelNone when the check leaves the level to the controller's default.
  virtual MatchLevel getMatchLevel() const = 0;
  virtual bool getStitchContent() const = 0;
  virtual bool getIgnoreCaret() const = 0;
  virtual bool getWithStatusBar() const = 0;
};

}  // namespace lumo
