#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>

#include "server_fixture.h"

namespace lumo::server::testing {
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

class ServerKeys : public ServerTest {
 protected:
  void SetUp() override {
    ServerConfig config;
    config.apiKeys = {"first-key", "second-key"};
    startServer(config);
  }
};

TEST_F(ServerKeys, OnlyTheConfiguredKeysAreAccepted) {
  const Json body = {{"startInfo", startInfo("Keys")}};
  expectError(post("/api/sessions/running.json", body), 401);
  expectError(post("/api/sessions/running.json", body, std::string(kDemoApiKey)), 401);
  expectError(client_->Post("/api/sessions/running.json", body.dump(), "application/json"), 401);

  auto res = post("/api/sessions/running.json", body, "second-key");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 201);
  const std::string id = Json::parse(res->body)["id"];
  expectError(post("/api/sessions/running/" + id + ".json",
                   matchData(screenshot64(screen()), "one"), "wrong"),
              401);
  expectError(stopSession(id, false, true, "wrong"), 401);
  expectError(post("/api/sessions/" + id + "/approve", Json::object(), "wrong"), 401);
  expectError(client_->Get("/api/sessions/" + id + ".json?apiKey=wrong"), 401);
  // Another configured key may not use the session either.
  expectError(post("/api/sessions/running/" + id + ".json",
                   matchData(screenshot64(screen()), "one"), "first-key"),
              403);
  expectError(stopSession(id, false, true, "first-key"), 403);

  // The refused calls changed nothing: the session is still running and has no steps.
  res = stopSession(id, false, false, "second-key");
  ASSERT_TRUE(res);
  EXPECT_EQ(Json::parse(res->body)["steps"], 0);
}

TEST_F(ServerTest, TheDemoKeyIsAcceptedWhenNoneIsConfigured) {
  auto res = startSession(startInfo("Demo"));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 201);
  expectError(post("/api/sessions/running.json", {{"startInfo", startInfo("Demo")}}, "other"), 401);
}

TEST_F(ServerTest, MalformedStartRequestsAreRefused) {
  expectError(client_->Post("/api/sessions/running.json?" + keyQuery(), "{\"startInfo\": {",
                            "application/json"),
              400);
  expectError(post("/api/sessions/running.json", Json::array()), 400);
  expectError(post("/api/sessions/running.json", {{"other", 1}}), 400);
  Json info = startInfo("Bad");
  info.erase("scenarioIdOrName");
  expectError(startSession(info), 400);
  info = startInfo("Bad");
  info["appIdOrName"] = 7;
  expectError(startSession(info), 400);
  info = startInfo("Bad");
  info["defaultMatchSettings"]["matchLevel"] = "Fuzzy";
  expectError(startSession(info), 400);
  info = startInfo("Bad");
  info["defaultMatchSettings"]["Ignore"] = {{{"left", "ten"}}};
  expectError(startSession(info), 400);
  // Nothing was recorded: the first valid start is still a new test with a fresh batch.
  start(startInfo("Bad"), 201);
}

TEST_F(ServerTest, BadCheckpointsAreRefusedAndLeaveTheSessionAsItWas) {
  const std::string id = start(startInfo("Input"), 201);
  const std::string path = "/api/sessions/running/" + id + ".json";
  expectError(client_->Post(path + "?" + keyQuery(), "not json", "application/json"), 400);
  expectError(post(path, Json::array()), 400);
  expectError(post(path, matchData("@@@@not base64@@@@", "bad")), 400);
  expectError(post(path, matchData("aGVsbG8gd29ybGQ=", "bad")), 400);  // "hello world"
  std::string truncated = screenshot64(screen());
  truncated.resize(truncated.size() / 2 / 4 * 4);
  expectError(post(path, matchData(truncated, "bad")), 400);
  Json badLevel = settings("Fuzzy");
  expectError(post(path, matchData(screenshot64(screen()), "bad", false, badLevel)), 400);
  Json badRegion = settings();
  badRegion["Floating"] = {7};
  expectError(post(path, matchData(screenshot64(screen()), "bad", false, badRegion)), 400);
  Json badOptions = matchData(screenshot64(screen()), "bad");
  badOptions["options"]["ignoreMismatch"] = "yes";
  expectError(post(path, badOptions), 400);
  expectError(client_->Delete(path + "?" + keyQuery() + "&aborted=maybe&updateBaseline=0"), 400);

  EXPECT_TRUE(check(id, screen(), "good"));
  const Json results = stop(id, false);
  EXPECT_EQ(results["steps"], 1);
  EXPECT_EQ(results["stepsInfo"][0]["name"], "good");
}

