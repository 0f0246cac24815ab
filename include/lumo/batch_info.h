#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "lumo/detail/json.h"

namespace lumo {

// The batch a test belongs to: its id, optional name and formatted start time. The id comes
// from BRIXTEL_BATCH_ID when that is set (even to ""), else a fresh upper-case UUID; an empty
// name falls back to BRIXTEL_BATCH_NAME. The environment is read once, at construction.
class BatchInfo {
 public:
  BatchInfo(std::optional<std::string> name, std::chrono::system_clock::time_point startedAt);
  // Started now.
  explicit BatchInfo(std::optional<std::string> name);

  const std::optional<std::string>& name() const { return name_; }
  const std::string& startedAtString() const { return startedAtString_; }
  const std::string& batchId() const { return batchId_; }
  // Replaces the id; a nil or empty id fails the argument guard ("batchId").
  void setBatchId(const std::optional<std::string>& batchId);

  // Local time as "yyyy-MM-ddTHH:mm:ssZ", then "T", the time again and "Z", e.g.
  // "2026-11-22T11:21:53+0100T11:21:53Z". The doubled time is what the server expects.
  static std::string stringFromStartedAt(std::chrono::system_clock::time_point startedAt);

  // {"name" (when set), "startedAt", "id"}.
  Json dictionary() const;

 private:
  std::optional<std::string> name_;
  std::string startedAtString_;
  std::string batchId_;
};

}  // namespace lumo
