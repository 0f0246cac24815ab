#pragma once

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumo/detail/json.h"

namespace lumo {
class TestResults;
}

namespace lumo::cli {

// What `lumo check --report FILE` records of one run, for a CI system to read.
struct TestReport {
  struct Checkpoint {
    std::string tag;
    // "matched", "did not match", "new", "no answer", or "not checked" when the run stopped
    // before it.
    std::string verdict = "not checked";
  };

  std::string appName;
  std::string testName;
  std::optional<std::string> batchName;  // as given; the server's results take precedence
  std::vector<Checkpoint> checkpoints;
  std::optional<std::string> sessionUrl;       // the results link known before closing
  std::shared_ptr<const TestResults> results;  // null when the test did not get to close
  int exitStatus = 0;                          // the command's ExitStatus
};

enum class ReportFormat { JUnitXml, Json };

// The format a report file's extension asks for: ".xml" or ".json" (any letter case). Throws
// UsageError naming `option` for anything else.
ReportFormat reportFormatOf(std::string_view option, const std::filesystem::path& file);

// The test's verdict: "passed", "new", "differences", "failed" or "unreachable".
std::string reportVerdict(const TestReport& report);

// JUnit XML: one <testsuite> named "<app>.<test>" whose properties hold the verdict, batch,
// batch id, results link and exit status, with one <testcase> per checkpoint. A checkpoint
// that did not match is a <failure>, a new one <skipped>, one without an answer an <error>.
std::string junitXml(const TestReport& report);

// The same as a JSON object: app, test, verdict, exitStatus, batch {name, id}, url and
// checkpoints [{tag, verdict}].
Json reportJson(const TestReport& report);

// Writes the report in the format of the file's extension; on failure says why on `err` and
// returns false.
bool writeReport(const std::filesystem::path& file, const TestReport& report, std::ostream& err);

}  // namespace lumo::cli
