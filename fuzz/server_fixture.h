#pragma once

// One session manager on a temporary data directory, shared by every run of a server target
// (opening SQLite for each input would leave little time for the input itself). The directory
// is removed when the fuzzer exits.

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "lumo/detail/json.h"
#include "lumo/image.h"
#include "lumo/server/session_manager.h"
#include "lumo/server/sqlite_store.h"
#include "platform/base64.h"
#include "platform/png.h"

namespace lumo::fuzz {

class ServerFixture {
 public:
  static ServerFixture& instance() {
    static ServerFixture fixture;
    return fixture;
  }

  server::SessionManager& sessions() { return *sessions_; }

  // A start record the manager accepts, for the targets that fuzz a later call.
  static Json startInfo() {
    return Json{{"appIdOrName", "Fuzz"},
                {"scenarioIdOrName", "Screen"},
                {"batchInfo", {{"id", "fuzz-batch"}, {"name", "fuzz"}}},
                {"environment", {{"displaySize", {{"width", 4}, {"height", 4}}}}},
                {"defaultMatchSettings", {{"matchLevel", "Strict"}}},
                {"agentId", "fuzz/1"},
                {"saveDiffs", false},
                {"properties", Json::array()}};
  }

  // A match-window record of a small screen whose pixels depend on `seed`.
  static Json matchData(std::uint8_t seed) {
    Image image(4, 4);
    for (std::size_t i = 0; i < image.pixels().size(); ++i) {
      image.data()[i] = static_cast<std::uint8_t>(i % 4 == 3 ? 255 : seed + i);
    }
    return Json{{"appOutput", {{"title", "t"}, {"screenshot64", base64Encode(encodePng(image))}}},
                {"tag", "step"},
                {"options",
                 {{"name", "step"},
                  {"ignoreMismatch", false},
                  {"forceMismatch", false},
                  {"forceMatch", false},
                  {"imageMatchSettings", {{"matchLevel", "Strict"}}}}}};
  }

 private:
  ServerFixture() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumo-fuzz-XXXXXX").string();
    directory_ = mkdtemp(pattern.data());
    store_ = std::make_unique<server::SqliteStore>(directory_);
    // Far below the shipped bound, so that a header claiming a huge image costs nothing.
    sessions_ =
        std::make_unique<server::SessionManager>(*store_, server::ImageComparer(), 1u << 20);
  }
  ~ServerFixture() {
    sessions_.reset();
    store_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  std::filesystem::path directory_;
  std::unique_ptr<server::SqliteStore> store_;
  std::unique_ptr<server::SessionManager> sessions_;
};

}  // namespace lumo::fuzz
