#pragma once

#include <string>
#include <vector>

#include "lumo/image.h"

namespace lumo::cli {

// One screen of the demo's example app, drawn by the program so that the demo needs no files.
struct DemoScreen {
  std::string tag;  // "Login", "Inbox", "Settings"
  ImagePtr image;   // 360 x 640 pixels at scale 1
};

// The example app's three screens. With `changed`, the Login screen's button has a new colour:
// the difference the demo's third run finds.
std::vector<DemoScreen> drawDemoScreens(bool changed = false);

}  // namespace lumo::cli
