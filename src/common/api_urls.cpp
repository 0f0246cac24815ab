#include "lumo/api_urls.h"

#include "common/json_reader.h"
#include "common/test_results_keys.h"

namespace lumo {

ApiUrls::ApiUrls(const Json& dictionary) {
  detail::readString(dictionary, BaselineImageKey, baselineImage_);
  detail::readString(dictionary, CurrentImageKey, currentImage_);
  detail::readString(dictionary, DiffImageKey, diffImage_);
}

Json ApiUrls::dictionary() const {
  Json json = Json::object();
  if (baselineImage_) {
    json[BaselineImageKey] = *baselineImage_;
  }
  if (currentImage_) {
    json[CurrentImageKey] = *currentImage_;
  }
  if (diffImage_) {
    json[DiffImageKey] = *diffImage_;
  }
  return json;
}

}  // namespace lumo
