#include "json_limits.h"

#include <fmt/format.h>

#include <algorithm>

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

std::optional<Json> parseMatchBody(std::string_view body) {
  constexpr std::string_view kKey = "\"screenshot64\"";
  const std::size_t key = body.find(kKey);
  if (key == std::string_view::npos || body.find(kKey, key + 1) != std::string_view::npos) {
    return std::nullopt;
  }
  const auto skipSpace = [&](std::size_t at) {
    while (at < body.size() &&
           (body[at] == ' ' || body[at] == '\t' || body[at] == '\n' || body[at] == '\r')) {
      ++at;
    }
    return at;
  };
  std::size_t at = skipSpace(key + kKey.size());
  if (at >= body.size() || body[at] != ':') {
    return std::nullopt;
  }
  at = skipSpace(at + 1);
  if (at >= body.size() || body[at] != '"') {
    return std::nullopt;
  }
  const std::size_t start = at + 1;
  const std::size_t end = body.find('"', start);
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  // The client breaks its base64 into lines: \r and \n are the only escapes taken here;
  // any other escape, or a raw control character, is left to the parser.
  const std::string_view raw = body.substr(start, end - start);
  std::string value;
  value.reserve(raw.size());
  for (std::size_t pos = 0; pos < raw.size();) {
    const std::size_t escape = std::min(raw.find('\\', pos), raw.size());
    const std::string_view run = raw.substr(pos, escape - pos);
    if (std::any_of(run.begin(), run.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x20; })) {
      return std::nullopt;
    }
    value.append(run);
    if (escape == raw.size()) {
      break;
    }
    if (escape + 1 >= raw.size() || (raw[escape + 1] != 'r' && raw[escape + 1] != 'n')) {
      return std::nullopt;
    }
    value += raw[escape + 1] == 'r' ? '\r' : '\n';
    pos = escape + 2;
  }
  std::string rest;
  rest.reserve(body.size() - raw.size());
  rest.append(body.substr(0, start)).append(body.substr(end));
  if (rest.find("\\u") != std::string::npos || !checkJsonDepth(rest)) {
    return std::nullopt;
  }
  Json parsed = Json::parse(rest, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    return std::nullopt;
  }
  const auto output = parsed.find("appOutput");
  if (output == parsed.end() || !output->is_object()) {
    return std::nullopt;
  }
  const auto shot = output->find("screenshot64");
  if (shot == output->end() || !shot->is_string() || !shot->get_ref<const std::string&>().empty()) {
    return std::nullopt;
  }
  *shot = std::move(value);
  return parsed;
}

}  // namespace lumo::server::detail
