#include <gtest/gtest.h>

#include "server_fixture.h"
#include "support/test_server.h"

namespace lumo::test {
namespace {

// Asserts an error answer: the status and a JSON body with an "error" text that no client
// could read as a passed test.
void expectError(const httplib::Result& res, int status) {
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, status) << res->body;
  const Json body = Json::parse(res->body, nullptr, false);
  ASSERT_TRUE(body.is_object()) << res->body;
  EXPECT_TRUE(body["error"].is_string()) << res->body;
  EXPECT_EQ(body["status"], "Failed") << res->body;
  EXPECT_EQ(body["httpStatus"], status) << res->body;
  EXPECT_EQ(res->get_header_value("Content-Type"), "application/json");
}

// `record` with one change.
template <typename Change>
std::string changed(Json record, Change change) {
  change(record);
  return record.dump();
}

TEST_F(ServerTest, OnlyTheConfiguredKeysAreAcceptedAndASessionOnlyByItsOwn) {
  const Json body = {{"startInfo", startInfo("Keys")}};
  EXPECT_TRUE(answer(post("/api/sessions/running.json", body), 201)["id"].is_string());
  expectError(post("/api/sessions/running.json", body, "other"), 401);

  ServerConfig keys;
  keys.apiKeys = {"first-key", "second-key"};
  restartServer(keys);
  expectError(post("/api/sessions/running.json", body), 401);  // the demo key is not one
  expectError(client_->Post("/api/sessions/running.json", body.dump(), "application/json"), 401);
  const std::string running = answer(startSession(startInfo("Keys"), "second-key"), 201)["id"];
  const std::string stopped = answer(startSession(startInfo("Keys"), "second-key"), 201)["id"];
  answer(stopSession(stopped, false, false, "second-key"), 200);
  const Json checkpoint = matchData(screenshot64(screen()), "one");
  // Each call with the other configured key.
  const std::vector<std::function<httplib::Result(const std::string&)>> calls = {
      [&](const std::string& key) { return matchWindow(running, checkpoint, key); },
      [&](const std::string& key) { return stopSession(running, false, true, key); },
      [&](const std::string& key) {
        return post("/api/sessions/" + stopped + "/approve", {}, key);
      },
      [&](const std::string& key) {
        return client_->Get("/api/sessions/" + stopped + ".json?" + keyQuery(key));
      },
  };
  expectError(calls[0]("wrong"), 401);
  for (const auto& call : calls) {
    expectError(call("first-key"), 403);
  }
  // The refused calls changed nothing: the session is still running and has no steps.
  EXPECT_EQ(answer(stopSession(running, false, false, "second-key"), 200)["steps"], 0);
}

TEST_F(ServerTest, MalformedRecordsAreRefusedAndLeaveNoTrace) {
  const Json record = {{"startInfo", startInfo("Bad")}};
  for (const std::string& body :
       {std::string("{\"startInfo\": {"),
        changed(record, [](Json& r) { r["startInfo"].erase("scenarioIdOrName"); }),
        changed(record, [](Json& r) { r["startInfo"]["appIdOrName"] = 7; }),
        changed(record, [](Json& r) {
          r["startInfo"]["defaultMatchSettings"]["Ignore"] = {{{"left", "ten"}}};
        })}) {
    SCOPED_TRACE(body);
    expectError(client_->Post("/api/sessions/running.json?" + keyQuery(), body, "application/json"),
                400);
  }
  // Nothing was recorded: the first valid start is still a new test.
  const std::string id = start(startInfo("Bad"), 201);

  const std::string path = "/api/sessions/running/" + id + ".json?" + keyQuery();
  std::string truncated = screenshot64(screen());
  truncated.resize(truncated.size() / 2 / 4 * 4);
  const Json good = matchData(screenshot64(screen()), "bad");
  for (const std::string& body :
       {matchData("@@@@not base64@@@@", "bad").dump(),
        matchData("aGVsbG8gd29ybGQ=", "bad").dump(),  // "hello world"
        matchData(truncated, "bad").dump(),
        changed(good, [](Json& d) { d["options"]["imageMatchSettings"]["matchLevel"] = "Fuzzy"; }),
        changed(good, [](Json& d) { d["options"]["ignoreMismatch"] = "yes"; })}) {
    SCOPED_TRACE(body.substr(0, 200));
    expectError(client_->Post(path, body, "application/json"), 400);
  }
  expectError(client_->Delete(path + "&aborted=maybe&updateBaseline=0"), 400);
  EXPECT_TRUE(check(id, screen(), "good"));
  expectFields(stop(id, false), {{"/steps", 1}, {"/stepsInfo/0/name", "good"}});
}

TEST_F(ServerTest, UnknownAndStoppedSessionsAreRefused) {
  const Json checkpoint = matchData(screenshot64(screen()), "x");
  expectError(matchWindow("nope", checkpoint), 404);
  expectError(client_->Get("/api/sessions/nope.json?" + keyQuery()), 404);

  const std::string id = start(startInfo("Twice"), 201);
  stop(id, false);
  expectError(stopSession(id, false, true), 409);
  start(startInfo("Twice"), 201);  // the second stop saved nothing
}

// Bodies over the limit are refused from their head (see the hardening probes).
TEST_F(ServerTest, ImagesOverThePixelLimitAreRefused) {
  ServerConfig limits;
  limits.maxImagePixels = 100 * 100;
  restartServer(limits);
  const std::string id = start(startInfo("Limits"), 201);
  expectError(matchWindow(id, matchData(screenshot64(solid(101, 100)), "wide")), 413);
  EXPECT_TRUE(check(id, solid(100, 100), "fits"));
  EXPECT_EQ(stop(id, false)["steps"], 1);
}

TEST_F(ServerTest, ServesTheApiOverTlsWithTheGivenCertificate) {
  // The support server's self-signed certificate for 127.0.0.1, with its key beside it.
  const TestServer certified(TestServer::Scheme::Https);
  ServerConfig config;
  config.certFile = certified.certificatePath();
  config.keyFile = certified.certificatePath().parent_path() / "key.pem";
  restartServer(config);
  EXPECT_EQ(server_->baseUrl(), "https://127.0.0.1:" + std::to_string(server_->port()));
  httplib::SSLClient client("127.0.0.1", server_->port());
  client.enable_server_certificate_verification(false);
  auto res = client.Post("/api/sessions/running.json?" + keyQuery(),
                         Json{{"startInfo", startInfo("Tls")}}.dump(), "application/json");
  ASSERT_TRUE(res) << httplib::to_string(res.error());
  EXPECT_EQ(res->status, 201);
}

TEST_F(ServerTest, AServerStartsOnceRefusesATakenPortAndWaitReturnsAfterStop) {
  EXPECT_THROW(server_->start(), std::logic_error);
  ServerConfig taken;
  taken.dataDir = dir_.path();
  taken.port = server_->port();
  EXPECT_THROW(Server(taken).start(), std::runtime_error);
  std::thread stopper([this] { server_->stop(); });
  server_->wait();
  stopper.join();
  server_->stop();  // a second stop does nothing
}

}  // namespace
}  // namespace lumo::test
