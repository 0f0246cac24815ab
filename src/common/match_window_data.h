#pragma once

#include <optional>
#include <string>

#include "common/options.h"
#include "core/app_output.h"
#include "lumo/detail/json.h"

namespace lumo {

// The body of a match request: one checkpoint's output, its tag and its options. Immutable
// value.
class MatchWindowData {
 public:
  MatchWindowData(AppOutput appOutput, std::optional<std::string> tag, Options options);

  const AppOutput& appOutput() const { return appOutput_; }
  const std::optional<std::string>& tag() const { return tag_; }
  const Options& options() const { return options_; }

  // Exactly "appOutput", "tag" ("" when the tag is nil or empty) and "options". Throws as
  // Options::dictionary does.
  Json dictionary() const;
  // The compact JSON text of dictionary(), byte for byte, written without first copying the
  // screenshot text (megabytes) into a Json value. Throws as dictionary() does, and
  // Json::type_error for text that is not UTF-8.
  std::string compactJson() const;

 private:
  AppOutput appOutput_;
  std::optional<std::string> tag_;
  Options options_;
};

}  // namespace lumo
