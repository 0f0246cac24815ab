// A complete visual test: open, check each screen, close with a verdict.
//   visual_test SERVER_URL API_KEY SCREEN.png...
#include <cstdio>
#include <filesystem>
#include <vector>

#include "lumo/lumo.h"
#include "lumo/match_result.h"
#include "lumo/test_failed_exception.h"
#include "lumo/test_results.h"

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s SERVER_URL API_KEY SCREEN.png...\n", argv[0]);
    return 3;
  }
  std::vector<std::filesystem::path> screens(argv + 3, argv + argc);
  lumo::Lumo lumo(argv[1], std::make_shared<lumo::PngFileScreenshotSource>(screens));
  lumo.setApiKey(argv[2]);
  lumo.open("Lumo example", "Screens", {360, 640});
  for (const auto& screen : screens) {
    // The clock in the status bar changes every minute: leave it out of the comparison.
    auto settings = lumo::CheckSettings().ignore({lumo::Region(0, 0, 360, 24)});
    auto result = lumo.check(screen.stem().string(), settings);
    std::printf("%s: %s\n", screen.stem().c_str(),
                result && result->asExpected() ? "matched" : "differs");
  }
  try {
    auto results = lumo.close(nullptr);
    std::printf("Test passed. See details at %s\n", results->url().value_or("").c_str());
    return 0;
  } catch (const lumo::TestFailedException& verdict) {
    std::printf("%s: %s\n", verdict.name().c_str(), verdict.reason().c_str());
    return verdict.name() == "NewTestException" ? 2 : 1;
  }
}
