#pragma once

// Lenient readers shared by every record that parses a server answer. A reader never throws:
// a missing key, a JSON null and a value of the wrong JSON type all leave the field at its
// default, so a malformed answer degrades to defaults instead of failing a test.

#include <cstdint>
#include <optional>
#include <string>

#include "lumo/detail/json.h"
#include "lumo/geometry.h"

namespace lumo::detail {

// The value under `key` when `object` is an object holding a non-null value there, else null.
const Json* member(const Json& object, const char* key);

// Strings only; anything else keeps `out`.
void readString(const Json& object, const char* key, std::optional<std::string>& out);
// Numbers and booleans; fractions truncate toward zero, values beyond 64 bits saturate.
void readInteger(const Json& object, const char* key, std::int64_t& out);
// Booleans and numbers (non-zero is true).
void readBool(const Json& object, const char* key, bool& out);
// Numbers and booleans, passed through single precision and widened back, as the server's
// numbers are read on the reference platform.
void readFloat(const Json& object, const char* key, double& out);

// `member` when it is an object or array respectively, else null.
const Json* memberObject(const Json& object, const char* key);
const Json* memberArray(const Json& object, const char* key);

}  // namespace lumo::detail
