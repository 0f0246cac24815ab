#pragma once

#include <memory>

#include "core/fluent/region_provider_protocol.h"

namespace lumo {

// A fixed target area for a check; gives the stored region object itself.
class RegionProvider : public RegionProviderProtocol {
 public:
  explicit RegionProvider(std::shared_ptr<Region> region) : region_(std::move(region)) {}

  const std::shared_ptr<Region>& region() const { return region_; }
  void setRegion(std::shared_ptr<Region> region) { region_ = std::move(region); }
  std::shared_ptr<Region> getRegion() const override { return region_; }

 private:
  std::shared_ptr<Region> region_;
};

}  // namespace lumo
