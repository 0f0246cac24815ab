#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <vector>

#include "lumo/check_settings_protocol.h"
#include "lumo/detail/check_settings_internal_protocol.h"
#include "lumo/element.h"

namespace lumo {

// The settings of one checkpoint, built in one expression:
//
//   CheckSettings().ignore({clock, banner}).floating(card, 10, 10, 0, 0).layout()
//
// A value: copying gives new region lists that share the provider objects (and the Region
// inside each), so refining a copy never changes the original. The default match level is
// None, which lets the controller's default apply; the default timeout 0 means one attempt.
class CheckSettings : public CheckSettingsProtocol, public CheckSettingsInternalProtocol {
 public:
  CheckSettings();
  explicit CheckSettings(std::uint64_t timeout);
  // The target region is shared, not copied.
  explicit CheckSettings(std::shared_ptr<Region> region);
  explicit CheckSettings(const Region& region);

  [[nodiscard]] CheckSettings ignore(const std::vector<Region>& regions) const override;
  [[nodiscard]] CheckSettings layout(const std::vector<Region>& regions) const override;
  [[nodiscard]] CheckSettings strict(const std::vector<Region>& regions) const override;
  [[nodiscard]] CheckSettings content(const std::vector<Region>& regions) const override;
  [[nodiscard]] CheckSettings fully() const override;
  [[nodiscard]] CheckSettings floating(const std::vector<Region>& regions,
                                       std::int64_t maxOffset) const override;
  [[nodiscard]] CheckSettings floating(const Region& region, std::int64_t maxUpOffset,
                                       std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                       std::int64_t maxLeftOffset) const override;
  [[nodiscard]] CheckSettings timeoutInSeconds(std::uint64_t seconds) const override;
  [[nodiscard]] CheckSettings layout() const override;
  [[nodiscard]] CheckSettings exact() const override;
  [[nodiscard]] CheckSettings strict() const override;
  [[nodiscard]] CheckSettings content() const override;
  [[nodiscard]] CheckSettings matchLevel(MatchLevel matchLevel) const override;
  [[nodiscard]] CheckSettings ignoreCaret(bool ignoreCaret) const override;
  [[nodiscard]] CheckSettings ignoreCaret() const override;
  [[nodiscard]] CheckSettings withStatusBar() const override;

  // Regions that follow a UI element: its frame is read when the check runs. (Templates, so
  // that a braced list such as ignore({}) always means regions.)
  template <std::derived_from<Element> E>
  [[nodiscard]] CheckSettings ignore(std::shared_ptr<E> element) const {
    return withElement(&CheckSettings::ignore_, std::move(element));
  }
  template <std::derived_from<Element> E>
  [[nodiscard]] CheckSettings layout(std::shared_ptr<E> element) const {
    return withElement(&CheckSettings::layout_, std::move(element));
  }
  template <std::derived_from<Element> E>
  [[nodiscard]] CheckSettings strict(std::shared_ptr<E> element) const {
    return withElement(&CheckSettings::strict_, std::move(element));
  }
  template <std::derived_from<Element> E>
  [[nodiscard]] CheckSettings content(std::shared_ptr<E> element) const {
    return withElement(&CheckSettings::content_, std::move(element));
  }
  // Up, down, right, left, as for a rectangle.
  template <std::derived_from<Element> E>
  [[nodiscard]] CheckSettings floating(std::shared_ptr<E> element, std::int64_t maxUpOffset,
                                       std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                       std::int64_t maxLeftOffset) const {
    return floatingElement(std::move(element), maxUpOffset, maxDownOffset, maxRightOffset,
                           maxLeftOffset);
  }

