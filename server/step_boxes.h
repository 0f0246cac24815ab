#pragma once

#include <string>
#include <vector>

#include "lumo/server/image_comparer.h"

namespace lumo::server::detail {

// A step's difference boxes as the stores keep them: a JSON array of
// [left, top, width, height].
std::string boxesToJson(const std::vector<Rect>& boxes);

// The boxes of such text (objects with those names are read too); anything else in it is
// skipped rather than failing a page. Text nested too deep to parse safely is a StoreError
// naming the step at `position`.
std::vector<Rect> boxesFromJson(const std::string& text, int position);

}  // namespace lumo::server::detail
