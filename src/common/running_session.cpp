#include "lumo/running_session.h"

#include "common/json_reader.h"

namespace lumo {

RunningSession::RunningSession(const Json& dictionary) {
  detail::readString(dictionary, "id", sessionId_);
  detail::readString(dictionary, "url", url_);
}

}  // namespace lumo
