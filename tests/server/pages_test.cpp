#include <gtest/gtest.h>
#include <sqlite3.h>

#include <regex>

#include "review_access.h"
#include "review_time.h"
#include "server_fixture.h"

namespace lumo::server::testing {
namespace {

using ServerPages = ServerTest;

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The anti-forgery token a page embeds in its forms.
std::string formToken(const std::string& page) {
  std::smatch m;
  return std::regex_search(page, m, std::regex("name=\"csrf\" value=\"([0-9a-f]{64})\""))
             ? m[1].str()
             : std::string();
}

TEST(ReviewTime, ReadsTheClientsDoubledTimeAndOtherIsoFormsAsUtc) {
  const struct {
    const char* text;
    const char* readable;  // "" for unreadable
  } cases[] = {
      {"2026-11-23T01:20:04+0000T01:20:04Z", "2026-11-23 01:20:04 UTC"},
      {"2026-11-22T11:21:53+0100T11:21:53Z", "2026-11-22 10:21:53 UTC"},
      {"2026-01-01T00:30:00-02:30", "2026-01-01 03:00:00 UTC"},
      {"2026-03-01T00:10:00.123+01:00", "2026-02-28 23:10:00 UTC"},
      {"2026-01-01 10:00", "2026-01-01 10:00:00 UTC"},
      {"2026-02-30T10:00:00Z", ""},
      {"2026-01-01T25:00:00Z", ""},
      {"yesterday", ""},
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(detail::readableTime(c.text).value_or(""), c.readable) << c.text;
  }
  EXPECT_EQ(detail::readableTime(std::int64_t{1'767'225'600'000}), "2026-01-01 00:00:00 UTC");
}

TEST(ReviewAccess, SessionsNeedAKnownKeyAndExpire) {
  auto now = std::chrono::system_clock::time_point{};
  detail::ReviewAccess access({"k1", "k2"}, false, std::chrono::hours(1), [&] { return now; });
  EXPECT_FALSE(access.signIn("k3"));
  EXPECT_FALSE(access.formToken(""));
  const auto token = access.signIn("k2");
  ASSERT_TRUE(token);
  const std::string cookie = "a=b; lumo_session=" + *token + "; c=d";
  const auto form = access.formToken(cookie);
  ASSERT_TRUE(form);
  EXPECT_NE(*form, *token);
  EXPECT_TRUE(access.mayPost(cookie, *form));
  EXPECT_FALSE(access.mayPost(cookie, *token));
  EXPECT_FALSE(access.mayPost("lumo_session=" + *form, *form));
  EXPECT_EQ(access.cookie(*token, true),
            "lumo_session=" + *token + "; Path=/; Max-Age=3600; HttpOnly; SameSite=Strict; Secure");
  now += std::chrono::minutes(59);
  EXPECT_TRUE(access.formToken(cookie));
  now += std::chrono::minutes(1);
  EXPECT_FALSE(access.formToken(cookie));
}

TEST_F(ServerPages, IndexEscapesClientTextShowsReadableTimesAndFiltersAndPages) {
  EXPECT_TRUE(has(client_->Get("/")->body, "No tests have run yet."));
  Json info = startInfo("<script>alert(1)</script> & co");
  info["batchInfo"]["name"] = "Night \"build\"";
  info["batchInfo"]["startedAt"] = "2026-11-23T01:20:04+0000T01:20:04Z";
  stop(start(info, 201), false);
  for (int i = 0; i < 21; ++i) {
    Json other = startInfo("T" + std::to_string(i), i % 2 ? "feature" : "");
    other["batchInfo"]["id"] = "P" + std::to_string(i);
    other["appIdOrName"] = i < 3 ? "Mail" : "Shop";
    stop(start(other, 201), false);
  }

  auto res = client_->Get("/");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/html; charset=utf-8");
  EXPECT_TRUE(has(res->get_header_value("Content-Security-Policy"), "script-src 'self'"));
  EXPECT_TRUE(has(res->body, "22 batches"));
  EXPECT_TRUE(has(res->body, "Page 1 of 2"));
  EXPECT_FALSE(has(res->body, "href=\"/batches/B1\""));  // the oldest is on page 2
  res = client_->Get("/?page=2");
  EXPECT_FALSE(has(res->body, "<script>alert"));
  EXPECT_TRUE(has(res->body, "Night &quot;build&quot;"));
  EXPECT_TRUE(has(res->body, "2026-11-23 01:20:04 UTC"));
  EXPECT_FALSE(has(res->body, "T01:20:04Z"));

  res = client_->Get("/?app=Mail");
  EXPECT_TRUE(has(res->body, "3 batches match the filter"));
  res = client_->Get("/?app=Shop&branch=feature");
  EXPECT_TRUE(has(res->body, "9 batches match the filter"));  // odd i from 3 to 19

  res = client_->Get("/batches/B1");
  EXPECT_TRUE(has(res->body, "&lt;script&gt;alert(1)&lt;/script&gt; &amp; co"));
  EXPECT_FALSE(has(res->body, "<script>alert"));
  res = client_->Get("/static/review.js");
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/javascript; charset=utf-8");
  EXPECT_TRUE(has(res->body, "addEventListener('keydown'"));
}

TEST_F(ServerPages, BatchCountsRejectKeepsTheBaselineAndApproveAllSkipsRejected) {
  for (const char* test : {"Same", "Changed", "Refused"}) {
    const std::string id = start(startInfo(test), 201);
    check(id, screen(1), "home");
    stop(id, true);
  }
  std::string ids[3];
  int i = 0;
  for (const char* test : {"Same", "Changed", "Refused"}) {
    ids[i] = start(startInfo(test), 200);
    check(ids[i], screen(i == 0 ? 1 : 2), "home");
    stop(ids[i++], false);
  }
  stop(start(startInfo("Fresh"), 201), false);  // new, no steps: nothing to approve

  auto batch = client_->Get("/batches/B1");
  const std::string token = formToken(batch->body);
  ASSERT_FALSE(token.empty());
  EXPECT_TRUE(has(batch->body, "Approve all unresolved (2)"));
  auto reject =
      client_->Post("/sessions/" + ids[2] + "/reject", "csrf=" + token + "&position=0&step=1",
                    "application/x-www-form-urlencoded");
  EXPECT_EQ(reject->status, 303);
  EXPECT_EQ(reject->get_header_value("Location"), "/sessions/" + ids[2] + "#step-1");
  batch = client_->Get("/batches/B1");
  // The first runs were saved as baselines: they passed.
  for (const char* count : {"passed 4<", "new 1<", "different 1<", "failed 0<", "rejected 1<",
                            "Approve all unresolved (1)"}) {
    EXPECT_TRUE(has(batch->body, count)) << count;
  }
  const std::string filtered = client_->Get("/batches/B1?status=rejected")->body;
  EXPECT_TRUE(has(filtered, "Refused"));
  EXPECT_FALSE(has(filtered, ">Changed<"));

  // Without the form's token nothing changes.
  EXPECT_EQ(
      client_->Post("/batches/B1/approve", "csrf=0", "application/x-www-form-urlencoded")->status,
      403);
  EXPECT_EQ(
      client_->Post("/batches/B1/approve", "csrf=" + token, "application/x-www-form-urlencoded")
          ->status,
      303);
  batch = client_->Get("/batches/B1");
  EXPECT_TRUE(has(batch->body, "passed 5<"));
  EXPECT_TRUE(has(batch->body, "new 1<"));
  EXPECT_TRUE(has(batch->body, "rejected 1"));
  EXPECT_FALSE(has(batch->body, "Approve all unresolved"));

  // The rejected test is still compared with its old baseline; the approved one with its new.
  const std::string rerun = start(startInfo("Refused"), 200);
  EXPECT_FALSE(check(rerun, screen(2), "home"));
  const std::string approved = start(startInfo("Changed"), 200);
  EXPECT_TRUE(check(approved, screen(2), "home"));
}

TEST_F(ServerPages, TheSessionPageHoldsTheViewerWithBoxesFromTheStore) {
  const std::string first = start(startInfo("Page"), 201);
  check(first, screen(1), "home");
  check(first, screen(2), "cart");
  stop(first, true);
  const std::string second = start(startInfo("Page"), 200);
  EXPECT_FALSE(check(second, screen(3), "home"));
  stop(second, false);

  std::string page = client_->Get("/sessions/" + second)->body;
  // The comparison's own boxes, then boxes written in either shape.
  EXPECT_TRUE(has(page, "id=\"step-1\" data-outcome=\"different\" data-boxes=\"[["));
  EXPECT_TRUE(has(page, "id=\"step-2\" data-outcome=\"missing\""));
  EXPECT_TRUE(has(page, "<form id=\"approve\" method=\"post\""));
  EXPECT_FALSE(has(page, "<script>"));

  // Boxes from a store that records them, in either shape.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_.path() / "lumo.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         ("UPDATE steps SET boxes = "
                          "'[{\"left\":20,\"top\":60,\"width\":160,\"height\":12},[1,2,3,4]]' "
                          "WHERE session_id = '" +
                          second + "' AND position = 0")
                             .c_str(),
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  page = client_->Get("/sessions/" + second)->body;
  EXPECT_TRUE(has(page, "data-boxes=\"[[20,60,160,12],[1,2,3,4]]\""));
  EXPECT_TRUE(has(page, "2 differences"));
}

TEST_F(ServerPages, WithKeysEveryPageAndImageAsksForASignIn) {
  stopServer();
  ServerConfig config;
  config.apiKeys = {"secret"};
  startServer(config);
  EXPECT_EQ(startSession(startInfo("Login"))->status, 401);  // the demo key is not one of them
  auto started = post("/api/sessions/running.json", {{"startInfo", startInfo("Login")}}, "secret");
  const std::string session = Json::parse(started->body)["id"];
  client_->Post("/api/sessions/running/" + session + ".json?apiKey=secret",
                matchData(screenshot64(screen()), "home").dump(), "application/json");
  client_->Delete("/api/sessions/running/" + session + ".json?apiKey=secret");
  const Json results =
      Json::parse(client_->Get("/api/sessions/" + session + ".json?apiKey=secret")->body);
  const std::string image = results["stepsInfo"][0]["apiUrls"]["currentImage"];

  for (const std::string& path : std::vector<std::string>{
           "/", "/batches/B1", "/sessions/" + session, image.substr(server_->baseUrl().size())}) {
    auto res = client_->Get(path);
    EXPECT_EQ(res->status, 303) << path;
    EXPECT_TRUE(res->get_header_value("Location").starts_with("/signin?next=")) << path;
  }
  EXPECT_EQ(
      client_
          ->Post("/sessions/" + session + "/approve", "csrf=x", "application/x-www-form-urlencoded")
          ->status,
      303);
  auto refused = client_->Post("/signin", "key=wrong&next=/", "application/x-www-form-urlencoded");
  EXPECT_EQ(refused->status, 401);
  EXPECT_TRUE(refused->get_header_value("Set-Cookie").empty());
  auto signedIn = client_->Post("/signin", "key=secret&next=//evil.example/",
                                "application/x-www-form-urlencoded");
  EXPECT_EQ(signedIn->status, 303);
  EXPECT_EQ(signedIn->get_header_value("Location"), "/");
  const std::string setCookie = signedIn->get_header_value("Set-Cookie");
  EXPECT_TRUE(has(setCookie, "; HttpOnly; SameSite=Strict")) << setCookie;
  const httplib::Headers cookie = {{"Cookie", setCookie.substr(0, setCookie.find(';'))}};
  auto page = client_->Get("/sessions/" + session, cookie);
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(client_->Get(image.substr(server_->baseUrl().size()), cookie)->status, 200);
  auto approve =
      client_->Post("/sessions/" + session + "/approve", cookie, "csrf=" + formToken(page->body),
                    "application/x-www-form-urlencoded");
  EXPECT_EQ(approve->status, 303);
  EXPECT_TRUE(has(client_->Get("/sessions/" + session, cookie)->body, "saved as baseline"));
}

TEST_F(ServerPages, UnknownPagesAndImagesAreNotFound) {
  for (const std::string& path : std::vector<std::string>{
           "/sessions/nope", "/batches/nope", "/static/other.js",
           "/images/" + std::string(64, 'a') + ".png", "/images/..%2Flumo.db", "/elsewhere"}) {
    EXPECT_EQ(client_->Get(path)->status, 404) << path;
  }
  auto res = client_->Get("/api/elsewhere?" + keyQuery());
  EXPECT_EQ(res->status, 404);
  EXPECT_TRUE(Json::parse(res->body)["error"].is_string());
}

}  // namespace
}  // namespace lumo::server::testing
