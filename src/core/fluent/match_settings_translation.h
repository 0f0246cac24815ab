#pragma once

#include "lumo/image_match_settings.h"
#include "lumo/match_level.h"

namespace lumo {

class CheckSettingsInternalProtocol;

// Turns the settings of one check into what the server compares it with. Stateless.
class MatchSettingsTranslation {
 public:
  // The check's match level, or `defaultLevel` when the check says "None"; its caret flag; and
  // the five region lists, each region taken from its provider when this is called and moved
  // by the status-bar filter. An empty provider list gives an empty (set) list. The check's
  // target region, stitch flag and status-bar flag are not read: the checked area and the
  // status-bar crop are the controller's business.
  static ImageMatchSettings translate(const CheckSettingsInternalProtocol& settings,
                                      MatchLevel defaultLevel, double statusBarHeight,
                                      bool shouldCropStatusBar);
};

}  // namespace lumo
