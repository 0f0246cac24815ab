#pragma once

#include <string>
#include <string_view>

#include "lumo/detail/json.h"

namespace lumo::detail {

// The same text as json.dump() (compact), written faster when strings are long and ASCII, as
// the base64 screenshot of a match body is: nlohmann's writer decodes every byte as UTF-8,
// which makes it the slowest step of a match request. Throws Json::type_error, as dump() does,
// for a string that is not UTF-8.
std::string compactJson(const Json& json);
void appendCompactJson(const Json& json, std::string& out);
// Appends `text` as a quoted JSON string, as dump() writes it.
void appendJsonString(const std::string& text, std::string& out);

}  // namespace lumo::detail
