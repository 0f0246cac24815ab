#include "lumo/test_results.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace lumo::test {
namespace {

using Counts = std::vector<std::int64_t>;
using Texts = std::vector<std::optional<std::string>>;

TestResults read(const char* text) { return TestResults(Json::parse(text)); }

// Only the exact texts count: "Unresolved" and wrong case are unresolved, never passed; a
// missing status counts as passed.
TEST(TestResults, StatusComesFromTheExactText) {
  const std::pair<const char*, TestResultsStatus> cases[] = {
      {R"({"status":"Passed"})", TestResultsStatusPassed},
      {R"({"status":"Failed"})", TestResultsStatusFailed},
      {R"({"status":"Unresolved"})", TestResultsStatusUnresolved},
      {R"({"status":"passed"})", TestResultsStatusUnresolved},
      {R"({"status":null})", TestResultsStatusPassed}};
  for (const auto& [text, status] : cases) {
    EXPECT_EQ(read(text).status(), status) << text;
    EXPECT_EQ(read(text).isPassed(), status == TestResultsStatusPassed) << text;
  }
  EXPECT_EQ(TestResults::statusFromString(std::nullopt), TestResultsStatusUnresolved);

  TestResults results = read(R"({"status":"Failed"})");
  results.setStatusString("Passed");
  EXPECT_EQ(results.status(), TestResultsStatusFailed);
  EXPECT_EQ(results.dictionary()["status"], "Passed");
}

TEST(TestResults, UrlIsTheApiSessionLinkOnlyWhenAppUrlsArePresent) {
  EXPECT_EQ(read(R"({"apiUrls":{"session":"S"},"appUrls":{}})").url(), "S");
  EXPECT_EQ(read(R"({"apiUrls":{"session":"S"}})").url(), std::nullopt);
  EXPECT_EQ(read(R"({"appUrls":{"session":"A"}})").url(), std::nullopt);
}

// Every field read is written back under its own key, except: the application links go under
// "appName", the host app and the url are never written, and the display size goes through
// single precision.
TEST(TestResults, WritesWhatItReadsWithItsDeliberateAsymmetries) {
  const Json expected = Json::parse(R"({
    "apiUrls": {"batch": "pb", "session": "ps"}, "appName": {"batch": "ab"}, "batchId": "b1",
    "batchName": "nightly", "branchName": "main", "contentMatches": 7,
    "defaultMatchSettings": {"ignoreCaret": false, "matchLevel": "Strict", "remainder": false,
                             "scale": 0, "splitBottomHeight": false, "splitTopHeight": false},
    "duration": 12, "exactMatches": 5,
    "hostDisplaySize": {"width": 1125.699951171875, "height": 667}, "hostOS": "Linux",
    "id": "r1", "isAborted": true, "isDifferent": true, "isNew": true, "layoutMatches": 8,
    "matches": 2, "mismatches": 1, "missing": 4, "name": "Login", "noneMatches": 9,
    "secretToken": "tok", "startedAt": "2026-11-22T11:21:53Z", "status": "Unresolved",
    "steps": 3, "stepsInfo": [{"apiUrls": {"baselineImage": "b", "diffImage": "d"},
                               "appUrls": {"step": "s"}, "hasBaselineImage": true,
                               "hasCurrentImage": true, "isDifferent": true, "name": "two"}],
    "strictMatches": 6})");
  Json sent = expected;
  sent.update(Json::parse(R"({"appName": "Shop", "appUrls": {"batch": "ab"}, "hostApp": "app",
      "hostDisplaySize": {"width": 1125.7, "height": 667}, "unknown": {"ignored": true}})"));
  sent["stepsInfo"][0]["hasCurrentImage"] = 1;
  const TestResults r(sent);
  EXPECT_EQ(r.dictionary(), expected);
  EXPECT_EQ(Json::parse(r.description()), expected);
  EXPECT_EQ((Texts{r.appName(), r.hostApp(), r.url()}), (Texts{"Shop", "app", "ps"}));
}

