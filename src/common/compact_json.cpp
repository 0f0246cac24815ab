#include "common/compact_json.h"

#include <algorithm>
#include <array>

namespace lumo::detail {
namespace {

// Below this length a string goes through nlohmann's writer: too short for the difference to
// matter, and it keeps one writer for every unusual case.
constexpr std::size_t kLongString = 4096;

// For each ASCII byte: 0 when it is written as it stands, else the letter of its short escape,
// or 'u' for the \u00XX form that nlohmann uses for the other control characters.
constexpr std::array<char, 128> kEscapes = [] {
  std::array<char, 128> escapes{};
  for (int c = 0; c < 0x20; ++c) escapes[c] = 'u';
  escapes['\b'] = 'b';
  escapes['\t'] = 't';
  escapes['\n'] = 'n';
  escapes['\f'] = 'f';
  escapes['\r'] = 'r';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  return escapes;
}();

}  // namespace

void appendJsonString(const std::string& text, std::string& out) {
  const bool ascii = std::ranges::all_of(text, [](char c) { return (c & 0x80) == 0; });
  if (text.size() < kLongString || !ascii) {
    out += Json(text).dump();
    return;
  }
  out.reserve(out.size() + text.size() + text.size() / 16 + 2);
  out += '"';
  std::size_t run = 0;  // start of the bytes not yet written
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char escape = kEscapes[static_cast<unsigned char>(text[i])];
    if (escape == 0) continue;
    out.append(text, run, i - run);
    run = i + 1;
    out += '\\';
    out += escape;
    if (escape == 'u') {
      constexpr const char* kHex = "0123456789abcdef";
      const auto c = static_cast<unsigned char>(text[i]);
      out += "00";
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  out.append(text, run, text.size() - run);
  out += '"';
}

void appendCompactJson(const Json& json, std::string& out) {
  switch (json.type()) {
    case Json::value_t::object: {
      out += '{';
      for (auto it = json.begin(); it != json.end(); ++it) {
        if (it != json.begin()) out += ',';
        appendJsonString(it.key(), out);
        out += ':';
        appendCompactJson(it.value(), out);
      }
      out += '}';
      break;
    }
    case Json::value_t::array: {
      out += '[';
      for (auto it = json.begin(); it != json.end(); ++it) {
        if (it != json.begin()) out += ',';
        appendCompactJson(*it, out);
      }
      out += ']';
      break;
    }
    case Json::value_t::string:
      appendJsonString(json.get_ref<const std::string&>(), out);
      break;
    default:
      out += json.dump();
      break;
  }
}

std::string compactJson(const Json& json) {
  std::string out;
  appendCompactJson(json, out);
  return out;
}

}  // namespace lumo::detail
