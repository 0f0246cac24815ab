#pragma once

#include <optional>
#include <string>

#include "lumo/detail/json.h"

namespace lumo {

// Links of a finished test: its batch page and session page. Immutable value.
class SessionUrls {
 public:
  SessionUrls() = default;
  // "batch" and "session" when they are strings; never throws.
  explicit SessionUrls(const Json& dictionary);

  const std::optional<std::string>& batch() const { return batch_; }
  const std::optional<std::string>& session() const { return session_; }

  // "batch" and "session", each when set.
  Json dictionary() const;
  std::string description() const { return dictionary().dump(); }

 private:
  std::optional<std::string> batch_;
  std::optional<std::string> session_;
};

}  // namespace lumo
