#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "lumo/server/image_comparer.h"

namespace lumo::server {

// A failure of the store's disk or database; the operation changed nothing it had not
// committed before.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where a session is in its life.
enum class SessionState { Running, Stopped, Aborted };

// How a step came out: New when there was no baseline step to compare with.
enum class StepOutcome { Matched, Different, New, Missing, Failed };

// The names the stores keep them by: "running", "stopped", "aborted"; "matched",
// "different", "new", "missing", "failed".
std::string_view nameOf(SessionState state);
std::string_view nameOf(StepOutcome outcome);
// What a stored name stands for; throws StoreError for any other text.
SessionState sessionStateNamed(std::string_view name);
StepOutcome stepOutcomeNamed(std::string_view name);

// What a baseline belongs to. The environment is the client's baseline environment name or
// the OS, device and display size it runs on.
struct BaselineKey {
  std::string app;
  std::string test;
  std::string environment;
  std::string branch;

  friend bool operator==(const BaselineKey&, const BaselineKey&) = default;
};

// One step of a baseline: its name and the content hash of its PNG.
struct StoredStep {
  std::string name;
  std::string image;

  friend bool operator==(const StoredStep&, const StoredStep&) = default;
};

struct BatchRecord {
  std::string id;
  std::string name;
  std::string startedAt;       // as the client wrote it
  std::int64_t createdMs = 0;  // when the server first saw it, Unix milliseconds
};

struct SessionRecord {
  std::string id;
  std::string batchId;
  BaselineKey key;
  std::string baselineBranch;  // branch of the baseline compared with; empty for a new test
  std::string startInfo;       // the start record as received, JSON text
  std::string startedAt;       // ISO 8601, UTC
  std::int64_t startedMs = 0;
  SessionState state = SessionState::Running;
  std::string status;  // "Passed", "Unresolved" or "Failed" once stopped
  bool isNew = false;
  bool saved = false;  // its images became the baseline
  std::int64_t durationMs = 0;
  // A digest of the API key that started the session; empty when any key may use it.
  std::string owner;
  // Steps recorded so far: the position of the next checkpoint while running.
  int stepCount = 0;
  // The last request of a running session, Unix milliseconds; what idle expiry measures.
  std::int64_t lastActiveMs = 0;
  bool expired = false;   // aborted by the server after the session stayed idle too long
  bool rejected = false;  // a reviewer refused its images; the baseline stayed as it was
};

struct StepRecord {
  int position = 0;
  std::string name;
  StepOutcome outcome = StepOutcome::New;
  std::string matchLevel;
  std::string baselineImage;  // content hashes; empty when the step has no such image
  std::string currentImage;
  std::string diffImage;
  bool rejected = false;  // a reviewer refused this step's image
  // Where the comparison found differences, in the images' pixels; empty for a step that
  // matched or was recorded before boxes were kept.
  std::vector<Rect> boxes{};
};

}  // namespace lumo::server
