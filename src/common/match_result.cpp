#include "lumo/match_result.h"

#include "common/json_reader.h"
#include "lumo/exception.h"

namespace lumo {

MatchResult::MatchResult(const Json& dictionary) {
  if (const Json* screenshot = detail::member(dictionary, "screenshot")) {
    screenshotValue_ = *screenshot;
  }
  detail::readBool(dictionary, "asExpected", asExpected_);
}

Json MatchResult::dictionary() const {
  if (!screenshotValue_) {
    throw illegalArgumentException("The match result has no value for \"screenshot\"");
  }
  return Json{{"screenshot", *screenshotValue_}, {"asExpected", asExpected_}};
}

}  // namespace lumo