// Servers that send nulls or the wrong JSON types must never crash the reader: such values keep
// their defaults, and a missing status is neither kept nor written.
TEST(TestResults, MissingAndBadValuesKeepDefaults) {
  const Json defaults = Json::parse(R"({
    "contentMatches": 0, "duration": 0, "exactMatches": 0,
    "hostDisplaySize": {"width": 0, "height": 0}, "isAborted": false, "isDifferent": false,
    "isNew": false, "layoutMatches": 0, "matches": 0, "mismatches": 0, "missing": 0,
    "noneMatches": 0, "steps": 0, "strictMatches": 0})");
  const char* badTypes = R"({
    "steps": "3", "matches": null, "mismatches": [1], "isNew": "true", "status": 2,
    "name": 7, "appName": null, "hostDisplaySize": [375, 667], "duration": {"s": 1},
    "apiUrls": "S", "appUrls": [], "defaultMatchSettings": true, "stepsInfo": {"0": {}},
    "isDifferent": null})";
  EXPECT_EQ(TestResults().dictionary(), defaults);
  const TestResults r = read(badTypes);
  EXPECT_EQ(r.dictionary(), defaults);
  EXPECT_TRUE(r.isPassed());
  EXPECT_EQ((Texts{r.statusString(), r.name(), r.appName(), r.url()}), Texts(4));
  EXPECT_FALSE(r.defaultMatchSettings() || r.stepsInfo() || r.apiUrls());
}

TEST(TestResults, NumbersConvertLikeThePlatform) {
  const TestResults r = read(R"({"steps": 3.9, "matches": -2.7, "missing": true, "isNew": 0.5})");
  EXPECT_EQ((Counts{r.steps(), r.matches(), r.missing()}), (Counts{3, -2, 1}));
  EXPECT_TRUE(r.isNew());
}

// A step without data writes its three flags; link records write only what is set.
TEST(StepInfo, DefaultsAndLinksWriteOnlyWhatIsSet) {
  EXPECT_EQ(
      StepInfo(Json::parse("7")).dictionary(),
      Json::parse(R"({"hasBaselineImage":false,"hasCurrentImage":false,"isDifferent":false})"));
  EXPECT_EQ(SessionUrls(Json::parse(R"({"batch":"b","session":null})")).dictionary(),
            Json::parse(R"({"batch":"b"})"));
  EXPECT_EQ(ApiUrls(Json::parse(R"({"currentImage":"c","x":"y"})")).dictionary(),
            Json::parse(R"({"currentImage":"c"})"));
}

// The flag is read and written as "remainder"; the scale goes through single precision.
TEST(DefaultMatchSettings, ReadsFlagsAndKeepsTheRemainderSpelling) {
  const DefaultMatchSettings s(Json::parse(R"({"remainder": true, "splitTopHeight": 40,
      "splitBottomHeight": 0, "scale": 0.1, "ignoreCaret": true, "matchLevel": "Layout2",
      "ignore": [{"left": 5, "width": 10}]})"));
  EXPECT_TRUE(s.reminder());
  EXPECT_EQ(s.dictionary(),
            (Json{{"ignore", Json::parse(R"([{"left":5,"top":0,"width":10,"height":0}])")},
                  {"ignoreCaret", true},
                  {"matchLevel", "Layout2"},
                  {"remainder", true},
                  {"scale", static_cast<double>(0.1f)},
                  {"splitBottomHeight", false},
                  {"splitTopHeight", true}}));
  // Floating regions lose their offsets.
  const DefaultMatchSettings floating(Json::parse(
      R"({"floating": [{"left": 1, "top": 2, "width": 3, "height": 4, "maxUpOffset": 9}]})"));
  EXPECT_EQ(floating.dictionary()["floating"],
            Json::parse(R"([{"left":1,"top":2,"width":3,"height":4}])"));
}

}  // namespace
}  // namespace lumo::test
