#include "lumo/check_settings.h"

#include "common/argument_guard.h"
#include "lumo/floating_region_by_element.h"
#include "lumo/floating_region_by_rectangle.h"
#include "lumo/ignore_region_by_element.h"
#include "lumo/ignore_region_by_rectangle.h"

namespace lumo {

CheckSettings::CheckSettings() : targetRegion_(std::make_shared<Region>(Region::emptyRegion())) {}

CheckSettings::CheckSettings(std::uint64_t timeout) : CheckSettings() { timeout_ = timeout; }

CheckSettings::CheckSettings(std::shared_ptr<Region> region) : CheckSettings() {
  targetRegion_ = std::move(region);
}

CheckSettings::CheckSettings(const Region& region)
    : CheckSettings(std::make_shared<Region>(region)) {}

// The implicit copy is the copy the fluent operations need: new lists holding the same
// providers, the same target region object, the flags by value.
template <typename Change>
CheckSettings CheckSettings::copyWith(Change&& change) const {
  CheckSettings copy(*this);
  change(copy);
  return copy;
}

CheckSettings CheckSettings::ignore(const std::vector<Region>& regions) const {
  return copyWith([&](CheckSettings& c) {
    for (const auto& region : regions) {
      c.ignoreRegion(region);
    }
  });
}

CheckSettings CheckSettings::layout(const std::vector<Region>& regions) const {
  return copyWith([&](CheckSettings& c) {
    for (const auto& region : regions) {
      c.layoutRegion(region);
    }
  });
}

CheckSettings CheckSettings::strict(const std::vector<Region>& regions) const {
  return copyWith([&](CheckSettings& c) {
    for (const auto& region : regions) {
      c.strictRegion(region);
    }
  });
}

CheckSettings CheckSettings::content(const std::vector<Region>& regions) const {
  return copyWith([&](CheckSettings& c) {
    for (const auto& region : regions) {
      c.contentRegion(region);
    }
  });
}

CheckSettings CheckSettings::fully() const {
  return copyWith([](CheckSettings& c) { c.stitchContent_ = true; });
}

CheckSettings CheckSettings::floating(const std::vector<Region>& regions,
                                      std::int64_t maxOffset) const {
  return copyWith([&](CheckSettings& c) {
    for (const auto& region : regions) {
      c.floatingRegion(region, maxOffset, maxOffset, maxOffset, maxOffset);
    }
  });
}

CheckSettings CheckSettings::floating(const Region& region, std::int64_t maxUpOffset,
                                      std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                      std::int64_t maxLeftOffset) const {
  return copyWith([&](CheckSettings& c) {
    c.floatingRegion(region, maxUpOffset, maxDownOffset, maxRightOffset, maxLeftOffset);
  });
}

CheckSettings CheckSettings::timeoutInSeconds(std::uint64_t seconds) const {
  return copyWith([&](CheckSettings& c) { c.timeout_ = seconds; });
}

CheckSettings CheckSettings::layout() const { return matchLevel(MatchLevelLayout); }
CheckSettings CheckSettings::exact() const { return matchLevel(MatchLevelExact); }
CheckSettings CheckSettings::strict() const { return matchLevel(MatchLevelStrict); }
CheckSettings CheckSettings::content() const { return matchLevel(MatchLevelContent); }

CheckSettings CheckSettings::matchLevel(MatchLevel matchLevel) const {
  return copyWith([&](CheckSettings& c) { c.matchLevel_ = matchLevel; });
}

CheckSettings CheckSettings::ignoreCaret(bool ignoreCaret) const {
  return copyWith([&](CheckSettings& c) { c.shouldIgnoreCaret_ = ignoreCaret; });
}

CheckSettings CheckSettings::ignoreCaret() const { return ignoreCaret(true); }

CheckSettings CheckSettings::withStatusBar() const {
  return copyWith([](CheckSettings& c) { c.shouldLeaveStatusBar_ = true; });
}

CheckSettings CheckSettings::withElement(
    void (CheckSettings::*add)(std::shared_ptr<GetRegionProtocol>),
    std::shared_ptr<const Element> element) const {
  return copyWith([&](CheckSettings& c) {
    (c.*add)(std::make_shared<IgnoreRegionByElement>(std::move(element)));
  });
}

CheckSettings CheckSettings::floatingElement(std::shared_ptr<const Element> element,
                                             std::int64_t maxUpOffset, std::int64_t maxDownOffset,
                                             std::int64_t maxRightOffset,
                                             std::int64_t maxLeftOffset) const {
  return copyWith([&](CheckSettings& c) {
    c.floating_(std::make_shared<FloatingRegionByElement>(element, maxUpOffset, maxDownOffset,
                                                          maxLeftOffset, maxRightOffset));
  });
}

CheckSettings CheckSettings::withRegion(
    void (CheckSettings::*add)(std::shared_ptr<GetRegionProtocol>),
    std::shared_ptr<Region> region) const {
  ArgumentGuard::notNil(region, "region");
  return copyWith([&](CheckSettings& c) {
    (c.*add)(std::make_shared<IgnoreRegionByRectangle>(std::move(region)));
  });
}

CheckSettings CheckSettings::floatingShared(std::shared_ptr<Region> region,
                                            std::int64_t maxUpOffset, std::int64_t maxDownOffset,
                                            std::int64_t maxRightOffset,
                                            std::int64_t maxLeftOffset) const {
  ArgumentGuard::notNil(region, "region");
  return copyWith([&](CheckSettings& c) {
    c.floating_(std::make_shared<FloatingRegionByRectangle>(
        std::move(region), maxUpOffset, maxDownOffset, maxLeftOffset, maxRightOffset));
  });
}

void CheckSettings::updateTargetRegion(std::shared_ptr<Region> region) {
  targetRegion_ = std::move(region);
}

// One rectangle wrapper serves the four plain kinds: the list it lands in decides the kind.
void CheckSettings::ignoreRegion(const Region& region) {
  ignore_(std::make_shared<IgnoreRegionByRectangle>(std::make_shared<Region>(region)));
}

void CheckSettings::layoutRegion(const Region& region) {
  layout_(std::make_shared<IgnoreRegionByRectangle>(std::make_shared<Region>(region)));
}

void CheckSettings::strictRegion(const Region& region) {
  strict_(std::make_shared<IgnoreRegionByRectangle>(std::make_shared<Region>(region)));
}

void CheckSettings::contentRegion(const Region& region) {
  content_(std::make_shared<IgnoreRegionByRectangle>(std::make_shared<Region>(region)));
}

void CheckSettings::floatingRegion(const Region& region, std::int64_t maxUpOffset,
                                   std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                   std::int64_t maxLeftOffset) {
  // The provider takes up, down, left, right: pass by meaning, not by position.
  floating_(std::make_shared<FloatingRegionByRectangle>(
      std::make_shared<Region>(region), maxUpOffset, maxDownOffset, maxLeftOffset, maxRightOffset));
}

void CheckSettings::ignore_(std::shared_ptr<GetRegionProtocol> provider) {
  ignoredRegions_.push_back(std::move(provider));
}

void CheckSettings::layout_(std::shared_ptr<GetRegionProtocol> provider) {
  layoutRegions_.push_back(std::move(provider));
}

void CheckSettings::strict_(std::shared_ptr<GetRegionProtocol> provider) {
  strictRegions_.push_back(std::move(provider));
}

void CheckSettings::content_(std::shared_ptr<GetRegionProtocol> provider) {
  contentRegions_.push_back(std::move(provider));
}

void CheckSettings::floating_(std::shared_ptr<GetFloatingRegionProtocol> provider) {
  floatingRegions_.push_back(std::move(provider));
}

}  // namespace lumo
