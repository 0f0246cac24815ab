#include "core/fluent/match_settings_translation.h"

#include <vector>

#include "core/fluent/region_filter.h"
#include "lumo/detail/check_settings_internal_protocol.h"

namespace lumo {
namespace {

std::vector<Region> filteredRegions(const CheckSettingsInternalProtocol::RegionProviders& providers,
                                    double statusBarHeight, bool shouldCropStatusBar) {
  std::vector<Region> regions;
  regions.reserve(providers.size());
  for (const auto& provider : providers) {
    regions.push_back(
        *RegionFilter::filterRegion(provider->getRegion(), statusBarHeight, shouldCropStatusBar));
  }
  return regions;
}

}  // namespace

ImageMatchSettings MatchSettingsTranslation::translate(
    const CheckSettingsInternalProtocol& settings, MatchLevel defaultLevel, double statusBarHeight,
    bool shouldCropStatusBar) {
  MatchLevel level = settings.getMatchLevel();
  // "None" on a check means the check sets no level of its own.
  if (level == MatchLevelNone) {
    level = defaultLevel;
  }
  ImageMatchSettings result(level);
  result.setIgnoredRegions(
      filteredRegions(settings.getIgnoredRegions(), statusBarHeight, shouldCropStatusBar));
  result.setLayoutRegions(
      filteredRegions(settings.getLayoutRegions(), statusBarHeight, shouldCropStatusBar));
  result.setStrictRegions(
      filteredRegions(settings.getStrictRegions(), statusBarHeight, shouldCropStatusBar));
  result.setContentRegions(
      filteredRegions(settings.getContentRegions(), statusBarHeight, shouldCropStatusBar));
  std::vector<FloatingMatchSettings> floating;
  floating.reserve(settings.getFloatingRegions().size());
  for (const auto& provider : settings.getFloatingRegions()) {
    floating.emplace_back(*RegionFilter::filterFloatingRegion(
        provider->getRegion(), statusBarHeight, shouldCropStatusBar));
  }
  result.setFloatingRegions(std::move(floating));
  result.setIgnoreCaret(settings.getIgnoreCaret());
  return result;
}

}  // namespace lumo
