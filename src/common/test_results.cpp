#include "lumo/test_results.h"

#include "common/json_reader.h"
#include "common/test_results_keys.h"

namespace lumo {

using detail::readBool;
using detail::readInteger;
using detail::readString;

TestResults::TestResults(const Json& dictionary) {
  // Keys are read in alphabetical order; only the derived url depends on it.
  if (const Json* apiUrls = detail::memberObject(dictionary, ApiUrlsKey)) {
    apiUrls_.emplace(*apiUrls);
  }
  readString(dictionary, AppNameKey, appName_);
  if (const Json* appUrls = detail::memberObject(dictionary, AppUrlsKey)) {
    appUrls_.emplace(*appUrls);
    // The link every verdict prints is the API session link, taken only when app URLs came too.
    url_ = apiUrls_ ? apiUrls_->session() : std::nullopt;
  }
  readString(dictionary, BatchIdKey, batchId_);
  readString(dictionary, BatchNameKey, batchName_);
  readString(dictionary, BranchNameKey, branchName_);
  readInteger(dictionary, ContentMatchesKey, contentMatches_);
  if (const Json* settings = detail::memberObject(dictionary, DefaultMatchSettingsKey)) {
    defaultMatchSettings_.emplace(*settings);
  }
  readInteger(dictionary, DurationKey, duration_);
  readInteger(dictionary, ExactMatchesKey, exactMatches_);
  readString(dictionary, HostAppKey, hostApp_);
  if (const Json* size = detail::memberObject(dictionary, HostDisplaySizeKey)) {
    hostDisplaySize_ = hostDisplaySizeFromDictionary(*size);
  }
  readString(dictionary, HostOSKey, hostOS_);
  readString(dictionary, IdKey, resultsId_);
  readBool(dictionary, IsAbortedKey, isAborted_);
  readBool(dictionary, IsDifferentKey, isDifferent_);
  readBool(dictionary, IsNewKey, isNew_);
  readInteger(dictionary, LayoutMatchesKey, layoutMatches_);
  readInteger(dictionary, MatchesKey, matches_);
  readInteger(dictionary, MismatchesKey, mismatches_);
  readInteger(dictionary, MissingKey, missing_);
  readString(dictionary, NameKey, name_);
  readInteger(dictionary, NoneMatchesKey, noneMatches_);
  readString(dictionary, SecretTokenKey, secretToken_);
  readString(dictionary, StartedAtKey, startedAt_);
  std::optional<std::string> status;
  readString(dictionary, StatusKey, status);
  if (status) {
    setStatusString(std::move(status));
    status_ = statusFromString(statusString_);
  }
  readInteger(dictionary, StepsKey, steps_);
  if (const Json* steps = detail::memberArray(dictionary, StepsInfoKey)) {
    std::vector<StepInfo> stepsInfo;
    stepsInfo.reserve(steps->size());
    for (const Json& step : *steps) {
      stepsInfo.emplace_back(step);
    }
    stepsInfo_ = std::move(stepsInfo);
  }
  readInteger(dictionary, StrictMatchesKey, strictMatches_);
}

TestResultsStatus TestResults::statusFromString(const std::optional<std::string>& status) {
  if (status == "Passed") {
    return TestResultsStatusPassed;
  }
  if (status == "Failed") {
    return TestResultsStatusFailed;
  }
  return TestResultsStatusUnresolved;
}

Size TestResults::hostDisplaySizeFromDictionary(const Json& dictionary) {
  Size size;
  detail::readFloat(dictionary, WidthKey, size.width);
  detail::readFloat(dictionary, HeightKey, size.height);
  return size;
}

Json TestResults::dictionaryFromHostDisplaySize(Size size) {
  return Json{{WidthKey, size.width}, {HeightKey, size.height}};
}

Json TestResults::dictionary() const {
  Json json = Json::object();
  if (apiUrls_) {
    json[ApiUrlsKey] = apiUrls_->dictionary();
  }
  if (appName_) {
    json[AppNameKey] = *appName_;
  }
  // The application URLs go under "appName" on purpose; there is never an "appUrls" entry.
  if (appUrls_) {
    json[AppNameKey] = appUrls_->dictionary();
  }
  if (batchId_) {
    json[BatchIdKey] = *batchId_;
  }
  if (batchName_) {
    json[BatchNameKey] = *batchName_;
  }
  if (branchName_) {
    json[BranchNameKey] = *branchName_;
  }
  json[ContentMatchesKey] = contentMatches_;
  if (defaultMatchSettings_) {
    json[DefaultMatchSettingsKey] = defaultMatchSettings_->dictionary();
  }
  json[DurationKey] = duration_;
  json[ExactMatchesKey] = exactMatches_;
  json[HostDisplaySizeKey] = dictionaryFromHostDisplaySize(hostDisplaySize_);
  if (hostOS_) {
    json[HostOSKey] = *hostOS_;
  }
  if (resultsId_) {
    json[IdKey] = *resultsId_;
  }
  json[IsAbortedKey] = isAborted_;
  json[IsDifferentKey] = isDifferent_;
  json[IsNewKey] = isNew_;
  json[LayoutMatchesKey] = layoutMatches_;
  json[MatchesKey] = matches_;
  json[MismatchesKey] = mismatches_;
  json[MissingKey] = missing_;
  if (name_) {
    json[NameKey] = *name_;
  }
  json[NoneMatchesKey] = noneMatches_;
  if (secretToken_) {
    json[SecretTokenKey] = *secretToken_;
  }
  if (startedAt_) {
    json[StartedAtKey] = *startedAt_;
  }
  if (statusString_) {
    json[StatusKey] = *statusString_;
  }
  json[StepsKey] = steps_;
  if (stepsInfo_) {
    Json steps = Json::array();
    for (const StepInfo& step : *stepsInfo_) {
      steps.push_back(step.dictionary());
    }
    json[StepsInfoKey] = std::move(steps);
  }
  json[StrictMatchesKey] = strictMatches_;
  return json;
}

}  // namespace lumo
