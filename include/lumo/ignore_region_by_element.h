#pragma once

#include <memory>

#include "lumo/element.h"
#include "lumo/get_region_protocol.h"

namespace lumo {

// A UI element as a region provider: its frame is read at every call.
class IgnoreRegionByElement : public GetRegionProtocol {
 public:
  explicit IgnoreRegionByElement(std::shared_ptr<const Element> element)
      : element_(std::move(element)) {}

  const std::shared_ptr<const Element>& element() const { return element_; }
  void setElement(std::shared_ptr<const Element> element) { element_ = std::move(element); }

  // A new region from the element's current frame (fractions truncated toward zero).
  std::shared_ptr<Region> getRegion() const override {
    return std::make_shared<Region>(element_->frame());
  }

 private:
  std::shared_ptr<const Element> element_;
};

}  // namespace lumo
