#include "json_limits.h"

#include <fmt/format.h>

namespace lumo::server::detail {

bool checkJsonDepth(std::string_view text, int maxDepth) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > maxDepth) {
        return false;
      }
    } else if ((c == ']' || c == '}') && depth > 0) {
      // Unbalanced closers are the parser's to reject; they must not buy extra depth here.
      --depth;
    }
  }
  return true;
}

namespace {

// The offending text's path below `value` ("" for `value` itself), built only on the way back
// up so that a large record that fits costs no formatting.
std::optional<std::string> longTextBelow(const Json& value, std::size_t maxBytes) {
  if (value.is_string()) {
    if (value.get_ref<const std::string&>().size() > maxBytes) {
      return std::string();
    }
  } else if (value.is_object()) {
    for (const auto& [key, member] : value.items()) {
      if (key.size() > maxBytes) {
        return std::string(" (a key)");
      }
      if (auto below = longTextBelow(member, maxBytes)) {
        return fmt::format(".{}{}", key, *below);
      }
    }
  } else if (value.is_array()) {
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (auto below = longTextBelow(value[i], maxBytes)) {
        return fmt::format("[{}]{}", i, *below);
      }
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> findLongText(const Json& value, std::string_view root,
                                        std::size_t maxBytes) {
  if (auto below = longTextBelow(value, maxBytes)) {
    return fmt::format("{}{}", root, *below);
  }
  return std::nullopt;
}

}  // namespace lumo::server::detail
