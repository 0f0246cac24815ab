// Builds the record a test sends to open a session on the visual-testing server and prints
// it as the server receives it.
#include <chrono>
#include <cstdio>
#include <memory>

#include "lumo/session_start_info.h"
#include "lumo/version.h"

int main() {
  auto environment = std::make_shared<lumo::AppEnvironment>("Android 14", "Shop 2.3.0", "Pixel 8",
                                                            lumo::Size{412, 915});
  auto batch =
      std::make_shared<lumo::BatchInfo>("Nightly checkout", std::chrono::system_clock::now());
  batch->setBatchId("nightly-2026-11-22");

  auto settings = std::make_shared<lumo::ImageMatchSettings>(lumo::MatchLevelLayout);
  settings->setIgnoreCaret(true);
  settings->setIgnoredRegions(std::vector<lumo::Region>{lumo::Region(0, 0, 412, 24)});
  settings->setFloatingRegions(std::vector<lumo::FloatingMatchSettings>{
      lumo::FloatingMatchSettings(16, 300, 380, 48, 0, 0, 8, 8)});

  lumo::SessionStartInfo info;
  info.addProperty(lumo::StartSessionProperty("team", "checkout"));
  info.setupWithAgentId(std::string("lumo-cpp/") + lumo::kVersion, "Shop", "Pay with card",
                        std::nullopt, environment, batch, "feature/card-form", "main", std::nullopt,
                        false, settings);

  std::printf("%s\n", info.dictionary().dump(2).c_str());
}
