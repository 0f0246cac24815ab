#include "common/compact_json.h"

#include <algorithm>
#include <array>
#include <cstddef>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace lumo::detail {
namespace {

// Below this length a string goes through nlohmann's writer: too short for the difference to
// matter, and it keeps one writer for every unusual case.
constexpr std::size_t kLongString = 4096;

// For each ASCII byte: 0 when it is written as it stands, else the letter of its short escape,
// or 'u' for the \u00XX form that nlohmann uses for the other control characters.
constexpr std::array<char, 128> kEscapes = [] {
  std::array<char, 128> escapes{};
  for (int c = 0; c < 0x20; ++c) {
    escapes[c] = 'u';
  }
  escapes['\b'] = 'b';
  escapes['\t'] = 't';
  escapes['\n'] = 'n';
  escapes['\f'] = 'f';
  escapes['\r'] = 'r';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  return escapes;
}();

// Whether any byte is outside ASCII: such text goes through nlohmann's writer, which checks
// the UTF-8. Sixteen bytes at a time, as this runs over every screenshot.
bool hasNonAscii(const std::string& text) {
  std::size_t i = 0;
#if defined(__SSE2__)
  __m128i any = _mm_setzero_si128();
  for (; i + 16 <= text.size(); i += 16) {
    any = _mm_or_si128(any, _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + i)));
  }
  if (_mm_movemask_epi8(any) != 0) {
    return true;
  }
#endif
  return std::any_of(text.begin() + static_cast<std::ptrdiff_t>(i), text.end(),
                     [](char c) { return (c & 0x80) != 0; });
}

// The offset of the first byte at or after `from` that needs an escape, or text.size().
// Base64 screenshots have one line break in every 66 bytes, so whole blocks of 16 without one
// are skipped at once.
std::size_t nextEscape(const std::string& text, std::size_t from) {
  std::size_t i = from;
#if defined(__SSE2__)
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i space = _mm_set1_epi8(0x20);
  for (; i + 16 <= text.size(); i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + i));
    // ASCII only here, so a signed comparison with 0x20 finds the control characters.
    const __m128i special =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)),
                     _mm_cmplt_epi8(v, space));
    if (const int mask = _mm_movemask_epi8(special); mask != 0) {
      return i + static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
    }
  }
#endif
  for (; i < text.size(); ++i) {
    if (kEscapes[static_cast<unsigned char>(text[i])] != 0) {
      return i;
    }
  }
  return i;
}

}  // namespace

void appendJsonString(const std::string& text, std::string& out) {
  if (text.size() < kLongString || hasNonAscii(text)) {
    out += Json(text).dump();
    return;
  }
  out.reserve(out.size() + text.size() + text.size() / 16 + 2);
  out += '"';
  std::size_t run = 0;  // start of the bytes not yet written
  for (std::size_t i = nextEscape(text, 0); i < text.size(); i = nextEscape(text, i + 1)) {
    const char escape = kEscapes[static_cast<unsigned char>(text[i])];
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
        if (it != json.begin()) {
          out += ',';
        }
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
        if (it != json.begin()) {
          out += ',';
        }
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
