#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <memory>
#include <string>

#include "image_codec.h"
#include "lumo/detail/json.h"
#include "lumo/server/server.h"
#include "platform/base64.h"
#include "platform/png.h"
#include "temp_dir.h"
#include "test_images.h"

namespace lumo::test {

using namespace lumo::server;

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
    // Sanitized builds parse the tests' 30 MB bodies many times slower than the 5 s default.
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
  bool check(const std::string& id, const Image& image, const std::string& tag,
             bool ignoreMismatch = false, const Json& imageMatchSettings = settings()) {
    const auto data = matchData(screenshot64(image), tag, ignoreMismatch, imageMatchSettings);
    return answer(matchWindow(id, data), 200).value("asExpected", false);
  }
  Json stop(const std::string& id, bool update, bool aborted = false) {
    return answer(stopSession(id, aborted, update), 200);
  }

  TempDir dir_;
  std::unique_ptr<Server> server_;
  std::unique_ptr<httplib::Client> client_;
};

}  // namespace lumo::test
