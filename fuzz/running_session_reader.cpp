// The reader of a session start's answer.
#include "fuzz_input.h"
#include "lumo/running_session.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const lumo::Json json = lumo::fuzz::parsed(data, size);
  if (!json.is_object()) {
    return 0;
  }
  lumo::RunningSession session(json);
  session.setIsNewSession(size % 2 == 0);
  (void)session.sessionId();
  (void)session.url();
  return 0;
}
