#pragma once

#include <string>
#include <string_view>

#include "lumo/detail/json.h"
#include "lumo/server/image_comparer.h"
#include "lumo/server/session_manager.h"
#include "lumo/server/store_records.h"

// What a client sends, read and checked: the start record and the match records. Every
// refusal is an ApiError 400 naming the field by its path ("startInfo.appIdOrName").
namespace lumo::server::detail {

[[noreturn]] void badRequest(const std::string& message);

// The value under `key`, or null when it is absent or JSON null (both mean "not given").
const Json* member(const Json& object, const char* key);
// The text under `key`; empty when absent, unless `required`, which also refuses empty text.
std::string stringAt(const Json& object, const char* key, std::string_view path,
                     bool required = false);
// The flag under `key`, which may also be a number (non-zero: true); false when absent.
bool boolAt(const Json& object, const char* key, std::string_view path);
// The number under `key`, truncated and held within +-2^30; 0 when absent.
int intAt(const Json& object, const char* key, std::string_view path);
// The object (array) under `key`; an empty one when absent.
const Json& objectAt(const Json& object, const char* key, std::string_view path);
const Json& arrayAt(const Json& object, const char* key, std::string_view path);

// Match settings as the client writes them; an absent level is `fallback`.
CompareSettings settingsFrom(const Json& s, std::string_view path, MatchLevel fallback);

// The environment part of a baseline's key: the name the client chose, or else what the
// test ran on.
std::string environmentKey(const Json& startInfo);

// The start record a session was opened with, as stored; an empty object when it is not
// one. Throws ApiError 500 for a record nested too deep to be read.
Json storedStartInfo(const SessionRecord& s);

}  // namespace lumo::server::detail
