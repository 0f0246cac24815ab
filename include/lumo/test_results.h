#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumo/default_match_settings.h"
#include "lumo/detail/json.h"
#include "lumo/geometry.h"
#include "lumo/session_urls.h"
#include "lumo/step_info.h"

namespace lumo {

// The verdict the server gives a finished test. The numbering is fixed.
enum TestResultsStatus : std::uint64_t {
  TestResultsStatusPassed = 0,
  TestResultsStatusUnresolved = 1,
  TestResultsStatusFailed = 2,
};

// The server's summary of a finished test (the answer to stopping a session). Immutable
// except statusString. Shared by identity as std::shared_ptr<TestResults> (exceptions and
// error paths carry the same record the controller read).
class TestResults {
 public:
  // Every field at its default; status Passed.
  TestResults() = default;
  // Lenient: absent, null or mistyped values keep their defaults and unknown keys are
  // ignored; never throws. `url` is the "session" link of "apiUrls", set only when the answer
  // also has "appUrls".
  explicit TestResults(const Json& dictionary);

  // "Passed" gives Passed, "Failed" Failed, anything else (also "" and nil) Unresolved.
  static TestResultsStatus statusFromString(const std::optional<std::string>& status);
  // Width and height read through single precision; missing ones are 0.
  static Size hostDisplaySizeFromDictionary(const Json& dictionary);
  static Json dictionaryFromHostDisplaySize(Size size);

  bool isPassed() const { return status_ == TestResultsStatusPassed; }

  std::int64_t steps() const { return steps_; }
  std::int64_t matches() const { return matches_; }
  std::int64_t mismatches() const { return mismatches_; }
  std::int64_t missing() const { return missing_; }
  std::int64_t exactMatches() const { return exactMatches_; }
  std::int64_t strictMatches() const { return strictMatches_; }
  std::int64_t contentMatches() const { return contentMatches_; }
  std::int64_t layoutMatches() const { return layoutMatches_; }
  std::int64_t noneMatches() const { return noneMatches_; }
  const std::optional<std::string>& url() const { return url_; }
  bool isNew() const { return isNew_; }
  TestResultsStatus status() const { return status_; }
  const std::optional<std::string>& statusString() const { return statusString_; }
  // Changes only the text; status keeps its value.
  void setStatusString(std::optional<std::string> statusString) {
    statusString_ = std::move(statusString);
  }
  const std::optional<std::string>& name() const { return name_; }
  const std::optional<std::string>& secretToken() const { return secretToken_; }
  const std::optional<std::string>& resultsId() const { return resultsId_; }
  const std::optional<std::string>& appName() const { return appName_; }
  const std::optional<std::string>& batchName() const { return batchName_; }
  const std::optional<std::string>& batchId() const { return batchId_; }
  const std::optional<std::string>& branchName() const { return branchName_; }
  const std::optional<std::string>& hostOS() const { return hostOS_; }
  const std::optional<std::string>& hostApp() const { return hostApp_; }
  Size hostDisplaySize() const { return hostDisplaySize_; }
  // The server's text, not parsed.
  const std::optional<std::string>& startedAt() const { return startedAt_; }
  std::int64_t duration() const { return duration_; }
  bool isDifferent() const { return isDifferent_; }
  bool isAborted() const { return isAborted_; }
  const std::optional<SessionUrls>& appUrls() const { return appUrls_; }
  const std::optional<SessionUrls>& apiUrls() const { return apiUrls_; }
  const std::optional<DefaultMatchSettings>& defaultMatchSettings() const {
    return defaultMatchSettings_;
  }
  const std::optional<std::vector<StepInfo>>& stepsInfo() const { return stepsInfo_; }

  // Not a mirror of the reader: the application URLs are written under "appName" (replacing
  // the application name), and url and hostApp are never written.
  Json dictionary() const;
  std::string description() const { return dictionary().dump(); }

 private:
  std::int64_t steps_ = 0;
  std::int64_t matches_ = 0;
  std::int64_t mismatches_ = 0;
  std::int64_t missing_ = 0;
  std::int64_t exactMatches_ = 0;
  std::int64_t strictMatches_ = 0;
  std::int64_t contentMatches_ = 0;
  std::int64_t layoutMatches_ = 0;
  std::int64_t noneMatches_ = 0;
  std::optional<std::string> url_;
  bool isNew_ = false;
  TestResultsStatus status_ = TestResultsStatusPassed;
  std::optional<std::string> statusString_;
  std::optional<std::string> name_;
  std::optional<std::string> secretToken_;
  std::optional<std::string> resultsId_;
  std::optional<std::string> appName_;
  std::optional<std::string> batchName_;
  std::optional<std::string> batchId_;
  std::optional<std::string> branchName_;
  std::optional<std::string> hostOS_;
  std::optional<std::string> hostApp_;
  Size hostDisplaySize_;
  std::optional<std::string> startedAt_;
  std::int64_t duration_ = 0;
  bool isDifferent_ = false;
  bool isAborted_ = false;
  std::optional<SessionUrls> appUrls_;
  std::optional<SessionUrls> apiUrls_;
  std::optional<DefaultMatchSettings> defaultMatchSettings_;
  std::optional<std::vector<StepInfo>> stepsInfo_;
};

}  // namespace lumo
