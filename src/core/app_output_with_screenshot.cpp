#include "core/app_output_with_screenshot.h"

#include <utility>

namespace lumo {

AppOutputWithScreenshot::AppOutputWithScreenshot(AppOutput appOutput,
                                                 std::shared_ptr<LumoScreenshot> screenshot)
    : appOutput_(std::move(appOutput)), screenshot_(std::move(screenshot)) {}

}  // namespace lumo
