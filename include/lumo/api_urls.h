#pragma once

#include <optional>
#include <string>

#include "lumo/detail/json.h"

namespace lumo {

// Image links of one step: baseline, current and difference images. Immutable value.
class ApiUrls {
 public:
  ApiUrls() = default;
  // "baselineImage", "currentImage", "diffImage" when they are strings; never throws.
  explicit ApiUrls(const Json& dictionary);

  const std::optional<std::string>& baselineImage() const { return baselineImage_; }
  const std::optional<std::string>& currentImage() const { return currentImage_; }
  const std::optional<std::string>& diffImage() const { return diffImage_; }

  // The three links, each when set.
  Json dictionary() const;
  std::string description() const { return dictionary().dump(); }

 private:
  std::optional<std::string> baselineImage_;
  std::optional<std::string> currentImage_;
  std::optional<std::string> diffImage_;
};

}  // namespace lumo
