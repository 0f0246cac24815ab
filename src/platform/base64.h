#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lumo {

// Standard base64 with padding, wrapped as the server expects screenshots: CR LF after every
// full line of 64 characters, and no line break after the last line.
std::string base64Encode(std::span<const std::uint8_t> bytes);

// Decodes standard base64, skipping CR and LF anywhere. Throws std::invalid_argument naming the
// offending character or the bad length on anything else.
std::vector<std::uint8_t> base64Decode(std::string_view text);

}  // namespace lumo
