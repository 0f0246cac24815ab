#include <gtest/gtest.h>

#include <regex>

#include "review_access.h"
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

// The client's doubled time (an offset, then the UTC time again) is shown as one UTC time.
TEST_F(ServerPages, IndexEscapesClientTextAndShowsReadableTimes) {
  Json info = startInfo("<script>alert(1)</script> & co");
  info["batchInfo"]["name"] = "Night \"build\"";
  info["batchInfo"]["startedAt"] = "2026-11-22T11:21:53+0100T11:21:53Z";
  stop(start(info, 201), false);
  auto res = client_->Get("/");
  ASSERT_TRUE(res);
  EXPECT_TRUE(has(res->get_header_value("Content-Security-Policy"), "script-src 'self'"));
  EXPECT_TRUE(has(res->body, "Night &quot;build&quot;"));
  EXPECT_TRUE(has(res->body, "2026-11-22 10:21:53 UTC"));
  EXPECT_TRUE(has(body("/batches/B1"), "&lt;script&gt;alert(1)&lt;/script&gt; &amp; co"));
}

// A rejected step keeps its test unresolved through "approve all".
TEST_F(ServerPages, BatchCountsRejectKeepsTheBaselineAndApproveAllSkipsRejected) {
  std::string ids[3];
  for (int i = 0; i < 3; ++i) {
    const std::string test = "T" + std::to_string(i);
    const std::string id = start(startInfo(test), 201);
    check(id, screen(1), "home");
    stop(id, true);
    ids[i] = start(startInfo(test), 200);
    check(ids[i], screen(i == 0 ? 1 : 2), "home");
    stop(ids[i], false);
  }
  stop(start(startInfo("Fresh"), 201), false);  // new, no steps: nothing to approve
  const std::string token = formToken(body("/batches/B1"));
  auto reject = form("/sessions/" + ids[2] + "/reject", "csrf=" + token + "&position=0&step=1");
  EXPECT_EQ(reject->get_header_value("Location"), "/sessions/" + ids[2] + "#step-1");
  std::string batch = body("/batches/B1");
  // The first runs were saved as baselines: they passed.
  for (const char* count : {"passed 4<", "different 1<", "rejected 1<", "unresolved (1)"}) {
    EXPECT_TRUE(has(batch, count)) << count;
  }
  EXPECT_EQ(form("/batches/B1/approve", "csrf=0")->status, 403);
  EXPECT_EQ(form("/batches/B1/approve", "csrf=" + token)->status, 303);
  batch = body("/batches/B1");
  EXPECT_TRUE(has(batch, "passed 5<") && has(batch, "rejected 1<")) << batch;
  EXPECT_TRUE(check(start(startInfo("T1"), 200), screen(2), "home"));
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
    EXPECT_TRUE(client_->Get(path)->get_header_value("Location").starts_with("/signin?next="))
        << path;
  }
  EXPECT_EQ(form("/sessions/" + session + "/approve", "csrf=x")->status, 303);
  auto refused = form("/signin", "key=wrong&next=/");
  EXPECT_EQ(refused->status, 401);
  EXPECT_TRUE(refused->get_header_value("Set-Cookie").empty());
  auto signedIn = form("/signin", "key=secret&next=//evil.example/");
  EXPECT_EQ(signedIn->get_header_value("Location"), "/");
  const std::string setCookie = signedIn->get_header_value("Set-Cookie");
  const httplib::Headers cookie = {{"Cookie", setCookie.substr(0, setCookie.find(';'))}};
  EXPECT_EQ(client_->Get("/sessions/" + session, cookie)->status, 200);
  EXPECT_EQ(server::detail::decodePngImage(client_->Get(imagePath, cookie)->body), screen());
}

}  // namespace
}  // namespace lumo::test
