#include "lumo/floating_match_settings.h"

namespace lumo {

FloatingMatchSettings::FloatingMatchSettings(std::int64_t left, std::int64_t top,
                                             std::int64_t width, std::int64_t height,
                                             std::int64_t maxUpOffset, std::int64_t maxDownOffset,
                                             std::int64_t maxLeftOffset,
                                             std::int64_t maxRightOffset)
    : left_(left),
      top_(top),
      width_(width),
      height_(height),
      maxUpOffset_(maxUpOffset),
      maxDownOffset_(maxDownOffset),
      maxLeftOffset_(maxLeftOffset),
      maxRightOffset_(maxRightOffset) {}

Json FloatingMatchSettings::dictionary() const {
  return Json{{"left", left_},
              {"top", top_},
              {"width", width_},
              {"height", height_},
              {"maxUpOffset", maxUpOffset_},
              {"maxDownOffset", maxDownOffset_},
              {"maxLeftOffset", maxLeftOffset_},
              {"maxRightOffset", maxRightOffset_}};
}

}  // namespace lumo
