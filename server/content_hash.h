#pragma once

#include <string>
#include <string_view>

namespace lumo::server::detail {

// The SHA-256 of `data` in lower-case hex: the name of a stored image, and the digest by
// which a session remembers its API key without keeping the key itself.
std::string sha256Hex(std::string_view data);

// True for text that sha256Hex could have returned.
bool isSha256Hex(std::string_view text);

}  // namespace lumo::server::detail
