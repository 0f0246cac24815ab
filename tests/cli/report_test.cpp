#include "report.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "lumo/server/server.h"
#include "lumo/version.h"
#include "run_lumo.h"
#include "server/temp_dir.h"

namespace lumo::cli {
namespace {

using testing::runLumo;

std::string readFile(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

TEST(Report, JUnitXmlEscapesTheUsersTextAndCountsEachKindOfCheckpoint) {
  TestReport report{"Shop & Co",          "Log<in>", "Nightly \"7\"", {},
                    "http://r/s?a=1&b=2", nullptr,   kExitUnreachable};
  report.checkpoints = {{"it's", "matched"},
                        {"b\x01"
                         "ad",
                         "did not match"},
                        {"fresh", "new"},
                        {"late", "no answer"},
                        {"never"}};
  const std::string xml = junitXml(report);
  EXPECT_NE(xml.find("<testsuite name=\"Shop &amp; Co.Log&lt;in&gt;\" tests=\"5\" failures=\"1\" "
                     "errors=\"2\" skipped=\"1\">"),
            std::string::npos)
      << xml;
  EXPECT_NE(xml.find("name=\"it&apos;s\"/>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("name=\"b?ad\""), std::string::npos) << xml;
  EXPECT_NE(xml.find("See details at http://r/s?a=1&amp;b=2</failure>"), std::string::npos);
  EXPECT_NE(xml.find("<error type=\"unreachable\" message=\"not checked\"/>"), std::string::npos);
  EXPECT_NE(xml.find("<property name=\"batch\" value=\"Nightly &quot;7&quot;\"/>"),
            std::string::npos);
  EXPECT_EQ(count(xml, "<testcase "), 5u);
  EXPECT_EQ(count(xml, "</testcase>"), 4u);  // all but the matched one have a body
}

TEST(Report, FileFormatComesFromTheExtension) {
  EXPECT_EQ(reportFormatOf("--report", "out/Report.XML"), ReportFormat::JUnitXml);
  EXPECT_EQ(reportFormatOf("--report", "r.json"), ReportFormat::Json);
  for (const char* file : {"r.txt", "xml", "r.xml.gz", ""}) {
    EXPECT_THROW(reportFormatOf("--report", file), UsageError) << file;
  }
}

TEST(Version, IsTheProjectsVersion) {
  const auto outcome = runLumo({"--version"});
  EXPECT_EQ(outcome.status, kExitPassed) << outcome.err;
  EXPECT_EQ(outcome.out, std::string("lumo ") + kVersion + "\n");
}

// `lumo check --report` against the embedded server: new, unchanged, changed and unreachable.
class ReportEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    server::ServerConfig config;
    config.dataDir = data_.path();
    server_ = std::make_unique<server::Server>(config);
    server_->start();
    home_ = testing::writePng(files_.path() / "home.png", testing::screen(40, 60, 90)).string();
    cart_ = testing::writePng(files_.path() / "cart.png", testing::screen(40, 60, 180)).string();
    changed_ =
        testing::writePng(files_.path() / "cart2.png", testing::screen(40, 60, 180, 10)).string();
  }
  void TearDown() override { server_->stop(); }

  // Runs the check with a report and returns the report's text.
  std::string check(const std::string& report, std::vector<std::string> images, int expectedStatus,
                    std::string server = "") {
    std::vector<std::string> args = {
        "check",   "--server",  server.empty() ? server_->baseUrl() : server,
        "--app",   "Shop",      "--test",
        "Browse",  "--api-key", std::string(server::kDemoApiKey),
        "--batch", "Nightly",   "--match-timeout",
        "0",       "--report",  (files_.path() / report).string()};
    args.insert(args.end(), images.begin(), images.end());
    const auto outcome = runLumo(args);
    EXPECT_EQ(outcome.status, expectedStatus) << outcome.err;
    return readFile(files_.path() / report);
  }

  server::testing::TempDir data_;
  server::testing::TempDir files_;
  std::unique_ptr<server::Server> server_;
  std::string home_, cart_, changed_;
};

TEST_F(ReportEndToEnd, EachRunReportsItsCheckpointsVerdictBatchAndLink) {
  const std::string created = check("new.xml", {home_, cart_}, kExitNewTest);
  EXPECT_EQ(count(created, "<testcase "), 2u) << created;
  EXPECT_EQ(count(created, "<skipped message=\"new baseline: approve it at http://"), 2u);
  EXPECT_NE(created.find("<property name=\"verdict\" value=\"new\"/>"), std::string::npos);

  const Json passed = Json::parse(check("passed.json", {home_, cart_}, kExitPassed));
  EXPECT_EQ(passed["verdict"], "passed");
  EXPECT_EQ(passed["exitStatus"], 0);
  EXPECT_EQ(passed["batch"]["name"], "Nightly");
  EXPECT_TRUE(passed["batch"]["id"].is_string());
  EXPECT_TRUE(passed["url"].get<std::string>().starts_with(server_->baseUrl()));
  EXPECT_EQ(
      passed["checkpoints"],
      Json::parse(R"([{"tag":"home","verdict":"matched"},{"tag":"cart","verdict":"matched"}])"));

  const std::string differs = check("differs.xml", {home_, changed_ + "=cart"}, kExitDifferences);
  EXPECT_EQ(count(differs, "<failure type=\"differences\""), 1u) << differs;
  EXPECT_NE(differs.find("value=\"differences\""), std::string::npos);

  const Json unreachable =
      Json::parse(check("down.json", {home_}, kExitUnreachable, "http://127.0.0.1:1"));
  EXPECT_EQ(unreachable["verdict"], "unreachable");
  EXPECT_EQ(unreachable["checkpoints"][0]["verdict"], "not checked");
}

TEST_F(ReportEndToEnd, AnUnknownReportFormatIsAUsageError) {
  const auto outcome = runLumo({"check", "--server", server_->baseUrl(), "--app", "A", "--test",
                                "T", "--api-key", "k", "--report", "r.html", home_});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_NE(outcome.err.find("--report: expected a file ending in .xml"), std::string::npos);
}

}  // namespace
}  // namespace lumo::cli
