// The server's match handler on any match-window record, in a session of a known test.
#include <exception>

#include "fuzz_input.h"
#include "server_fixture.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const lumo::Json matchData = lumo::fuzz::parsed(data, size);
  if (matchData.is_discarded()) {
    return 0;
  }
  auto& sessions = lumo::fuzz::ServerFixture::instance().sessions();
  const auto started = sessions.start(lumo::fuzz::ServerFixture::startInfo());
  try {
    (void)sessions.match(started.id, matchData);
    (void)sessions.match(started.id, matchData);
  } catch (const std::exception&) {
  }
  (void)sessions.stop(started.id, /*aborted=*/true, /*updateBaseline=*/false, "http://x");
  return 0;
}
