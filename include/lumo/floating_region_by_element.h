#pragma once

#include <cstdint>
#include <memory>

#include "lumo/element.h"
#include "lumo/floating_offsets.h"
#include "lumo/get_floating_region_protocol.h"

namespace lumo {

// A UI element whose content may move by the given offsets; its frame is read at every call.
class FloatingRegionByElement : public GetFloatingRegionProtocol {
 public:
  // Offsets in the order up, down, left, right.
  FloatingRegionByElement(std::shared_ptr<const Element> element, std::int64_t maxUpOffset,
                          std::int64_t maxDownOffset, std::int64_t maxLeftOffset,
                          std::int64_t maxRightOffset)
      : element_(std::move(element)),
        offsets_{maxUpOffset, maxDownOffset, maxLeftOffset, maxRightOffset} {}

  const std::shared_ptr<const Element>& element() const { return element_; }
  void setElement(std::shared_ptr<const Element> element) { element_ = std::move(element); }
  const FloatingOffsets& offsets() const { return offsets_; }
  void setOffsets(FloatingOffsets offsets) { offsets_ = offsets; }

  // A new floating region from the element's current frame (truncated) and the offsets.
  std::shared_ptr<FloatingMatchSettings> getRegion() const override;

 private:
  std::shared_ptr<const Element> element_;
  FloatingOffsets offsets_;
};

}  // namespace lumo
