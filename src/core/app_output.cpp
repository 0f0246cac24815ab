#include "core/app_output.h"

#include <utility>

namespace lumo {

AppOutput::AppOutput(std::optional<std::string> title, std::optional<std::string> screenshot64)
    : title_(std::move(title)), screenshot64_(std::move(screenshot64)) {}

Json AppOutput::dictionary() const {
  Json json = Json::object();
  if (screenshot64_ && !screenshot64_->empty()) {
    json["screenshot64"] = *screenshot64_;
  }
  if (title_ && !title_->empty()) {
    json["title"] = *title_;
  }
  return json;
}

}  // namespace lumo
