#pragma once

#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace lumo {

// Writes the library's diagnostic lines to the system log as "[BrixtelLumo] <message>".
// Stateless; callable from any thread.
class Logger {
 public:
  static constexpr std::string_view kTag = "[BrixtelLumo]";

  // One line: the tag, a blank, the message.
  static void log(std::string_view message);

  // Formats with {fmt} syntax, checked at compile time, then writes it as log() does.
  template <typename... Args>
  static void logWithFormat(fmt::format_string<Args...> format, Args&&... args) {
    log(fmt::format(format, std::forward<Args>(args)...));
  }
};

// Text of an optional string in a log line or message: the value, or "(null)" when missing.
// Returns a copy so that it is safe on temporaries.
inline std::string textOrNull(const std::optional<std::string>& value) {
  return value ? *value : std::string("(null)");
}

// Text of a flag in a log line: "YES" or "NO".
inline std::string_view yesNo(bool value) { return value ? "YES" : "NO"; }

}  // namespace lumo
