#include <gtest/gtest.h>

#include "server_fixture.h"

namespace lumo::server::testing {
namespace {

using ServerPages = ServerTest;

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST_F(ServerPages, TheIndexListsBatchesAndTestsWithClientTextEscaped) {
  auto res = client_->Get("/");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_NE(res->body.find("No tests have run yet."), std::string::npos);

  Json info = startInfo("<script>alert(1)</script> & co");
  info["batchInfo"]["name"] = "Night \"build\"";
  const std::string id = start(info, 201);
  check(id, screen(), "home");
  stop(id, false);

  res = client_->Get("/");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/html; charset=utf-8");
  EXPECT_EQ(res->body.find("<script>"), std::string::npos);
  EXPECT_NE(res->body.find("&lt;script&gt;alert(1)&lt;/script&gt; &amp; co"), std::string::npos);
  EXPECT_NE(res->body.find("Night &quot;build&quot;"), std::string::npos);
  EXPECT_NE(res->body.find("href=\"/sessions/" + id + "\""), std::string::npos);
  EXPECT_NE(res->body.find("href=\"/batches/B1\""), std::string::npos);

  res = client_->Get("/batches/B1");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_NE(res->body.find("/sessions/" + id), std::string::npos);
}

TEST_F(ServerPages, TheSessionPageShowsEachStepsImagesAndApprovesThroughItsForm) {
  const std::string first = start(startInfo("Page"), 201);
  check(first, screen(1), "home");
  check(first, screen(2), "cart");
  stop(first, true);
  const std::string second = start(startInfo("Page"), 200);
  EXPECT_FALSE(check(second, screen(3), "home"));
  const Json results = stop(second, false);

  auto res = client_->Get("/sessions/" + second);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  const std::string& page = res->body;
  EXPECT_NE(page.find("id=\"step-1\""), std::string::npos);
  EXPECT_NE(page.find("id=\"step-2\""), std::string::npos);
  EXPECT_NE(page.find("different"), std::string::npos);
  EXPECT_NE(page.find("missing"), std::string::npos);
  // Step 1 has three images; the missing step 2 only its baseline.
  EXPECT_EQ(occurrences(page, "<img "), 4u);
  const std::string diffUrl = results["stepsInfo"][0]["apiUrls"]["diffImage"];
  const std::string diffPath = diffUrl.substr(server_->baseUrl().size());
  EXPECT_NE(page.find("src=\"" + diffPath + "\""), std::string::npos);
  auto diff = client_->Get(diffPath);
  ASSERT_TRUE(diff);
  EXPECT_EQ(diff->get_header_value("Content-Type"), "image/png");
  const auto diffImage = detail::decodePngImage(diff->body);
  ASSERT_TRUE(diffImage);
  EXPECT_EQ(diffImage->width(), 200);
  EXPECT_NE(page.find("action=\"/api/sessions/" + second + "/approve\""), std::string::npos);

  // The form posts the key as a field; the browser is sent back to the page.
  auto approved =
      client_->Post("/api/sessions/" + second + "/approve", "apiKey=" + std::string(kDemoApiKey),
                    "application/x-www-form-urlencoded");
  ASSERT_TRUE(approved);
  EXPECT_EQ(approved->status, 303);
  EXPECT_EQ(approved->get_header_value("Location"), "/sessions/" + second);
  res = client_->Get("/sessions/" + second);
  EXPECT_NE(res->body.find("saved as baseline"), std::string::npos);

  const std::string third = start(startInfo("Page"), 200);
  EXPECT_TRUE(check(third, screen(3), "home"));
  EXPECT_EQ(stop(third, false)["status"], "Passed");  // the missing step left the baseline
}

TEST_F(ServerPages, UnknownPagesAndImagesAreNotFound) {
  auto res = client_->Get("/sessions/nope");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 404);
  EXPECT_NE(res->body.find("No such session."), std::string::npos);
  res = client_->Get("/batches/nope");
  EXPECT_EQ(res->status, 404);
  res = client_->Get("/images/" + std::string(64, 'a') + ".png");
  EXPECT_EQ(res->status, 404);
  res = client_->Get("/images/..%2Flumo.db");
  EXPECT_EQ(res->status, 404);
  res = client_->Get("/elsewhere");
  EXPECT_EQ(res->status, 404);
  res = client_->Get("/api/elsewhere?" + keyQuery());
  EXPECT_EQ(res->status, 404);
  EXPECT_TRUE(Json::parse(res->body)["error"].is_string());
}

}  // namespace
}  // namespace lumo::server::testing
