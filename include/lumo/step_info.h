#pragma once

#include <optional>
#include <string>

#include "lumo/api_urls.h"
#include "lumo/app_urls.h"
#include "lumo/detail/json.h"

namespace lumo {

// One checkpoint of a finished test as the server summarises it. Immutable value.
class StepInfo {
 public:
  StepInfo() = default;
  // Lenient: absent, null or mistyped values keep their defaults; never throws.
  explicit StepInfo(const Json& dictionary);

  const std::optional<ApiUrls>& apiUrls() const { return apiUrls_; }
  const std::optional<AppUrls>& appUrls() const { return appUrls_; }
  const std::optional<std::string>& name() const { return name_; }
  bool isDifferent() const { return isDifferent_; }
  bool hasBaselineImage() const { return hasBaselineImage_; }
  bool hasCurrentImage() const { return hasCurrentImage_; }

  // "apiUrls", "appUrls" (when set), the three flags, "name" (when set).
  Json dictionary() const;
  std::string description() const { return dictionary().dump(); }

 private:
  std::optional<ApiUrls> apiUrls_;
  std::optional<AppUrls> appUrls_;
  std::optional<std::string> name_;
  bool isDifferent_ = false;
  bool hasBaselineImage_ = false;
  bool hasCurrentImage_ = false;
};

}  // namespace lumo
