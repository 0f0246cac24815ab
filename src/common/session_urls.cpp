#include "lumo/session_urls.h"

#include "common/json_reader.h"
#include "common/test_results_keys.h"

namespace lumo {

SessionUrls::SessionUrls(const Json& dictionary) {
  detail::readString(dictionary, BatchKey, batch_);
  detail::readString(dictionary, SessionKey, session_);
}

Json SessionUrls::dictionary() const {
  Json json = Json::object();
  if (batch_) {
    json[BatchKey] = *batch_;
  }
  if (session_) {
    json[SessionKey] = *session_;
  }
  return json;
}

}  // namespace lumo
