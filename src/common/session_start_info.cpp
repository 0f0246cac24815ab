#include "lumo/session_start_info.h"

#include <fmt/format.h>

#include <utility>

#include "common/argument_guard.h"
#include "lumo/exception.h"

namespace lumo {
namespace {

bool hasText(const std::optional<std::string>& value) { return value && !value->empty(); }

template <typename T>
const T& required(const T* value, const char* key) {
  if (value == nullptr) {
    throw illegalArgumentException(
        fmt::format("The start record has no value for \"{}\": set up the record first", key));
  }
  return *value;
}

template <typename T>
const T& required(const std::shared_ptr<T>& value, const char* key) {
  return required(value.get(), key);
}

const std::string& required(const std::optional<std::string>& value, const char* key) {
  return required(value ? &*value : nullptr, key);
}

}  // namespace

void SessionStartInfo::setupWithAgentId(
    std::optional<std::string> agentId, std::optional<std::string> appName,
    std::optional<std::string> testName, std::optional<std::string> baselineEnvName,
    std::shared_ptr<AppEnvironment> appEnvironment, std::shared_ptr<BatchInfo> batchInfo,
    std::optional<std::string> branchName, std::optional<std::string> parentBranchName,
    std::optional<std::string> baselineBranchName, bool saveDiffs,
    std::shared_ptr<ImageMatchSettings> defaultMatchSettings) {
  ArgumentGuard::notNil(agentId, "agentId");
  ArgumentGuard::notNil(appName, "appName");
  ArgumentGuard::notNil(testName, "testName");
  ArgumentGuard::notNil(appEnvironment, "appEnv");
  ArgumentGuard::notNil(batchInfo, "batchInfo");
  ArgumentGuard::notNil(defaultMatchSettings, "defaultMatchSettings");

  agentId_ = std::move(agentId);
  appName_ = std::move(appName);
  testName_ = std::move(testName);
  baselineEnvName_ = std::move(baselineEnvName);
  appEnv_ = std::move(appEnvironment);
  batchInfo_ = std::move(batchInfo);
  branchName_ = std::move(branchName);
  parentBranchName_ = std::move(parentBranchName);
  baselineBranchName_ = std::move(baselineBranchName);
  saveDiffs_ = saveDiffs;
  defaultMatchSettings_ = std::move(defaultMatchSettings);
}

void SessionStartInfo::addProperty(StartSessionProperty property) {
  std::vector<StartSessionProperty> extended = properties_;
  extended.push_back(std::move(property));
  properties_ = std::move(extended);
}

Json SessionStartInfo::dictionary() const {
  Json properties = Json::array();
  for (const StartSessionProperty& property : properties_) {
    properties.push_back(property.dictionary());
  }
  Json json = {{"appIdOrName", required(appName_, "appIdOrName")},
               {"scenarioIdOrName", required(testName_, "scenarioIdOrName")},
               {"batchInfo", required(batchInfo_, "batchInfo").dictionary()},
               {"environment", required(appEnv_, "environment").dictionary()},
               {"defaultMatchSettings",
                required(defaultMatchSettings_, "defaultMatchSettings").dictionary()},
               {"agentId", required(agentId_, "agentId")},
               {"saveDiffs", saveDiffs_},
               {"properties", std::move(properties)}};

  if (hasText(branchName_)) {
    json["branchName"] = *branchName_;
  }
  // The parent and baseline fields only decide whether their keys appear; the value written
  // under both is branchName. With no branchName there is nothing to write, which is an error.
  for (const auto& [key, field] : {std::pair{"parentBranchName", &parentBranchName_},
                                   std::pair{"baselineBranchName", &baselineBranchName_}}) {
    if (!hasText(*field)) {
      continue;
    }
    if (!branchName_) {
      throw illegalArgumentException(
          fmt::format("\"{}\" is set but branchName is nil: the start record writes branchName "
                      "under \"{}\", so a branch name is needed",
                      key, key));
    }
    json[key] = *branchName_;
  }
  if (hasText(baselineEnvName_)) {
    json["baselineEnvName"] = *baselineEnvName_;
  }
  return json;
}

}  // namespace lumo
