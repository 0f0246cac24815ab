#pragma once

#include <optional>
#include <string>

#include "lumo/detail/json.h"

namespace lumo {

// The application link of one step. Immutable value.
class AppUrls {
 public:
  AppUrls() = default;
  // "step" when it is a string; never throws.
  explicit AppUrls(const Json& dictionary);

  const std::optional<std::string>& step() const { return step_; }

  // {"step"} when set, otherwise {}.
  Json dictionary() const;
  std::string description() const { return dictionary().dump(); }

 private:
  std::optional<std::string> step_;
};

}  // namespace lumo
