#pragma once

#include <optional>
#include <string>

#include "lumo/detail/json.h"

namespace lumo {

// The server's handle of a started session. Read from the session-start answer; the
// connector sets isNewSession from the HTTP status.
class RunningSession {
 public:
  RunningSession() = default;
  // "id" and "url" when they are strings; anything else (absent, null, other types, a
  // non-object answer) leaves them nil. Never throws.
  explicit RunningSession(const Json& dictionary);

  const std::optional<std::string>& sessionId() const { return sessionId_; }
  const std::optional<std::string>& url() const { return url_; }
  bool isNewSession() const { return isNewSession_; }
  void setIsNewSession(bool isNewSession) { isNewSession_ = isNewSession; }

 private:
  std::optional<std::string> sessionId_;
  std::optional<std::string> url_;
  bool isNewSession_ = false;
};

}  // namespace lumo
