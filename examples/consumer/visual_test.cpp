// One visual test of a screen drawn in memory, against the server named on the command line.
//   consumer_visual_test SERVER_URL [API_KEY]
// Exits 0 passed, 1 differences or failed, 2 new baseline, 3 usage, 4 server unreachable.
#include <cstdint>
#include <cstdio>
#include <memory>

#include "lumo/lumo.h"
#include "lumo/running_session.h"
#include "lumo/test_failed_exception.h"
#include "lumo/test_results.h"
#include "lumo/version.h"

namespace {

// A grey 120x200 screen with a blue bar where a title would be.
lumo::ImagePtr drawScreen() {
  lumo::Image image(120, 200);
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      std::uint8_t* p = image.row(y) + x * lumo::Image::kChannels;
      const bool bar = y >= 20 && y < 40;
      p[0] = bar ? 30 : 200;
      p[1] = bar ? 60 : 200;
      p[2] = bar ? 220 : 200;
      p[3] = 255;
    }
  }
  return std::make_shared<const lumo::Image>(std::move(image));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: %s SERVER_URL [API_KEY]\n", argv[0]);
    return 3;
  }
  std::printf("Lumo %s\n", lumo::kVersion);
  auto source = std::make_shared<lumo::MemoryScreenshotSource>(std::vector{drawScreen()});
  lumo::Lumo lumo(argv[1], source);
  lumo.setApiKey(argc == 3 ? argv[2] : "lumo-demo-key");
  lumo.setMatchTimeout(0);
  lumo.open("Consumer", "Home", {120, 200});
  lumo.ensureRunningSession();
  if (!lumo.runningSession() || !lumo.runningSession()->sessionId()) {
    std::fprintf(stderr, "no session at %s\n", argv[1]);
    return 4;
  }
  lumo.check("Home");
  try {
    const auto results = lumo.close(nullptr);
    std::printf("passed: %s\n", results->url().value_or("").c_str());
    return 0;
  } catch (const lumo::TestFailedException& verdict) {
    std::printf("%s: %s\n", verdict.name().c_str(), verdict.reason().c_str());
    return verdict.name() == "NewTestException" ? 2 : 1;
  }
}
