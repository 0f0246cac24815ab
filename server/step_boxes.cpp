#include "step_boxes.h"

#include <fmt/format.h>

#include "json_limits.h"
#include "lumo/detail/json.h"
#include "lumo/server/store_records.h"
#include "rect_pixels.h"

namespace lumo::server::detail {

std::string boxesToJson(const std::vector<Rect>& boxes) {
  Json array = Json::array();
  for (const Rect& r : boxes) {
    array.push_back({leftOf(r), topOf(r), widthOf(r), heightOf(r)});
  }
  return array.dump();
}

std::vector<Rect> boxesFromJson(const std::string& text, int position) {
  // Never written so by this server, but the database may have been: the parser recurses per
  // level, so an over-deep text is refused before it could overflow the stack.
  if (!checkJsonDepth(text)) {
    throw StoreError(fmt::format("the difference boxes of step {} nest deeper than {} levels",
                                 position + 1, kMaxJsonDepth));
  }
  const Json boxes = Json::parse(text, nullptr, false);
  std::vector<Rect> rects;
  if (!boxes.is_array()) {
    return rects;
  }
  auto number = [](const Json& v) { return v.is_number() ? v.get<int>() : 0; };
  for (const Json& box : boxes) {
    if (box.is_object()) {
      rects.push_back(pixelRect(number(box.value("left", Json())), number(box.value("top", Json())),
                                number(box.value("width", Json())),
                                number(box.value("height", Json()))));
    } else if (box.is_array() && box.size() == 4) {
      rects.push_back(pixelRect(number(box[0]), number(box[1]), number(box[2]), number(box[3])));
    }
  }
  return rects;
}

}  // namespace lumo::server::detail