TEST_F(ServerTest, UnknownAndStoppedSessionsAreRefused) {
  expectError(post("/api/sessions/running/nope.json", matchData(screenshot64(screen()), "x")), 404);
  expectError(stopSession("nope", false, false), 404);
  expectError(post("/api/sessions/nope/approve", Json::object()), 404);
  expectError(client_->Get("/api/sessions/nope.json?" + keyQuery()), 404);

  const std::string id = start(startInfo("Twice"), 201);
  expectError(post("/api/sessions/" + id + "/approve", Json::object()), 409);  // still running
  stop(id, false);
  expectError(stopSession(id, false, true), 409);
  expectError(post("/api/sessions/running/" + id + ".json", matchData(screenshot64(screen()), "x")),
              409);
  start(startInfo("Twice"), 201);  // the second stop saved nothing
}

class ServerLimits : public ServerTest {
 protected:
  void SetUp() override {
    ServerConfig config;
    config.maxBodyBytes = 64 * 1024;
    config.maxImagePixels = 100 * 100;
    startServer(config);
  }
};

TEST_F(ServerLimits, BodiesAndImagesOverTheLimitsAreRefused) {
  const std::string id = start(startInfo("Limits"), 201);
  const std::string path = "/api/sessions/running/" + id + ".json";
  expectError(post(path, matchData(screenshot64(noise(200, 200, 1)), "big")), 413);
  expectError(post(path, matchData(screenshot64(solid(101, 100)), "wide")), 413);
  EXPECT_TRUE(check(id, solid(100, 100), "fits"));
  EXPECT_EQ(stop(id, false)["steps"], 1);
}

// A self-signed certificate for 127.0.0.1 and its key, written as PEM files.
void writeCertificate(const std::filesystem::path& cert, const std::filesystem::path& key) {
  EVP_PKEY* pkey = EVP_EC_gen("P-256");
  ASSERT_NE(pkey, nullptr);
  X509* x509 = X509_new();
  X509_set_version(x509, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
  X509_gmtime_adj(X509_getm_notBefore(x509), 0);
  X509_gmtime_adj(X509_getm_notAfter(x509), 3600);
  X509_set_pubkey(x509, pkey);
  X509_NAME* name = X509_get_subject_name(x509);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(x509, name);
  ASSERT_GT(X509_sign(x509, pkey, EVP_sha256()), 0);
  FILE* out = std::fopen(cert.c_str(), "w");
  PEM_write_X509(out, x509);
  std::fclose(out);
  out = std::fopen(key.c_str(), "w");
  PEM_write_PrivateKey(out, pkey, nullptr, nullptr, 0, nullptr, nullptr);
  std::fclose(out);
  X509_free(x509);
  EVP_PKEY_free(pkey);
}

TEST(ServerHttps, ServesTheApiOverTlsWithTheGivenCertificate) {
  TempDir dir;
  ServerConfig config;
  config.dataDir = dir.path() / "data";
  config.certFile = dir.path() / "cert.pem";
  config.keyFile = dir.path() / "key.pem";
  writeCertificate(config.certFile, config.keyFile);
  Server server(config);
  server.start();
  EXPECT_EQ(server.baseUrl(), "https://127.0.0.1:" + std::to_string(server.port()));

  httplib::SSLClient client("127.0.0.1", server.port());
  client.enable_server_certificate_verification(false);
  auto res = client.Post("/api/sessions/running.json?apiKey=" + std::string(kDemoApiKey),
                         Json{{"startInfo", startInfo("Tls")}}.dump(), "application/json");
  ASSERT_TRUE(res) << httplib::to_string(res.error());
  EXPECT_EQ(res->status, 201);
  EXPECT_TRUE(Json::parse(res->body)["url"].get<std::string>().starts_with("https://"));

  httplib::Client plain("127.0.0.1", server.port());
  EXPECT_FALSE(plain.Get("/"));
  server.stop();
}

TEST(ServerHttps, AMissingCertificateStopsTheStart) {
  TempDir dir;
  ServerConfig config;
  config.dataDir = dir.path();
  config.certFile = dir.path() / "none.pem";
  config.keyFile = dir.path() / "none.key";
  Server server(config);
  EXPECT_THROW(server.start(), std::runtime_error);
}

TEST(ServerLifecycle, StartsOnceStopsIdempotentlyAndWaitReturnsAfterStop) {
  TempDir dir;
  ServerConfig config;
  config.dataDir = dir.path();
  Server server(config);
  EXPECT_EQ(server.port(), -1);
  server.start();
  EXPECT_GT(server.port(), 0);
  EXPECT_THROW(server.start(), std::logic_error);
  std::thread stopper([&server] { server.stop(); });
  server.wait();
  stopper.join();
  server.stop();

  // The port is free again, and a second server on a taken port refuses to start.
  Server first(config);
  first.start();
  ServerConfig taken = config;
  taken.port = first.port();
  Server second(taken);
  EXPECT_THROW(second.start(), std::runtime_error);
}

}  // namespace
}  // namespace lumo::server::testing
