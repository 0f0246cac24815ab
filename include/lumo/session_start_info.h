#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumo/app_environment.h"
#include "lumo/batch_info.h"
#include "lumo/detail/json.h"
#include "lumo/image_match_settings.h"
#include "lumo/start_session_property.h"

namespace lumo {

// The body of the session-start request: the test's identity, batch, environment, default
// match settings, branches, save-diffs flag and properties. The controller keeps one and
// refills it with setupWithAgentId() at every session start; the batch, environment and
// settings are shared with whoever passed them in.
class SessionStartInfo {
 public:
  SessionStartInfo() = default;

  // Checks agentId, appName, testName, appEnv, batchInfo and defaultMatchSettings (in that
  // order) with the argument guard's not-nil check, then stores all eleven values. On a failed
  // check nothing is stored.
  void setupWithAgentId(std::optional<std::string> agentId, std::optional<std::string> appName,
                        std::optional<std::string> testName,
                        std::optional<std::string> baselineEnvName,
                        std::shared_ptr<AppEnvironment> appEnvironment,
                        std::shared_ptr<BatchInfo> batchInfo, std::optional<std::string> branchName,
                        std::optional<std::string> parentBranchName,
                        std::optional<std::string> baselineBranchName, bool saveDiffs,
                        std::shared_ptr<ImageMatchSettings> defaultMatchSettings);

  // Appends to a new copy of the list (earlier copies handed out stay as they were).
  void addProperty(StartSessionProperty property);

  const std::optional<std::string>& agentId() const { return agentId_; }
  const std::optional<std::string>& appName() const { return appName_; }
  const std::optional<std::string>& testName() const { return testName_; }
  const std::optional<std::string>& baselineEnvName() const { return baselineEnvName_; }
  const std::shared_ptr<AppEnvironment>& appEnv() const { return appEnv_; }
  const std::shared_ptr<BatchInfo>& batchInfo() const { return batchInfo_; }
  const std::shared_ptr<ImageMatchSettings>& defaultMatchSettings() const {
    return defaultMatchSettings_;
  }
  const std::vector<StartSessionProperty>& properties() const { return properties_; }
  const std::optional<std::string>& branchName() const { return branchName_; }
  const std::optional<std::string>& parentBranchName() const { return parentBranchName_; }
  const std::optional<std::string>& baselineBranchName() const { return baselineBranchName_; }
  bool saveDiffs() const { return saveDiffs_; }

  // The start record. "parentBranchName" and "baselineBranchName" are present when their own
  // fields are non-empty but carry the value of branchName, as the server expects. Throws an
  // "IllegalArgumentException" Exception when a value it must write is missing: a required
  // field before setup, or a parent/baseline branch given while branchName is nil.
  Json dictionary() const;

 private:
  std::optional<std::string> agentId_;
  std::optional<std::string> appName_;
  std::optional<std::string> testName_;
  std::optional<std::string> baselineEnvName_;
  std::shared_ptr<AppEnvironment> appEnv_;
  std::shared_ptr<BatchInfo> batchInfo_;
  std::shared_ptr<ImageMatchSettings> defaultMatchSettings_;
  std::vector<StartSessionProperty> properties_;
  std::optional<std::string> branchName_;
  std::optional<std::string> parentBranchName_;
  std::optional<std::string> baselineBranchName_;
  bool saveDiffs_ = false;
};

}  // namespace lumo
