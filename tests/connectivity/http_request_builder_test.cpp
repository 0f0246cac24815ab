#include "connectivity/http_request_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

namespace lumo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using namespace std::chrono_literals;

// No params: no body, still a content type. Params that cannot be serialised: an empty body.
// The connector's tests check the bytes, headers and byte length of a usable body.
TEST(HttpRequestBuilder, WithoutUsableParamsTheBodyIsMissingOrEmpty) {
  const HttpRequest none = HTTPRequestBuilder::requestWithURL("h", std::nullopt, "DELETE", 250ms);
  EXPECT_EQ(none.body, std::nullopt);
  EXPECT_EQ(none.timeoutInterval, 250ms);
  EXPECT_THAT(none.headers, ElementsAre(Pair("Content-Type", "application/json")));
  const HttpRequest bad =
      HTTPRequestBuilder::requestWithURL("h", Json{{"title", "\xFF\xFE not UTF-8"}}, "POST", 60s);
  EXPECT_EQ(bad.body, "");
  EXPECT_EQ(bad.valueForHttpHeaderField("content-length"), "0");
}

}  // namespace
}  // namespace lumo::test
