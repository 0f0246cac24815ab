#pragma once

#include <cstdint>
#include <memory>

#include "lumo/floating_offsets.h"
#include "lumo/get_floating_region_protocol.h"
#include "lumo/region.h"

namespace lumo {

// A fixed rectangle whose content may move by the given offsets. The region is shared.
class FloatingRegionByRectangle : public GetFloatingRegionProtocol {
 public:
  // Offsets in the order up, down, left, right.
  FloatingRegionByRectangle(std::shared_ptr<Region> region, std::int64_t maxUpOffset,
                            std::int64_t maxDownOffset, std::int64_t maxLeftOffset,
                            std::int64_t maxRightOffset)
      : region_(std::move(region)),
        offsets_{maxUpOffset, maxDownOffset, maxLeftOffset, maxRightOffset} {}

  const std::shared_ptr<Region>& region() const { return region_; }
  void setRegion(std::shared_ptr<Region> region) { region_ = std::move(region); }
  const FloatingOffsets& offsets() const { return offsets_; }
  void setOffsets(FloatingOffsets offsets) { offsets_ = offsets; }
  std::int64_t maxUpOffset() const { return offsets_.maxUpOffset; }
  std::int64_t maxDownOffset() const { return offsets_.maxDownOffset; }
  std::int64_t maxLeftOffset() const { return offsets_.maxLeftOffset; }
  std::int64_t maxRightOffset() const { return offsets_.maxRightOffset; }

  // A new floating region from the region's integers and the offsets.
  std::shared_ptr<FloatingMatchSettings> getRegion() const override;

 private:
  std::shared_ptr<Region> region_;
  FloatingOffsets offsets_;
};

}  // namespace lumo
