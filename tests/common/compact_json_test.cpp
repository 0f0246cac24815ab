#include "common/compact_json.h"

#include <gtest/gtest.h>

#include <string>

namespace lumo::test {
namespace {

// Long enough to take the fast path, with every byte that needs care somewhere in it.
std::string longText(const std::string& middle) {
  return std::string(5000, 'A') + middle + std::string(3000, '/') + "\r\n";
}

TEST(CompactJson, WritesTheSameBytesAsDump) {
  std::string controls;
  for (int c = 0; c < 0x20; ++c) {
    controls += static_cast<char>(c);
  }
  const Json values[] = {
      Json::object(),
      Json::array(),
      Json{{"b", 1}, {"a", {1.5, -2, true, nullptr, "x"}}, {"c", Json::object()}},
      Json{{"long", longText(controls + "\"\\\x7F" + "end")}},
      Json{{"long non-ASCII", longText("caf\xC3\xA9 \xE2\x82\xAC")}},
      Json{{longText("key\t"), {longText("\b\f"), 3.25e-7, 12345678901234ull}}},
      Json(longText("top-level string")),
      Json(42),
  };
  for (const Json& value : values) {
    EXPECT_EQ(detail::compactJson(value), value.dump());
  }
}

TEST(CompactJson, RefusesTextThatIsNotUtf8AsDumpDoes) {
  EXPECT_THROW(detail::compactJson(Json{{"x", longText("\xFF")}}), Json::type_error);
  EXPECT_THROW(detail::compactJson(Json{{"x", "\xFF"}}), Json::type_error);
}

}  // namespace
}  // namespace lumo::test
