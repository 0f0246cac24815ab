// Written here because the line layout is part of the wire format: OpenSSL's encoder breaks
// lines with LF only, and no other dependency offers CR LF lines of 64.
#include "platform/base64.h"

#include <array>
#include <stdexcept>
#include <string>

namespace lumo {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kLineLength = 64;  // characters, a multiple of 4
constexpr std::uint8_t kInvalid = 0xff;

constexpr std::array<std::uint8_t, 256> decodeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& entry : table) {
    entry = kInvalid;
  }
  for (std::uint8_t i = 0; i < 64; ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = i;
  }
  return table;
}
constexpr auto kDecode = decodeTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  const std::size_t chars = (bytes.size() + 2) / 3 * 4;
  const std::size_t breaks = chars == 0 ? 0 : (chars - 1) / kLineLength;
  std::string out;
  out.resize(chars + 2 * breaks);
  char* p = out.data();
  std::size_t column = 0;
  auto put = [&](char c) {
    if (column == kLineLength) {
      *p++ = '\r';
      *p++ = '\n';
      column = 0;
    }
    *p++ = c;
    ++column;
  };
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    put(kAlphabet[v >> 18]);
    put(kAlphabet[(v >> 12) & 63]);
    put(kAlphabet[(v >> 6) & 63]);
    put(kAlphabet[v & 63]);
  }
  if (const std::size_t rest = bytes.size() - i; rest > 0) {
    const std::uint32_t v = (bytes[i] << 16) | (rest == 2 ? bytes[i + 1] << 8 : 0);
    put(kAlphabet[v >> 18]);
    put(kAlphabet[(v >> 12) & 63]);
    put(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    put('=');
  }
  return out;
}

std::vector<std::uint8_t> base64Decode(std::string_view text) {
  std::vector<std::uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t quad = 0;
  int count = 0;    // characters in the current group of four
  int padding = 0;  // '=' seen; only data-less groups may follow none
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '\r' || c == '\n') {
      continue;
    }
    if (c == '=') {
      if (count < 2 || ++padding > 2) {
        throw std::invalid_argument("misplaced '=' at offset " + std::to_string(at));
      }
      quad <<= 6;
      ++count;
    } else {
      const std::uint8_t value = kDecode[static_cast<unsigned char>(c)];
      if (value == kInvalid || padding > 0) {
        throw std::invalid_argument("invalid base64 character at offset " + std::to_string(at));
      }
      quad = (quad << 6) | value;
      ++count;
    }
    if (count == 4) {
      out.push_back(static_cast<std::uint8_t>(quad >> 16));
      if (padding < 2) {
        out.push_back(static_cast<std::uint8_t>(quad >> 8));
      }
      if (padding < 1) {
        out.push_back(static_cast<std::uint8_t>(quad));
      }
      quad = 0;
      count = 0;
      if (padding > 0) {  // nothing may follow a padded group
        padding = 3;
      }
    }
  }
  if (count != 0) {
    throw std::invalid_argument("base64 text ends inside a group of four");
  }
  return out;
}

}  // namespace lumo
