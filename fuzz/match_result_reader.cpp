// The reader of a match-window answer, and its writer on what it read.
#include "fuzz_input.h"
#include "lumo/match_result.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const lumo::Json json = lumo::fuzz::parsed(data, size);
  if (!json.is_object()) {
    return 0;
  }
  const lumo::MatchResult result(json);
  (void)result.asExpected();
  (void)result.screenshot();
  return 0;
}
