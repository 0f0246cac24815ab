#include <gtest/gtest.h>

#include <regex>

#include "review_access.h"
#include "review_time.h"
#include "server_fixture.h"

namespace lumo::test {
namespace {

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

class ServerPages : public ServerTest {
 protected:
  std::string body(const std::string& path) { return client_->Get(path)->body; }
  httplib::Result form(const std::string& path, const std::string& fields,
                       const httplib::Headers& headers = {}) {
    return client_->Post(path, headers, fields, "application/x-www-form-urlencoded");
  }
};

TEST(ReviewTime, ReadsTheClientsDoubledTimeAndOtherIsoFormsAsUtc) {
  const struct {
    const char* text;
    const char* readable;  // "" for unreadable
  } cases[] = {
      {"2026-11-22T11:21:53+0100T11:21:53Z", "2026-11-22 10:21:53 UTC"},
      {"2026-01-01T00:30:00-02:30", "2026-01-01 03:00:00 UTC"},
      {"2026-03-01T00:10:00.123+01:00", "2026-02-28 23:10:00 UTC"},
      {"2026-01-01 10:00", "2026-01-01 10:00:00 UTC"},
      {"2026-02-30T10:00:00Z", ""},
      {"yesterday", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(server::detail::readableTime(c.text).value_or(""), c.readable) << c.text;
  }
  EXPECT_EQ(server::detail::readableTime(std::int64_t{1'767'225'600'000}),
            "2026-01-01 00:00:00 UTC");
}

TEST(ReviewAccess, SessionsNeedAKnownKeyAndExpire) {
  auto now = std::chrono::system_clock::time_point{};
  server::detail::ReviewAccess access({"k1", "k2"}, false, std::chrono::hours(1),
                                      [&] { return now; });
  const auto token = access.signIn("k2");
  ASSERT_TRUE(token);
  const std::string cookie = "a=b; lumo_session=" + *token + "; c=d";
  const auto form = access.formToken(cookie);
  ASSERT_TRUE(form);
  EXPECT_NE(*form, *token);
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
  EXPECT_TRUE(has(body("/"), "No tests have run yet."));
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
  const std::string second = body("/?page=2");
  EXPECT_TRUE(has(second, "Night &quot;build&quot;"));
  EXPECT_TRUE(has(second, "2026-11-23 01:20:04 UTC"));
  EXPECT_FALSE(has(second, "T01:20:04Z"));
  EXPECT_TRUE(has(body("/?app=Mail"), "3 batches match the filter"));
  // Odd i from 3 to 19.
  EXPECT_TRUE(has(body("/?app=Shop&branch=feature"), "9 batches match the filter"));
  EXPECT_TRUE(has(body("/batches/B1"), "&lt;script&gt;alert(1)&lt;/script&gt; &amp; co"));
}

TEST_F(ServerPages, BatchCountsRejectKeepsTheBaselineAndApproveAllSkipsRejected) {
  const char* tests[] = {"Same", "Changed", "Refused"};
  std::string ids[3];
  for (int i = 0; i < 3; ++i) {
    const std::string id = start(startInfo(tests[i]), 201);
    check(id, screen(1), "home");
    stop(id, true);
    ids[i] = start(startInfo(tests[i]), 200);
    check(ids[i], screen(i == 0 ? 1 : 2), "home");
    stop(ids[i], false);
  }
  stop(start(startInfo("Fresh"), 201), false);  // new, no steps: nothing to approve

  std::string batch = body("/batches/B1");
  const std::string token = formToken(batch);
  ASSERT_FALSE(token.empty());
  EXPECT_TRUE(has(batch, "Approve all unresolved (2)"));
  auto reject = form("/sessions/" + ids[2] + "/reject", "csrf=" + token + "&position=0&step=1");
  EXPECT_EQ(reject->status, 303);
  EXPECT_EQ(reject->get_header_value("Location"), "/sessions/" + ids[2] + "#step-1");
  batch = body("/batches/B1");
  // The first runs were saved as baselines: they passed.
  for (const char* count : {"passed 4<", "new 1<", "different 1<", "failed 0<", "rejected 1<",
                            "Approve all unresolved (1)"}) {
    EXPECT_TRUE(has(batch, count)) << count;
  }
  const std::string filtered = body("/batches/B1?status=rejected");
  EXPECT_TRUE(has(filtered, "Refused"));
  EXPECT_FALSE(has(filtered, ">Changed<"));

  // Without the form's token nothing changes.
  EXPECT_EQ(form("/batches/B1/approve", "csrf=0")->status, 403);
  EXPECT_EQ(form("/batches/B1/approve", "csrf=" + token)->status, 303);
  batch = body("/batches/B1");
  for (const char* count : {"passed 5<", "new 1<", "rejected 1"}) {
    EXPECT_TRUE(has(batch, count)) << count;
  }
  EXPECT_FALSE(has(batch, "Approve all unresolved"));
  // The approved test is compared with its new baseline.
  EXPECT_TRUE(check(start(startInfo("Changed"), 200), screen(2), "home"));
}

TEST_F(ServerPages, WithKeysEveryPageAndImageAsksForASignIn) {
  ServerConfig config;
  config.apiKeys = {"secret"};
  restartServer(config);
  const std::string session = answer(startSession(startInfo("Login"), "secret"), 201)["id"];
  matchWindow(session, matchData(screenshot64(screen()), "home"), "secret");
  const Json results = answer(stopSession(session, false, false, "secret"), 200);
  const std::string image = results["stepsInfo"][0]["apiUrls"]["currentImage"];
  const std::string imagePath = image.substr(server_->baseUrl().size());

  for (const std::string& path :
       {std::string("/"), std::string("/batches/B1"), "/sessions/" + session, imagePath}) {
    auto res = client_->Get(path);
    EXPECT_EQ(res->status, 303) << path;
    EXPECT_TRUE(res->get_header_value("Location").starts_with("/signin?next=")) << path;
  }
  EXPECT_EQ(form("/sessions/" + session + "/approve", "csrf=x")->status, 303);
  auto refused = form("/signin", "key=wrong&next=/");
  EXPECT_EQ(refused->status, 401);
  EXPECT_TRUE(refused->get_header_value("Set-Cookie").empty());
  auto signedIn = form("/signin", "key=secret&next=//evil.example/");
  EXPECT_EQ(signedIn->status, 303);
  EXPECT_EQ(signedIn->get_header_value("Location"), "/");
  const std::string setCookie = signedIn->get_header_value("Set-Cookie");
  EXPECT_TRUE(has(setCookie, "; HttpOnly; SameSite=Strict")) << setCookie;
  const httplib::Headers cookie = {{"Cookie", setCookie.substr(0, setCookie.find(';'))}};
  auto page = client_->Get("/sessions/" + session, cookie);
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(client_->Get(imagePath, cookie)->status, 200);
  EXPECT_EQ(
      form("/sessions/" + session + "/approve", "csrf=" + formToken(page->body), cookie)->status,
      303);
  EXPECT_TRUE(has(client_->Get("/sessions/" + session, cookie)->body, "saved as baseline"));
}

TEST_F(ServerPages, UnknownPagesAndImagesAreNotFound) {
  for (const std::string& path :
       {std::string("/sessions/nope"), std::string("/batches/nope"),
        std::string("/static/other.js"), "/images/" + std::string(64, 'a') + ".png",
        std::string("/images/..%2Flumo.db"), std::string("/elsewhere")}) {
    EXPECT_EQ(client_->Get(path)->status, 404) << path;
  }
  auto res = client_->Get("/api/elsewhere?" + keyQuery());
  EXPECT_EQ(res->status, 404);
  EXPECT_TRUE(Json::parse(res->body)["error"].is_string());
}

}  // namespace
}  // namespace lumo::test
