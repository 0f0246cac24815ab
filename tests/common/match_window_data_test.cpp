#include "common/match_window_data.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/compact_json.h"
#include "lumo/exception.h"
#include "lumo/match_result.h"

namespace lumo::test {
namespace {

std::shared_ptr<ImageMatchSettings> settings() {
  return std::make_shared<ImageMatchSettings>(MatchLevelLayout);
}

TEST(MatchWindowData, WritesExactlyAppOutputTagAndOptions) {
  const MatchWindowData data(AppOutput("Title", "AAAA"), "home",
                             Options("home", true, false, true, false, settings()));
  Json expected = Json::parse(R"({"appOutput": {"screenshot64": "AAAA", "title": "Title"},
      "tag": "home", "options": {"name": "home", "ignoreMismatch": true, "ignoreMatch": false,
      "forceMismatch": true, "forceMatch": false}})");
  expected["options"]["imageMatchSettings"] = settings()->dictionary();
  EXPECT_EQ(data.dictionary(), expected);
  // An empty or nil title or screenshot is left out.
  EXPECT_EQ(AppOutput("", "AAAA").dictionary(), Json({{"screenshot64", "AAAA"}}));
  EXPECT_EQ(AppOutput(std::nullopt, "").dictionary(), Json::object());
}

// The hand-written compact form is byte for byte what dump() writes; a nil tag is "".
TEST(MatchWindowData, CompactJsonIsTheDictionaryAsDumpWritesIt) {
  const std::string base64 = std::string(6000, 'Q') + "\r\n" + std::string(64, '+');
  using Text = std::optional<std::string>;
  for (const Text& title : {Text("Home \"1\""), Text(), Text("")}) {
    for (const Text& screenshot : {Text(base64), Text("AAAA"), Text()}) {
      const MatchWindowData data(AppOutput(title, screenshot), std::nullopt,
                                 Options("n", true, false, false, true, settings()));
      EXPECT_EQ(data.compactJson(), data.dictionary().dump());
      EXPECT_EQ(data.dictionary()["tag"], "");
    }
  }
}

TEST(MatchWindowData, OptionsWithoutNameOrSettingsCannotBeWritten) {
  for (const Options& options : {Options(std::nullopt, false, false, false, false, settings()),
                                 Options("n", false, false, false, false, nullptr)}) {
    try {
      MatchWindowData(AppOutput(), "t", options).dictionary();
      ADD_FAILURE() << "written without a required value";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), kIllegalArgumentExceptionName);
    }
  }
}

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
  };
  for (const Json& value : values) {
    EXPECT_EQ(detail::compactJson(value), value.dump());
  }
}

TEST(CompactJson, RefusesTextThatIsNotUtf8AsDumpDoes) {
  EXPECT_THROW(detail::compactJson(Json{{"x", longText("\xFF")}}), Json::type_error);
  EXPECT_THROW(detail::compactJson(Json{{"x", "\xFF"}}), Json::type_error);
}

TEST(MatchResult, ReadsAsExpectedAndKeepsTheScreenshotValue) {
  EXPECT_TRUE(MatchResult(Json{{"asExpected", 2}}).asExpected());
  EXPECT_FALSE(MatchResult(Json{{"asExpected", 0}}).asExpected());
  EXPECT_EQ(MatchResult(Json{{"screenshot", nullptr}}).screenshotValue(), std::nullopt);
  EXPECT_THROW(MatchResult(Json{{"asExpected", true}}).dictionary(), Exception);
  const MatchResult full(Json{{"screenshot", "abc"}, {"asExpected", true}, {"other", 1}});
  EXPECT_EQ(full.dictionary(), Json({{"screenshot", "abc"}, {"asExpected", true}}));
}

}  // namespace
}  // namespace lumo::test
