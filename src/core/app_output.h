#pragma once

#include <optional>
#include <string>

#include "lumo/detail/json.h"

namespace lumo {

// What the application shows at a checkpoint: its window title and the screenshot as base64
// PNG text. Immutable value.
class AppOutput {
 public:
  AppOutput() = default;
  AppOutput(std::optional<std::string> title, std::optional<std::string> screenshot64);

  const std::optional<std::string>& title() const { return title_; }
  const std::optional<std::string>& screenshot64() const { return screenshot64_; }

  // "screenshot64" and "title", each only when it is neither nil nor empty.
  Json dictionary() const;

 private:
  std::optional<std::string> title_;
  std::optional<std::string> screenshot64_;
};

}  // namespace lumo
