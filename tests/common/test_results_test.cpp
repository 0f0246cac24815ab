#include "lumo/test_results.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace lumo {
namespace {

TestResults read(const char* text) { return TestResults(Json::parse(text)); }

TEST(TestResults, StatusComesFromTheExactText) {
  EXPECT_EQ(read(R"({"status":"Passed"})").status(), TestResultsStatusPassed);
  EXPECT_TRUE(read(R"({"status":"Passed"})").isPassed());
  EXPECT_EQ(read(R"({"status":"Failed"})").status(), TestResultsStatusFailed);
  for (const char* text : {R"({"status":"passed"})", R"({"status":"FAILED"})", R"({"status":""})",
                           R"({"status":"Unresolved"})"}) {
    const TestResults results = read(text);
    EXPECT_EQ(results.status(), TestResultsStatusUnresolved) << text;
    EXPECT_FALSE(results.isPassed()) << text;
  }
  EXPECT_EQ(TestResults::statusFromString(std::nullopt), TestResultsStatusUnresolved);
}

TEST(TestResults, MissingStatusCountsAsPassedAndIsNotWritten) {
  for (const TestResults& results : {TestResults(), read("{}"), read(R"({"status":null})")}) {
    EXPECT_TRUE(results.isPassed());
    EXPECT_EQ(results.statusString(), std::nullopt);
    EXPECT_FALSE(results.dictionary().contains("status"));
  }
}

TEST(TestResults, StatusStringCanChangeWithoutChangingStatus) {
  TestResults results = read(R"({"status":"Failed"})");
  results.setStatusString("Passed");
  EXPECT_EQ(results.status(), TestResultsStatusFailed);
  EXPECT_EQ(results.dictionary()["status"], "Passed");
}

TEST(TestResults, UrlIsTheApiSessionLinkOnlyWhenAppUrlsArePresent) {
  EXPECT_EQ(read(R"({"apiUrls":{"session":"S"},"appUrls":{}})").url(), "S");
  EXPECT_EQ(read(R"({"apiUrls":{"session":"S"}})").url(), std::nullopt);
  EXPECT_EQ(read(R"({"appUrls":{"session":"A"}})").url(), std::nullopt);
  EXPECT_EQ(read(R"({"appUrls":{"session":"A"},"apiUrls":{"session":"S"}})").url(), "S");
  EXPECT_FALSE(read(R"({"apiUrls":{"session":"S"},"appUrls":{}})").dictionary().contains("url"));
}

TEST(TestResults, ReadsEveryField) {
  const TestResults r = read(R"({
    "steps": 3, "matches": 2, "mismatches": 1, "missing": 4, "exactMatches": 5,
    "strictMatches": 6, "contentMatches": 7, "layoutMatches": 8, "noneMatches": 9,
    "isNew": true, "status": "Unresolved", "name": "Login", "secretToken": "tok",
    "id": "r1", "appName": "Shop", "batchName": "nightly", "batchId": "b1",
    "branchName": "main", "hostOS": "Linux", "hostApp": "app",
    "hostDisplaySize": {"width": 375, "height": 667}, "startedAt": "2026-11-22T11:21:53Z",
    "duration": 12, "isDifferent": true, "isAborted": true,
    "appUrls": {"batch": "ab", "session": "as"}, "apiUrls": {"batch": "pb", "session": "ps"},
    "defaultMatchSettings": {"matchLevel": "Strict"},
    "stepsInfo": [{"name": "one"}, {"name": "two", "isDifferent": true}],
    "unknown": {"ignored": true}})");
  EXPECT_EQ(r.steps(), 3);
  EXPECT_EQ(r.matches(), 2);
  EXPECT_EQ(r.mismatches(), 1);
  EXPECT_EQ(r.missing(), 4);
  EXPECT_EQ(r.exactMatches(), 5);
  EXPECT_EQ(r.strictMatches(), 6);
  EXPECT_EQ(r.contentMatches(), 7);
  EXPECT_EQ(r.layoutMatches(), 8);
  EXPECT_EQ(r.noneMatches(), 9);
  EXPECT_TRUE(r.isNew());
  EXPECT_EQ(r.status(), TestResultsStatusUnresolved);
  EXPECT_EQ(r.name(), "Login");
  EXPECT_EQ(r.secretToken(), "tok");
  EXPECT_EQ(r.resultsId(), "r1");
  EXPECT_EQ(r.appName(), "Shop");
  EXPECT_EQ(r.batchName(), "nightly");
  EXPECT_EQ(r.batchId(), "b1");
  EXPECT_EQ(r.branchName(), "main");
  EXPECT_EQ(r.hostOS(), "Linux");
  EXPECT_EQ(r.hostApp(), "app");
  EXPECT_EQ(r.hostDisplaySize(), (Size{375, 667}));
  EXPECT_EQ(r.startedAt(), "2026-11-22T11:21:53Z");
  EXPECT_EQ(r.duration(), 12);
  EXPECT_TRUE(r.isDifferent());
  EXPECT_TRUE(r.isAborted());
  EXPECT_EQ(r.appUrls()->session(), "as");
  EXPECT_EQ(r.apiUrls()->batch(), "pb");
  EXPECT_EQ(r.url(), "ps");
  EXPECT_EQ(r.defaultMatchSettings()->matchLevel(), "Strict");
  ASSERT_EQ(r.stepsInfo()->size(), 2u);
  EXPECT_EQ((*r.stepsInfo())[1].name(), "two");
  EXPECT_TRUE((*r.stepsInfo())[1].isDifferent());
}

