// The server's start handler on any start record. A refusal is an exception, which the HTTP
// front turns into an error answer; anything else (a crash, undefined behaviour, a leak) is a
// fault.
#include <exception>

#include "fuzz_input.h"
#include "server_fixture.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const lumo::Json startInfo = lumo::fuzz::parsed(data, size);
  if (startInfo.is_discarded()) {
    return 0;
  }
  auto& sessions = lumo::fuzz::ServerFixture::instance().sessions();
  try {
    const auto started = sessions.start(startInfo);
    // Stopped at once, so that running sessions do not pile up from one input to the next.
    (void)sessions.stop(started.id, /*aborted=*/true, /*updateBaseline=*/false, "http://x");
  } catch (const std::exception&) {
  }
  return 0;
}
