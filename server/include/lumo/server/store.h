#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumo/server/store_records.h"

namespace lumo::server {

// Everything the server keeps: images, baselines, batches, sessions and their steps. A
// running session lives here and nowhere else, so any server instance on the same store can
// take any request of it. Every change that spans several rows is one transaction whose
// preconditions are checked inside it; a false return means a precondition failed and
// nothing changed. Implementations are safe to use from several threads and from several
// processes at once. Failures of the disk or database are StoreError.
class Store {
 public:
  virtual ~Store() = default;

  // What appendStep did.
  enum class Append {
    Appended,
    NotRunning,     // the session is unknown or no longer running
    PositionTaken,  // another request recorded a step at that position first
  };

  // How a running session ends (see finishSession).
  struct SessionEnd {
    SessionState state = SessionState::Stopped;  // Stopped or Aborted
    std::string status;
    std::int64_t durationMs = 0;
    bool expired = false;
    // The session must still hold exactly this many steps.
    int expectedSteps = 0;
    // Steps recorded with the end, at positions expectedSteps onwards.
    std::vector<StepRecord> addedSteps;
    // When given, becomes the baseline of the session's key and the session is marked saved.
    std::optional<std::vector<StoredStep>> baseline;
  };

  // Stores PNG bytes under their SHA-256 (lower-case hex) and returns it; the image survives
  // the process being killed when this returns, and a power cut once a stop (finishSession),
  // approval or saved baseline naming it has committed. Storing the same bytes again is a
  // no-op.
  virtual std::string putImage(std::string_view png) = 0;
  // The bytes stored under `hash`; nullopt when there are none or the name is not a hash.
  virtual std::optional<std::string> readImage(std::string_view hash) const = 0;

  // The steps of the baseline of `key`; nullopt when it has none.
  virtual std::optional<std::vector<StoredStep>> findBaseline(const BaselineKey& key) const = 0;
  // Replaces the baseline of `key` with `steps` and marks session `sessionId` saved (if it
  // exists), in one transaction. Every image must have been stored with putImage.
  virtual void saveBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                            const std::string& sessionId) = 0;
  // As saveBaseline, for the key of session `sessionId`, provided the session is stopped
  // (neither running nor aborted) when the transaction runs; also clears its rejection.
  virtual bool approveSession(const std::string& sessionId,
                              const std::vector<StoredStep>& steps) = 0;

  // Records a batch the first time its id is seen; later calls keep the first record.
  virtual void addBatch(const BatchRecord& batch) = 0;
  // The number of sessions recorded in a batch.
  virtual int countSessions(const std::string& batchId) const = 0;
  // Records a new session with the baseline it compares with (copied: a baseline saved
  // meanwhile does not change a running session). Its id must be unused.
  virtual void addSession(const SessionRecord& session,
                          const std::vector<StoredStep>& baseline) = 0;
  // The baseline a session compares with, as addSession recorded it.
  virtual std::vector<StoredStep> sessionBaseline(const std::string& sessionId) const = 0;

  // Records the step at position `step.position` of a running session, which must be its
  // step count, and marks the session active at `nowMs`.
  virtual Append appendStep(const std::string& sessionId, const StepRecord& step,
                            std::int64_t nowMs) = 0;
  // Adds what a recorded step's comparison found after its verdict was answered: its diff
  // image (a hash putImage gave) and difference boxes. A step that is not there is left be.
  virtual void completeStep(const std::string& sessionId, int position,
                            const std::string& diffImage, const std::vector<Rect>& boxes) = 0;
  // Marks a running session active at `nowMs`.
  virtual void touchSession(const std::string& sessionId, std::int64_t nowMs) = 0;
  // Ends a running session holding `end.expectedSteps` steps: records the added steps, the
  // state, status and duration, and saves the baseline when asked, all in one transaction.
  virtual bool finishSession(const std::string& sessionId, const SessionEnd& end) = 0;
  // Aborts, as expired, every running session last active before `idleSinceMs`; returns
  // how many.
  virtual int expireIdleSessions(std::int64_t idleSinceMs) = 0;
  // Marks a stopped session rejected, with one step (by position) or all of them; its
  // status and the baseline stay as they are.
  virtual bool rejectSession(const std::string& sessionId, std::optional<int> position) = 0;

  // Lookups; nullopt or an empty list when nothing matches.
  virtual std::optional<SessionRecord> findSession(const std::string& id) const = 0;
  // A session's steps in position order.
  virtual std::vector<StepRecord> steps(const std::string& sessionId) const = 0;
  virtual std::optional<BatchRecord> findBatch(const std::string& id) const = 0;
  // The most recently created batches first.
  virtual std::vector<BatchRecord> recentBatches(int limit) const = 0;
  // A batch's sessions, earliest first.
  virtual std::vector<SessionRecord> sessionsOfBatch(const std::string& batchId) const = 0;

  // Which batches the index shows: those with a session of `app` and of `branch` (empty:
  // any), most recent first, `limit` of them from `offset` on.
  struct BatchQuery {
    std::string app;
    std::string branch;
    int offset = 0;
    int limit = 20;
  };
  struct BatchList {
    std::vector<BatchRecord> batches;
    int total = 0;  // batches matching the filter, over all pages
  };
  virtual BatchList queryBatches(const BatchQuery& query) const = 0;
  // The distinct apps and branches of all sessions, sorted, for the index's filters.
  virtual std::vector<std::string> sessionApps() const = 0;
  virtual std::vector<std::string> sessionBranches() const = 0;
};

}  // namespace lumo::server
