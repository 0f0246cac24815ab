#include "lumo/step_info.h"

#include "common/json_reader.h"
#include "common/test_results_keys.h"

namespace lumo {

StepInfo::StepInfo(const Json& dictionary) {
  if (const Json* apiUrls = detail::memberObject(dictionary, ApiUrlsKey)) {
    apiUrls_.emplace(*apiUrls);
  }
  if (const Json* appUrls = detail::memberObject(dictionary, AppUrlsKey)) {
    appUrls_.emplace(*appUrls);
  }
  detail::readBool(dictionary, HasBaselineImageKey, hasBaselineImage_);
  detail::readBool(dictionary, HasCurrentImageKey, hasCurrentImage_);
  detail::readBool(dictionary, IsDifferentKey, isDifferent_);
  detail::readString(dictionary, NameKey, name_);
}

Json StepInfo::dictionary() const {
  Json json = Json::object();
  if (apiUrls_) {
    json[ApiUrlsKey] = apiUrls_->dictionary();
  }
  if (appUrls_) {
    json[AppUrlsKey] = appUrls_->dictionary();
  }
  json[HasBaselineImageKey] = hasBaselineImage_;
  json[HasCurrentImageKey] = hasCurrentImage_;
  json[IsDifferentKey] = isDifferent_;
  if (name_) {
    json[NameKey] = *name_;
  }
  return json;
}

}  // namespace lumo