TEST(TestResults, WriterKeepsItsDeliberateAsymmetries) {
  const TestResults r = read(R"({
    "appName": "Shop", "appUrls": {"batch": "ab"}, "apiUrls": {"session": "ps"},
    "hostApp": "app", "hostDisplaySize": {"width": 1125.7}, "status": "Failed",
    "stepsInfo": [], "matches": 2, "isNew": true})");
  const Json expected = Json::parse(R"({
    "apiUrls": {"session": "ps"}, "appName": {"batch": "ab"}, "contentMatches": 0,
    "duration": 0, "exactMatches": 0,
    "hostDisplaySize": {"width": 1125.699951171875, "height": 0},
    "isAborted": false, "isDifferent": false, "isNew": true, "layoutMatches": 0,
    "matches": 2, "mismatches": 0, "missing": 0, "noneMatches": 0, "status": "Failed",
    "steps": 0, "stepsInfo": [], "strictMatches": 0})");
  EXPECT_EQ(r.dictionary(), expected);
  EXPECT_EQ(Json::parse(r.description()), expected);
}

TEST(TestResults, DefaultRecordWritesOnlyTheAlwaysPresentEntries) {
  const Json expected = Json::parse(R"({
    "contentMatches": 0, "duration": 0, "exactMatches": 0,
    "hostDisplaySize": {"width": 0, "height": 0}, "isAborted": false, "isDifferent": false,
    "isNew": false, "layoutMatches": 0, "matches": 0, "mismatches": 0, "missing": 0,
    "noneMatches": 0, "steps": 0, "strictMatches": 0})");
  EXPECT_EQ(TestResults().dictionary(), expected);
  EXPECT_EQ(TestResults().stepsInfo(), std::nullopt);
}

TEST(TestResults, HostDisplaySizeGoesThroughSinglePrecision) {
  const Size size = TestResults::hostDisplaySizeFromDictionary(Json::parse(R"({"width":1125.7})"));
  EXPECT_EQ(size.width, 1125.699951171875);
  EXPECT_EQ(size.height, 0);
  EXPECT_EQ(TestResults::dictionaryFromHostDisplaySize(Size{1.5, 2}),
            Json::parse(R"({"width":1.5,"height":2})"));
}

// Servers that send nulls or the wrong JSON types must never crash the reader: such values
// keep their defaults.
TEST(TestResults, BadValuesKeepDefaults) {
  const TestResults r = read(R"({
    "steps": "3", "matches": null, "mismatches": [1], "isNew": "true", "status": 2,
    "name": 7, "appName": null, "hostDisplaySize": [375, 667], "duration": {"s": 1},
    "apiUrls": "S", "appUrls": [], "defaultMatchSettings": true, "stepsInfo": {"0": {}},
    "isDifferent": null})");
  EXPECT_EQ(r.steps(), 0);
  EXPECT_EQ(r.matches(), 0);
  EXPECT_EQ(r.mismatches(), 0);
  EXPECT_FALSE(r.isNew());
  EXPECT_TRUE(r.isPassed());
  EXPECT_EQ(r.statusString(), std::nullopt);
  EXPECT_EQ(r.name(), std::nullopt);
  EXPECT_EQ(r.appName(), std::nullopt);
  EXPECT_EQ(r.hostDisplaySize(), (Size{0, 0}));
  EXPECT_EQ(r.duration(), 0);
  EXPECT_EQ(r.apiUrls(), std::nullopt);
  EXPECT_EQ(r.appUrls(), std::nullopt);
  EXPECT_EQ(r.url(), std::nullopt);
  EXPECT_EQ(r.defaultMatchSettings(), std::nullopt);
  EXPECT_EQ(r.stepsInfo(), std::nullopt);
  EXPECT_EQ(r.dictionary(), TestResults().dictionary());
}

TEST(TestResults, NonObjectAnswersGiveDefaultRecords) {
  for (const char* text : {"null", "[]", "\"Passed\"", "42", "[{\"status\":\"Failed\"}]"}) {
    EXPECT_EQ(read(text).dictionary(), TestResults().dictionary()) << text;
  }
}

