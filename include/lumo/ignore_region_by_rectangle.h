#pragma once

#include <memory>

#include "lumo/get_region_protocol.h"

namespace lumo {

// A fixed rectangle as a region provider. The region is shared, not copied: every settings
// copy holding this provider sees the same Region object.
class IgnoreRegionByRectangle : public GetRegionProtocol {
 public:
  explicit IgnoreRegionByRectangle(std::shared_ptr<Region> region) : region_(std::move(region)) {}

  const std::shared_ptr<Region>& region() const { return region_; }
  void setRegion(std::shared_ptr<Region> region) { region_ = std::move(region); }

  // The stored region object itself.
  std::shared_ptr<Region> getRegion() const override { return region_; }

 private:
  std::shared_ptr<Region> region_;
};

}  // namespace lumo
