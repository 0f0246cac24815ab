#include "connectivity/http_request_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

namespace lumo {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using namespace std::chrono_literals;

TEST(HTTPRequestBuilder, ABodyIsCompactJsonWithItsLengthAndContentTypeLast) {
  const Json params{{"b", "é"}, {"a", {1, 2}}, {"z", nullptr}};
  const HttpRequest request =
      HTTPRequestBuilder::requestWithURL("http://h/p?x=1", params, "POST", 60s);
  EXPECT_EQ(request.url, "http://h/p?x=1");
  EXPECT_EQ(request.httpMethod, "POST");
  EXPECT_EQ(request.timeoutInterval, 60s);
  ASSERT_TRUE(request.body);
  EXPECT_EQ(*request.body, R"({"b":"é","a":[1,2],"z":null})");
  // Byte length, not characters: "é" is two bytes.
  EXPECT_THAT(request.headers,
              ElementsAre(Pair("Content-Length", "29"), Pair("Content-Type", "application/json")));
}

TEST(HTTPRequestBuilder, WithoutParamsThereIsNoBodyButStillAContentType) {
  const HttpRequest request =
      HTTPRequestBuilder::requestWithURL("http://h/p", std::nullopt, "DELETE", 250ms);
  EXPECT_EQ(request.body, std::nullopt);
  EXPECT_EQ(request.timeoutInterval, 250ms);
  EXPECT_THAT(request.headers, ElementsAre(Pair("Content-Type", "application/json")));
}

TEST(HTTPRequestBuilder, ParamsThatCannotBeSerialisedGiveAnEmptyBody) {
  const Json params{{"title", "\xFF\xFE not UTF-8"}};
  const HttpRequest request = HTTPRequestBuilder::requestWithURL("http://h", params, "POST", 60s);
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.valueForHTTPHeaderField("content-length"), "0");
}

}  // namespace
}  // namespace lumo