TEST(TestResults, NumbersConvertLikeThePlatform) {
  const TestResults r = read(R"({"steps": 3.9, "matches": -2.7, "missing": true,
      "mismatches": 1e300, "noneMatches": 18446744073709551615, "isNew": 0.5,
      "isAborted": 0})");
  EXPECT_EQ(r.steps(), 3);
  EXPECT_EQ(r.matches(), -2);
  EXPECT_EQ(r.missing(), 1);
  EXPECT_EQ(r.mismatches(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(r.noneMatches(), std::numeric_limits<std::int64_t>::max());
  EXPECT_TRUE(r.isNew());
  EXPECT_FALSE(r.isAborted());
}

TEST(StepInfo, ReadsAndWritesItsLinksAndFlags) {
  const StepInfo step(Json::parse(R"({"apiUrls": {"baselineImage": "b", "diffImage": "d"},
      "appUrls": {"step": "s"}, "name": "one", "hasBaselineImage": true,
      "hasCurrentImage": 1, "isDifferent": false})"));
  EXPECT_EQ(step.apiUrls()->currentImage(), std::nullopt);
  EXPECT_EQ(step.appUrls()->step(), "s");
  EXPECT_EQ(step.dictionary(), Json::parse(R"({"apiUrls": {"baselineImage": "b", "diffImage": "d"},
      "appUrls": {"step": "s"}, "hasBaselineImage": true, "hasCurrentImage": true,
      "isDifferent": false, "name": "one"})"));
  EXPECT_EQ(
      StepInfo(Json::parse("7")).dictionary(),
      Json::parse(R"({"hasBaselineImage":false,"hasCurrentImage":false,"isDifferent":false})"));
}

TEST(UrlRecords, WriteOnlyWhatIsSet) {
  EXPECT_EQ(AppUrls().dictionary(), Json::object());
  EXPECT_EQ(AppUrls(Json::parse(R"({"step":"s"})")).dictionary(), Json::parse(R"({"step":"s"})"));
  EXPECT_EQ(SessionUrls(Json::parse(R"({"batch":"b","session":null})")).dictionary(),
            Json::parse(R"({"batch":"b"})"));
  EXPECT_EQ(ApiUrls(Json::parse(R"({"currentImage":"c","x":"y"})")).dictionary(),
            Json::parse(R"({"currentImage":"c"})"));
}

TEST(DefaultMatchSettings, ReadsFlagsAndKeepsTheRemainderSpelling) {
  const DefaultMatchSettings s(Json::parse(R"({"remainder": true, "splitTopHeight": 40,
      "splitBottomHeight": 0, "scale": 0.1, "ignoreCaret": true, "matchLevel": "Layout2",
      "ignore": [{"left": 5, "width": 10}]})"));
  EXPECT_TRUE(s.reminder());
  EXPECT_TRUE(s.splitTopHeight());
  EXPECT_FALSE(s.splitBottomHeight());
  EXPECT_EQ(s.scale(), static_cast<double>(0.1f));
  EXPECT_EQ(s.matchLevel(), "Layout2");
  ASSERT_EQ(s.ignore()->size(), 1u);
  EXPECT_EQ((*s.ignore())[0], Region(5, 0, 10, 0));
  EXPECT_EQ(s.dictionary(),
            (Json{{"ignore", Json::parse(R"([{"left":5,"top":0,"width":10,"height":0}])")},
                  {"ignoreCaret", true},
                  {"matchLevel", "Layout2"},
                  {"remainder", true},
                  {"scale", static_cast<double>(0.1f)},
                  {"splitBottomHeight", false},
                  {"splitTopHeight", true}}));
}

TEST(DefaultMatchSettings, FloatingRegionsLoseTheirOffsetsAndEveryEntryCounts) {
  const DefaultMatchSettings s(Json::parse(R"({"floating": [
      {"left": 1, "top": 2, "width": 3, "height": 4, "maxUpOffset": 9},
      "not an object", {"left": "5"}, {}], "content": [], "layout": null})"));
  ASSERT_EQ(s.floating()->size(), 4u);
  EXPECT_EQ(s.dictionary()["floating"], Json::parse(R"([
      {"left":1,"top":2,"width":3,"height":4}, {"left":0,"top":0,"width":0,"height":0},
      {"left":0,"top":0,"width":0,"height":0}, {"left":0,"top":0,"width":0,"height":0}])"));
  EXPECT_EQ(s.content(), std::vector<Region>{});
  EXPECT_EQ(s.layout(), std::nullopt);
  EXPECT_FALSE(s.dictionary().contains("layout"));
  EXPECT_EQ(s.dictionary()["content"], Json::array());
}

TEST(DefaultMatchSettings, RegionListHelpersRoundTrip) {
  const std::vector<Region> regions{Region(1, 2, 3, 4), Region(-1, 0, 0, 7)};
  EXPECT_EQ(DefaultMatchSettings::regionsFromDictionaries(
                DefaultMatchSettings::dictionariesFromRegions(regions)),
            regions);
  EXPECT_TRUE(DefaultMatchSettings::regionsFromDictionaries(Json::object()).empty());
}

}  // namespace
}  // namespace lumo
