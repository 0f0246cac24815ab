#pragma once

#include <memory>
#include <optional>

#include "lumo/detail/json.h"

namespace lumo {

class LumoScreenshot;

// The server's answer to a match request. Immutable value.
class MatchResult {
 public:
  // Not as expected, no screenshot value.
  MatchResult() = default;
  // Keeps whatever value stands under "screenshot" (a JSON null counts as absent) and reads
  // "asExpected" as a flag (true, or a non-zero number). Anything else is ignored; never throws.
  explicit MatchResult(const Json& dictionary);

  // Always null: the server's value is JSON, never a screenshot object.
  std::shared_ptr<LumoScreenshot> screenshot() const { return nullptr; }
  // The value the server sent under "screenshot", as it came.
  const std::optional<Json>& screenshotValue() const { return screenshotValue_; }
  bool asExpected() const { return asExpected_; }

  // {"screenshot": value, "asExpected": flag}. Throws an "IllegalArgumentException" Exception
  // when there is no screenshot value to write.
  Json dictionary() const;

 private:
  std::optional<Json> screenshotValue_;
  bool asExpected_ = false;
};

}  // namespace lumo