  // A region the caller keeps and may change later: the provider holds this very object, so
  // the check sends the region as it is when the check runs. A null region fails the argument
  // guard ("region is nil"). (Templates for the same reason as the element ones.)
  template <std::same_as<Region> R>
  [[nodiscard]] CheckSettings ignore(std::shared_ptr<R> region) const {
    return withRegion(&CheckSettings::ignore_, std::move(region));
  }
  template <std::same_as<Region> R>
  [[nodiscard]] CheckSettings layout(std::shared_ptr<R> region) const {
    return withRegion(&CheckSettings::layout_, std::move(region));
  }
  template <std::same_as<Region> R>
  [[nodiscard]] CheckSettings strict(std::shared_ptr<R> region) const {
    return withRegion(&CheckSettings::strict_, std::move(region));
  }
  template <std::same_as<Region> R>
  [[nodiscard]] CheckSettings content(std::shared_ptr<R> region) const {
    return withRegion(&CheckSettings::content_, std::move(region));
  }
  // Up, down, right, left, as for a rectangle given by value.
  template <std::same_as<Region> R>
  [[nodiscard]] CheckSettings floating(std::shared_ptr<R> region, std::int64_t maxUpOffset,
                                       std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                       std::int64_t maxLeftOffset) const {
    return floatingShared(std::move(region), maxUpOffset, maxDownOffset, maxRightOffset,
                          maxLeftOffset);
  }

  const std::shared_ptr<Region>& getTargetRegion() const override { return targetRegion_; }
  std::uint64_t getTimeoutInSeconds() const override { return timeout_; }
  const RegionProviders& getIgnoredRegions() const override { return ignoredRegions_; }
  const RegionProviders& getLayoutRegions() const override { return layoutRegions_; }
  const RegionProviders& getStrictRegions() const override { return strictRegions_; }
  const RegionProviders& getContentRegions() const override { return contentRegions_; }
  const FloatingRegionProviders& getFloatingRegions() const override { return floatingRegions_; }
  MatchLevel getMatchLevel() const override { return matchLevel_; }
  bool getStitchContent() const override { return stitchContent_; }
  bool getIgnoreCaret() const override { return shouldIgnoreCaret_; }
  bool getWithStatusBar() const override { return shouldLeaveStatusBar_; }

 protected:
  // Change this object; the fluent operations call them on their copy.
  void updateTargetRegion(std::shared_ptr<Region> region);
  void ignoreRegion(const Region& region);
  void layoutRegion(const Region& region);
  void strictRegion(const Region& region);
  void contentRegion(const Region& region);
  void floatingRegion(const Region& region, std::int64_t maxUpOffset, std::int64_t maxDownOffset,
                      std::int64_t maxRightOffset, std::int64_t maxLeftOffset);
  // NOLINTBEGIN(readability-identifier-naming): the system spells these names.
  void ignore_(std::shared_ptr<GetRegionProtocol> provider);
  void layout_(std::shared_ptr<GetRegionProtocol> provider);
  void strict_(std::shared_ptr<GetRegionProtocol> provider);
  void content_(std::shared_ptr<GetRegionProtocol> provider);
  void floating_(std::shared_ptr<GetFloatingRegionProtocol> provider);
  // NOLINTEND(readability-identifier-naming)

 private:
  template <typename Change>
  CheckSettings copyWith(Change&& change) const;
  CheckSettings withElement(void (CheckSettings::*add)(std::shared_ptr<GetRegionProtocol>),
                            std::shared_ptr<const Element> element) const;
  CheckSettings withRegion(void (CheckSettings::*add)(std::shared_ptr<GetRegionProtocol>),
                           std::shared_ptr<Region> region) const;
  CheckSettings floatingShared(std::shared_ptr<Region> region, std::int64_t maxUpOffset,
                               std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                               std::int64_t maxLeftOffset) const;
  CheckSettings floatingElement(std::shared_ptr<const Element> element, std::int64_t maxUpOffset,
                                std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                std::int64_t maxLeftOffset) const;

  RegionProviders ignoredRegions_;
  RegionProviders layoutRegions_;
  RegionProviders strictRegions_;
  RegionProviders contentRegions_;
  FloatingRegionProviders floatingRegions_;
  std::shared_ptr<Region> targetRegion_;
  MatchLevel matchLevel_ = MatchLevelNone;
  bool shouldIgnoreCaret_ = false;
  std::uint64_t timeout_ = 0;
  bool shouldLeaveStatusBar_ = false;
  bool stitchContent_ = false;
};

}  // namespace lumo
