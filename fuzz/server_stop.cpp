// The server's stop handler: a session with fuzzed steps stopped with fuzzed flags, then an
// unknown or stopped session id and a fuzzed base URL.
#include <exception>
#include <string>

#include "fuzz_input.h"
#include "server_fixture.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  using lumo::fuzz::ServerFixture;
  auto& sessions = ServerFixture::instance().sessions();
  const std::uint8_t flags = data[0];
  const std::uint8_t steps = data[1] % 4;
  const std::string rest(lumo::fuzz::text(data + 2, size - 2));
  const auto started = sessions.start(ServerFixture::startInfo());
  try {
    for (std::uint8_t i = 0; i < steps; ++i) {
      (void)sessions.match(started.id, ServerFixture::matchData(flags & 0x0c));
    }
    (void)sessions.stop(started.id, flags & 1, flags & 2, rest);
  } catch (const std::exception&) {
  }
  // The same stop again, and one of an id taken from the input: both refused, never a crash.
  for (const std::string& id : {started.id, rest}) {
    try {
      (void)sessions.stop(id, flags & 1, flags & 2, "http://x");
      (void)sessions.results(id, rest);
    } catch (const std::exception&) {
    }
  }
  return 0;
}
