#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "lumo/detail/json.h"

// Limits on JSON the server takes from clients or reads back from its store. The JSON parser
// recurses once per nesting level, so a deeply nested text would overflow the stack: the
// depth is checked on the raw text first, without recursion.
namespace lumo::server::detail {

// Deepest nesting of arrays and objects a request body or a stored record may have.
inline constexpr int kMaxJsonDepth = 64;

// Longest text (string value or object key) accepted in a start record, in bytes.
inline constexpr std::size_t kMaxStartTextBytes = 1000;

// True when no array or object in `text` nests deeper than `maxDepth` levels. Brackets inside
// strings (escapes included) do not count. Linear and allocation-free; says nothing about
// whether the text is otherwise valid JSON.
bool checkJsonDepth(std::string_view text, int maxDepth = kMaxJsonDepth);

// The path of the first string value or object key in `value` longer than `maxBytes`, written
// like "startInfo.batchInfo.name" or "startInfo.properties[2].value" under `root` (a long key
// is named by its object, marked "(a key)"); nullopt when every text fits. `value` must
// already be depth-checked: the walk recurses per level.
std::optional<std::string> findLongText(const Json& value, std::string_view root,
                                        std::size_t maxBytes = kMaxStartTextBytes);

// A match request body parsed with its screenshot lifted out before the parser runs: the
// parser reads a string a character at a time, and the screenshot's base64 is nearly all of
// the body. Only when the screenshot's key is written once and nothing in the rest of the body
// is a \u escape (so no other key can spell it) is the result certain to be the body's;
// nullopt otherwise, and for anything that is not valid JSON, depth-checked as above: the
// caller then parses the whole body.
std::optional<Json> parseMatchBody(std::string_view body);

}  // namespace lumo::server::detail
