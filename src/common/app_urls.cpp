#include "lumo/app_urls.h"

#include "common/json_reader.h"
#include "common/test_results_keys.h"

namespace lumo {

AppUrls::AppUrls(const Json& dictionary) { detail::readString(dictionary, StepKey, step_); }

Json AppUrls::dictionary() const {
  Json json = Json::object();
  if (step_) {
    json[StepKey] = *step_;
  }
  return json;
}

}  // namespace lumo
