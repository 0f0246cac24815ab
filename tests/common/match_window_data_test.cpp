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
}

TEST(MatchWindowData, AnEmptyOrNilTagIsWrittenAsTheEmptyString) {
  const MatchWindowData empty(AppOutput(), "", Options("", false, false, false, false, settings()));
  EXPECT_EQ(empty.dictionary()["tag"], "");
  EXPECT_EQ(empty.dictionary()["options"]["name"], "");
  const MatchWindowData nil(AppOutput(), std::nullopt,
                            Options("x", false, false, false, false, settings()));
  EXPECT_EQ(nil.dictionary()["tag"], "");
}

TEST(MatchWindowData, OptionsWithoutNameOrSettingsCannotBeWritten) {
  const Options noName(std::nullopt, false, false, false, false, settings());
  const Options noSettings("n", false, false, false, false, nullptr);
  for (const Options* options : {&noName, &noSettings}) {
    try {
      MatchWindowData(AppOutput(), "t", *options).dictionary();
      ADD_FAILURE() << "written without a required value";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), kIllegalArgumentExceptionName);
    }
  }
}

TEST(MatchWindowData, CompactJsonIsTheDictionaryAsDumpWritesIt) {
  const std::string base64 = std::string(6000, 'Q') + "\r\n" + std::string(64, '+');
  for (const auto& title : {std::optional<std::string>("Home \"1\""), std::optional<std::string>(),
                            std::optional<std::string>("")}) {
    for (const auto& screenshot :
         {std::optional<std::string>(base64), std::optional<std::string>("AAAA"),
          std::optional<std::string>()}) {
      const MatchWindowData data(AppOutput(title, screenshot), std::nullopt,
                                 Options("n", true, false, false, true, settings()));
      EXPECT_EQ(data.compactJson(), data.dictionary().dump());
    }
  }
}

TEST(AppOutput, LeavesOutAnEmptyOrNilTitleAndScreenshot) {
  EXPECT_EQ(AppOutput("", "AAAA").dictionary(), Json({{"screenshot64", "AAAA"}}));
  EXPECT_EQ(AppOutput("T", std::nullopt).dictionary(), Json({{"title", "T"}}));
  EXPECT_EQ(AppOutput(std::nullopt, "").dictionary(), Json::object());
}

TEST(MatchResult, ReadsAsExpectedAndKeepsTheScreenshotValue) {
  EXPECT_TRUE(MatchResult(Json{{"asExpected", true}}).asExpected());
  EXPECT_TRUE(MatchResult(Json{{"asExpected", 2}}).asExpected());
  EXPECT_FALSE(MatchResult(Json{{"asExpected", 0}}).asExpected());
  EXPECT_FALSE(MatchResult(Json::object()).asExpected());
  EXPECT_FALSE(MatchResult(Json::array()).asExpected());

  const MatchResult onlyFlag(Json{{"asExpected", true}});
  EXPECT_EQ(onlyFlag.screenshotValue(), std::nullopt);
  EXPECT_EQ(onlyFlag.screenshot(), nullptr);
  EXPECT_EQ(MatchResult(Json{{"screenshot", nullptr}}).screenshotValue(), std::nullopt);

  const MatchResult full(Json{{"screenshot", "abc"}, {"asExpected", true}, {"other", 1}});
  EXPECT_EQ(full.screenshot(), nullptr);
  EXPECT_EQ(full.dictionary(), Json({{"screenshot", "abc"}, {"asExpected", true}}));
}

TEST(MatchResult, CannotBeWrittenWithoutAScreenshotValue) {
  EXPECT_THROW(MatchResult(Json{{"asExpected", true}}).dictionary(), Exception);
}

}  // namespace
}  // namespace lumo::test
