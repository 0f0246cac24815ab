#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Times on the results pages: every stored time shown the same way, in UTC.
namespace lumo::server::detail {

// Reads an ISO 8601 date and time ("2026-11-23T01:20:04Z", "...+0100", "...+01:00", a space
// for the "T", fractions of seconds, no offset meaning UTC) and writes it as
// "2026-11-23 01:20:04 UTC". Text after a complete time and offset is ignored: the client
// writes its batch start with the time doubled ("2026-11-23T01:20:04+0000T01:20:04Z").
// nullopt when the text does not start with a valid date and time.
std::optional<std::string> readableTime(std::string_view text);

// Unix milliseconds in the same form.
std::string readableTime(std::int64_t unixMs);

}  // namespace lumo::server::detail
