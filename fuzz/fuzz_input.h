#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "lumo/detail/json.h"

namespace lumo::fuzz {

// The fuzzer's bytes as text.
inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The bytes parsed as JSON without exceptions; discarded when they are not JSON.
inline Json parsed(const std::uint8_t* data, std::size_t size) {
  return Json::parse(text(data, size), nullptr, /*allow_exceptions=*/false);
}

}  // namespace lumo::fuzz
