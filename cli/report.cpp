#include "report.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <ostream>

#include "exit_status.h"
#include "lumo/test_results.h"

namespace lumo::cli {
namespace {

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Tags and names are the user's text; XML 1.0 cannot carry most control characters at all,
// so those become '?'.
std::string xmlEscape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&apos;";
        break;
      default:
        const bool allowed =
            static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r';
        escaped += allowed ? c : '?';
    }
  }
  return escaped;
}

std::optional<std::string> batchName(const TestReport& r) {
  if (r.results && r.results->batchName()) {
    return r.results->batchName();
  }
  return r.batchName;
}

std::optional<std::string> batchId(const TestReport& r) {
  return r.results ? r.results->batchId() : std::nullopt;
}

std::optional<std::string> resultsUrl(const TestReport& r) {
  if (r.results && r.results->url()) {
    return r.results->url();
  }
  return r.sessionUrl;
}

}  // namespace

ReportFormat reportFormatOf(std::string_view option, const std::filesystem::path& file) {
  const std::string extension = lowercase(file.extension().string());
  if (extension == ".xml") {
    return ReportFormat::JUnitXml;
  }
  if (extension == ".json") {
    return ReportFormat::Json;
  }
  throw UsageError(fmt::format("{}: expected a file ending in .xml (JUnit) or .json, got \"{}\"",
                               option, file.string()));
}

std::string reportVerdict(const TestReport& report) {
  switch (report.exitStatus) {
    case kExitPassed:
      return "passed";
    case kExitNewTest:
      return "new";
    case kExitUnreachable:
      return "unreachable";
    default:
      // Exit 1 covers differences and a failed test; only the results tell them apart.
      const bool differences =
          report.results && report.results->status() == TestResultsStatusUnresolved;
      return differences ? "differences" : "failed";
  }
}

std::string junitXml(const TestReport& report) {
  const std::string suite = xmlEscape(report.appName + "." + report.testName);
  const std::string url = xmlEscape(resultsUrl(report).value_or(""));
  std::size_t failures = 0;
  std::size_t errors = 0;
  std::size_t skipped = 0;
  std::string cases;
  for (const auto& checkpoint : report.checkpoints) {
    cases +=
        fmt::format("    <testcase classname=\"{}\" name=\"{}\"", suite, xmlEscape(checkpoint.tag));
    if (checkpoint.verdict == "matched") {
      cases += "/>\n";
      continue;
    }
    const std::string verdict = xmlEscape(checkpoint.verdict);
    if (checkpoint.verdict == "did not match") {
      ++failures;
      cases += fmt::format(
          ">\n      <failure type=\"differences\" message=\"{}\">See details at {}</failure>\n",
          verdict, url);
    } else if (checkpoint.verdict == "new") {
      ++skipped;
      cases += fmt::format(">\n      <skipped message=\"new baseline: approve it at {}\"/>\n", url);
    } else {
      ++errors;
      cases += fmt::format(">\n      <error type=\"{}\" message=\"{}\"/>\n", reportVerdict(report),
                           verdict);
    }
    cases += "    </testcase>\n";
  }

  std::string properties;
  const auto property = [&](std::string_view name, const std::optional<std::string>& value) {
    if (value) {
      properties +=
          fmt::format("      <property name=\"{}\" value=\"{}\"/>\n", name, xmlEscape(*value));
    }
  };
  property("verdict", reportVerdict(report));
  property("exitStatus", std::to_string(report.exitStatus));
  property("batch", batchName(report));
  property("batchId", batchId(report));
  property("url", resultsUrl(report));

  const std::string counts = fmt::format("tests=\"{}\" failures=\"{}\" errors=\"{}\"",
                                         report.checkpoints.size(), failures, errors);
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<testsuites name=\"lumo check\" {}>\n"
      "  <testsuite name=\"{}\" {} skipped=\"{}\">\n"
      "    <properties>\n{}    </properties>\n"
      "{}"
      "  </testsuite>\n"
      "</testsuites>\n",
      counts, suite, counts, skipped, properties, cases);
}

Json reportJson(const TestReport& report) {
  Json checkpoints = Json::array();
  for (const auto& checkpoint : report.checkpoints) {
    checkpoints.push_back({{"tag", checkpoint.tag}, {"verdict", checkpoint.verdict}});
  }
  const auto orNull = [](const std::optional<std::string>& value) {
    return value ? Json(*value) : Json(nullptr);
  };
  return {{"app", report.appName},
          {"test", report.testName},
          {"verdict", reportVerdict(report)},
          {"exitStatus", report.exitStatus},
          {"batch", {{"name", orNull(batchName(report))}, {"id", orNull(batchId(report))}}},
          {"url", orNull(resultsUrl(report))},
          {"checkpoints", checkpoints}};
}

bool writeReport(const std::filesystem::path& file, const TestReport& report, std::ostream& err) {
  const std::string text = reportFormatOf("--report", file) == ReportFormat::JUnitXml
                               ? junitXml(report)
                               : reportJson(report).dump(2) + "\n";
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) {
    fmt::print(err, "lumo check: cannot write the report {}\n", file.string());
    return false;
  }
  return true;
}

}  // namespace lumo::cli
