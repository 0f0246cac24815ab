#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <string>

#include "image_codec.h"
#include "lumo/detail/json.h"
#include "lumo/geometry.h"
#include "lumo/image.h"
#include "lumo/server/server.h"
#include "platform/base64.h"
#include "platform/png.h"
#include "temp_dir.h"

namespace lumo {

// Rectangles in failure messages, found by argument-dependent lookup.
// NOLINTNEXTLINE(readability-identifier-naming): GoogleTest looks for this spelling.
inline void PrintTo(const Rect& r, std::ostream* out) { *out << toString(r); }

}  // namespace lumo

namespace lumo::test {

using namespace lumo::server;

// Builders of the images the server tests compare: flat backgrounds, boxes, and glyph-like
// strokes that stand in for text.
struct Colour {
  std::uint8_t r = 0, g = 0, b = 0, a = 255;
};

inline constexpr Colour kWhite{255, 255, 255};
inline constexpr Colour kBlack{0, 0, 0};
inline constexpr Colour kRed{220, 30, 30};
inline constexpr Colour kBlue{30, 60, 220};

inline void fill(Image& image, int left, int top, int width, int height, Colour c) {
  for (int y = top; y < top + height; ++y) {
    for (int x = left; x < left + width; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = c.r, p[1] = c.g, p[2] = c.b, p[3] = c.a;
    }
  }
}

inline Image solid(int width, int height, Colour c = kWhite) {
  Image image(width, height);
  fill(image, 0, 0, width, height, c);
  return image;
}

// A line of "text": vertical strokes 2 px wide, spaced by 4 px, whose heights follow `seed`,
// so that two seeds give two different words of the same extent. Every word starts and ends
// at full height, as capitals and ascenders make it.
inline void text(Image& image, int left, int top, int width, int height, unsigned seed,
                 Colour c = kBlack) {
  std::mt19937 random(seed);
  for (int x = left; x + 2 <= left + width; x += 4) {
    const int h = height / 2 + static_cast<int>(random() % (height / 2 + 1));
    fill(image, x, top + height - h, 2, h, c);
  }
  fill(image, left, top, 2, height, c);
  fill(image, left + width - 2, top, 2, height, c);
}

// Noise with the given seed: every pixel a random colour.
inline Image noise(int width, int height, unsigned seed) {
  Image image(width, height);
  std::mt19937 random(seed);
  for (std::size_t i = 0; i < image.pixels().size(); ++i) {
    image.data()[i] = static_cast<std::uint8_t>(random());
  }
  return image;
}

// A small screen: a title, a line of text and a button with a word on it; `word` varies the
// line of text.
inline Image screen(unsigned word = 1, Colour buttonColour = kRed, int buttonTop = 120) {
  Image image = solid(200, 240);
  text(image, 20, 20, 120, 16, 100);
  text(image, 20, 60, 160, 12, word);
  fill(image, 40, buttonTop, 120, 36, buttonColour);
  text(image, 48, buttonTop + 6, 104, 24, 7, kWhite);
  return image;
}

// The screenshot as the client sends it: PNG in base64 with CR LF after every 64 characters.
inline std::string screenshot64(const Image& image) { return base64Encode(encodePng(image)); }

// Match settings as the client writes them.
inline Json settings(const std::string& level = "Strict") {
  Json settings = Json::parse(R"({"matchLevel": "", "ignoreCaret": false, "Ignore": [],
      "Layout": [], "Strict": [], "Content": [], "Floating": []})");
  settings["matchLevel"] = level;
  return settings;
}

// A start record as the client writes it.
inline Json startInfo(const std::string& test, const std::string& branch = "",
                      const std::string& baselineEnvName = "") {
  Json info = Json::parse(R"({"appIdOrName": "Shop", "scenarioIdOrName": "",
      "batchInfo": {"name": "Nightly", "startedAt": "2026-01-01T10:00:00Z", "id": "B1"},
      "environment": {"displaySize": {"width": 200, "height": 240}, "OSInfo": "iOS 17.2",
                      "DeviceInfo": "iPhone 15"},
      "defaultMatchSettings": null, "agentId": "lumo-tests", "saveDiffs": false,
      "properties": []})");
  info["scenarioIdOrName"] = test;
  info["defaultMatchSettings"] = settings();
  if (!branch.empty()) {
    info["branchName"] = branch;
    info["parentBranchName"] = branch;
  }
  if (!baselineEnvName.empty()) {
    info["baselineEnvName"] = baselineEnvName;
  }
  return info;
}

