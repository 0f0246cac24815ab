#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <memory>
#include <string>

#include "image_codec.h"
#include "lumo/detail/json.h"
#include "lumo/server/server.h"
#include "platform/base64.h"
#include "platform/png.h"
#include "temp_dir.h"
#include "test_images.h"

namespace lumo::server::testing {

// The screenshot as the client sends it: PNG in base64 with CR LF after every 64 characters.
inline std::string screenshot64(const Image& image) { return base64Encode(encodePng(image)); }

// Match settings as the client writes them.
inline Json settings(const std::string& level = "Strict") {
  return {{"matchLevel", level},      {"ignoreCaret", false},    {"Ignore", Json::array()},
          {"Layout", Json::array()},  {"Strict", Json::array()}, {"Content", Json::array()},
          {"Floating", Json::array()}};
}

// A start record as the client writes it.
inline Json startInfo(const std::string& test, const std::string& branch = "",
                      const std::string& baselineEnvName = "") {
  Json info = {
      {"appIdOrName", "Shop"},
      {"scenarioIdOrName", test},
      {"batchInfo", {{"name", "Nightly"}, {"startedAt", "2026-01-01T10:00:00Z"}, {"id", "B1"}}},
      {"environment",
       {{"displaySize", {{"width", 200}, {"height", 240}}},
        {"OSInfo", "iOS 17.2"},
        {"DeviceInfo", "iPhone 15"}}},
      {"defaultMatchSettings", settings()},
      {"agentId", "lumo-tests"},
      {"saveDiffs", false},
      {"properties", Json::array()}};
  if (!branch.empty()) {
    info["branchName"] = branch;
    info["parentBranchName"] = branch;
  }
  if (!baselineEnvName.empty()) {
    info["baselineEnvName"] = baselineEnvName;
  }
  return info;
}

// A match-window record as the client writes it.
inline Json matchData(const std::string& screenshot, const std::string& tag,
                      bool ignoreMismatch = false, const Json& imageMatchSettings = settings()) {
  Json appOutput = Json::object();
  if (!screenshot.empty()) {
    appOutput["screenshot64"] = screenshot;
  }
  return {{"appOutput", appOutput},
          {"tag", tag},
          {"options",
           {{"name", tag},
            {"ignoreMismatch", ignoreMismatch},
            {"ignoreMatch", false},
            {"forceMismatch", false},
            {"forceMatch", false},
            {"imageMatchSettings", imageMatchSettings}}}};
}

// A server on an ephemeral loopback port with its data in a fresh directory, and a client.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override { startServer(); }
  void TearDown() override { stopServer(); }

  void startServer(ServerConfig config = {}) {
    config.dataDir = dir_.path();
    server_ = std::make_unique<Server>(std::move(config));
    server_->start();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    // Sanitized builds parse the tests' 30 MB bodies many times slower than the 5 s default.
    client_->set_read_timeout(std::chrono::seconds(60));
  }
  void stopServer() {
    client_.reset();
    if (server_) {
      server_->stop();
    }
    server_.reset();
  }

  static std::string keyQuery(const std::string& key = std::string(kDemoApiKey)) {
    return "apiKey=" + key;
  }

  httplib::Result post(const std::string& path, const Json& body,
                       const std::string& key = std::string(kDemoApiKey)) {
    return client_->Post(path + "?" + keyQuery(key), body.dump(), "application/json");
  }

  httplib::Result startSession(const Json& info) {
    return post("/api/sessions/running.json", {{"startInfo", info}});
  }

  // Starts a session and returns its id, checking the status (201 new, 200 with baseline).
  std::string start(const Json& info, int expectedStatus) {
    auto res = startSession(info);
    EXPECT_TRUE(res);
    if (!res) {
      return {};
    }
    EXPECT_EQ(res->status, expectedStatus) << res->body;
    return Json::parse(res->body).value("id", "");
  }

  httplib::Result matchWindow(const std::string& id, const Json& data) {
    return post("/api/sessions/running/" + id + ".json", data);
  }

  // Sends one checkpoint and returns asExpected (false on any error answer).
  bool check(const std::string& id, const Image& image, const std::string& tag,
             bool ignoreMismatch = false, const Json& imageMatchSettings = settings()) {
    auto res =
        matchWindow(id, matchData(screenshot64(image), tag, ignoreMismatch, imageMatchSettings));
    EXPECT_TRUE(res);
    if (!res) {
      return false;
    }
    EXPECT_EQ(res->status, 200) << res->body;
    return Json::parse(res->body).value("asExpected", false);
  }

  httplib::Result stopSession(const std::string& id, bool aborted, bool update,
                              const std::string& key = std::string(kDemoApiKey)) {
    return client_->Delete("/api/sessions/running/" + id + ".json?" + keyQuery(key) + "&aborted=" +
                           (aborted ? "1" : "0") + "&updateBaseline=" + (update ? "1" : "0"));
  }

  Json stop(const std::string& id, bool update, bool aborted = false) {
    auto res = stopSession(id, aborted, update);
    EXPECT_TRUE(res);
    if (!res) {
      return Json::object();
    }
    EXPECT_EQ(res->status, 200) << res->body;
    return Json::parse(res->body);
  }

  TempDir dir_;
  std::unique_ptr<Server> server_;
  std::unique_ptr<httplib::Client> client_;
};

}  // namespace lumo::server::testing
