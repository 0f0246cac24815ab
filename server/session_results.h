#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumo/detail/json.h"
#include "lumo/match_level.h"
#include "lumo/server/store_records.h"

// The results record of a session, as the client reads it and the pages link to it.
namespace lumo::server::detail {

// How the steps of a session came out.
struct Counts {
  int matched = 0, different = 0, missing = 0, failed = 0, added = 0;
  int byLevel[5] = {};  // matched steps by match level, from None to Exact

  int& matchedAt(MatchLevel level) { return byLevel[level - MatchLevelNone]; }
  int matchedAt(MatchLevel level) const { return byLevel[level - MatchLevelNone]; }
};

Counts count(const std::vector<StepRecord>& steps);

// "Failed", "Unresolved" or "Passed": the verdict of a session that ends.
std::string statusOf(const Counts& c, bool isNew, bool aborted);

// The results of session `s`; `info` is its stored start record (storedStartInfo), `base`
// the address links start with.
Json resultsJson(const SessionRecord& s, const Json& info, const std::vector<StepRecord>& steps,
                 const std::optional<BatchRecord>& batch, std::string_view base);

}  // namespace lumo::server::detail