// A match-window record as the client writes it; no screenshot when `screenshot` is empty.
inline Json matchData(const std::string& screenshot, const std::string& tag,
                      bool ignoreMismatch = false, const Json& imageMatchSettings = settings()) {
  Json data = Json::parse(R"({"appOutput": {}, "tag": "", "options": {"name": "",
      "ignoreMismatch": false, "ignoreMatch": false, "forceMismatch": false,
      "forceMatch": false, "imageMatchSettings": null}})");
  if (!screenshot.empty()) {
    data["appOutput"]["screenshot64"] = screenshot;
  }
  data["tag"] = data["options"]["name"] = tag;
  data["options"]["ignoreMismatch"] = ignoreMismatch;
  data["options"]["imageMatchSettings"] = imageMatchSettings;
  return data;
}

// Expects each JSON pointer of `expected` to lead to its value in `record`.
inline void expectFields(const Json& record, const std::map<std::string, Json>& expected) {
  for (const auto& [pointer, value] : expected) {
    const Json::json_pointer at(pointer);
    EXPECT_EQ(record.contains(at) ? record[at] : Json(), value) << pointer;
  }
}

// Runs SQL on the SQLite database under `dataDir`, as someone editing the file by hand would.
inline void execSql(const std::filesystem::path& dataDir, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dataDir / "lumo.db").c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  sqlite3_close(db);
}

// A server on an ephemeral loopback port with its data in a fresh directory, and a client.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override { startServer(); }

  void startServer(ServerConfig config = {}) {
    config.dataDir = dir_.path();
    server_ = std::make_unique<Server>(std::move(config));
    server_->start();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    // Sanitized builds parse the tests' large bodies many times slower than the 5 s default.
    client_->set_read_timeout(std::chrono::seconds(60));
  }
  void restartServer(ServerConfig config = {}) {
    server_.reset();
    startServer(std::move(config));
  }

  static std::string keyQuery(const std::string& key = std::string(kDemoApiKey)) {
    return "apiKey=" + key;
  }
  httplib::Result post(const std::string& path, const Json& body,
                       const std::string& key = std::string(kDemoApiKey)) {
    return client_->Post(path + "?" + keyQuery(key), body.dump(), "application/json");
  }
  httplib::Result startSession(const Json& info,
                               const std::string& key = std::string(kDemoApiKey)) {
    return post("/api/sessions/running.json", {{"startInfo", info}}, key);
  }
  httplib::Result matchWindow(const std::string& id, const Json& data,
                              const std::string& key = std::string(kDemoApiKey)) {
    return post("/api/sessions/running/" + id + ".json", data, key);
  }
  httplib::Result stopSession(const std::string& id, bool aborted, bool update,
                              const std::string& key = std::string(kDemoApiKey)) {
    return client_->Delete("/api/sessions/running/" + id + ".json?" + keyQuery(key) + "&aborted=" +
                           (aborted ? "1" : "0") + "&updateBaseline=" + (update ? "1" : "0"));
  }

  // The answer's JSON after checking its status; an empty object when there is no answer.
  static Json answer(const httplib::Result& res, int expectedStatus) {
    EXPECT_TRUE(res);
    if (!res) {
      return Json::object();
    }
    EXPECT_EQ(res->status, expectedStatus) << res->body;
    return Json::parse(res->body);
  }
  // Starts a session and returns its id, checking the status (201 new, 200 with baseline).
  std::string start(const Json& info, int expectedStatus) {
    return answer(startSession(info), expectedStatus).value("id", "");
  }
  // Sends one checkpoint and returns asExpected (false on any error answer).
  bool check(const std::string& id, const Image& image, const std::string& tag) {
    return answer(matchWindow(id, matchData(screenshot64(image), tag)), 200)
        .value("asExpected", false);
  }
  Json stop(const std::string& id, bool update, bool aborted = false) {
    return answer(stopSession(id, aborted, update), 200);
  }

  TempDir dir_;
  std::unique_ptr<Server> server_;
  std::unique_ptr<httplib::Client> client_;
};

}  // namespace lumo::test
