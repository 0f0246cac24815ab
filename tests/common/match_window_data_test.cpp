#include "common/match_window_data.h"

#include <gtest/gtest.h>

#include <memory>

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
  const Json expected{{"appOutput", {{"screenshot64", "AAAA"}, {"title", "Title"}}},
                      {"tag", "home"},
                      {"options",
                       {{"name", "home"},
                        {"ignoreMismatch", true},
                        {"ignoreMatch", false},
                        {"forceMismatch", true},
                        {"forceMatch", false},
                        {"imageMatchSettings", settings()->dictionary()}}}};
  EXPECT_EQ(data.dictionary(), expected);
  // An empty or nil title or screenshot is left out.
  EXPECT_EQ(AppOutput("", "AAAA").dictionary(), Json({{"screenshot64", "AAAA"}}));
  EXPECT_EQ(AppOutput("T", std::nullopt).dictionary(), Json({{"title", "T"}}));
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

TEST(MatchResult, ReadsAsExpectedAndKeepsTheScreenshotValue) {
  for (const auto& [json, expected] :
       {std::pair{Json{{"asExpected", true}}, true}, std::pair{Json{{"asExpected", 2}}, true},
        std::pair{Json{{"asExpected", 0}}, false}, std::pair{Json::object(), false},
        std::pair{Json::array(), false}}) {
    EXPECT_EQ(MatchResult(json).asExpected(), expected) << json;
  }
  EXPECT_EQ(MatchResult(Json{{"screenshot", nullptr}}).screenshotValue(), std::nullopt);
  EXPECT_THROW(MatchResult(Json{{"asExpected", true}}).dictionary(), Exception);
  const MatchResult full(Json{{"screenshot", "abc"}, {"asExpected", true}, {"other", 1}});
  EXPECT_EQ(full.dictionary(), Json({{"screenshot", "abc"}, {"asExpected", true}}));
}

}  // namespace
}  // namespace lumo::test
