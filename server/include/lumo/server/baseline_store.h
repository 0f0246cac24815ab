#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;

namespace lumo::server {

// A failure of the store's disk or database; the operation changed nothing it had not
// committed before.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

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
  std::string state = "running";  // "running", "stopped" or "aborted"
  std::string status;             // "Passed", "Unresolved" or "Failed" once stopped
  bool isNew = false;
  bool saved = false;  // its images became the baseline
  std::int64_t durationMs = 0;
};

struct StepRecord {
  int position = 0;
  std::string name;
  std::string outcome;  // "matched", "different", "new", "missing" or "failed"
  std::string matchLevel;
  std::string baselineImage;  // content hashes; empty when the step has no such image
  std::string currentImage;
  std::string diffImage;
  // The difference boxes as JSON text: [{"left", "top", "width", "height"}, ...] in pixels;
  // empty is stored as "[]".
  std::string boxes;
};

// Baselines, batches, sessions and their steps in SQLite (WAL, full sync) under a data
// directory, images as content-addressed PNG files beside it. An image file is complete and
// synced before any row names it, so a process killed at any moment leaves every committed
// baseline readable. Safe to use from several threads; calls are serialised on one connection.
class BaselineStore {
 public:
  // Opens or creates the store in `dataDir` (created if absent) and clears half-written image
  // files of an earlier run. Throws StoreError.
  explicit BaselineStore(const std::filesystem::path& dataDir);
  ~BaselineStore();
  BaselineStore(const BaselineStore&) = delete;
  BaselineStore& operator=(const BaselineStore&) = delete;

  // Stores PNG bytes under their SHA-256 (lower-case hex) and returns it; the file is durable
  // when this returns. Storing the same bytes again is a no-op. Throws StoreError.
  std::string putImage(std::string_view png);
  // The bytes stored under `hash`; nullopt when there are none or the name is not a hash.
  std::optional<std::string> readImage(std::string_view hash) const;

  // The steps of the baseline of `key`; nullopt when it has none.
  std::optional<std::vector<StoredStep>> findBaseline(const BaselineKey& key) const;
  // Replaces the baseline of `key` with `steps` and marks session `sessionId` saved, in one
  // transaction. Every image must have been stored with putImage. Throws StoreError.
  void saveBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                    const std::string& sessionId);

  // Records a batch the first time its id is seen; later calls keep the first record.
  void addBatch(const BatchRecord& batch);
  // Records a new session; its id must be unused. Throws StoreError.
  void addSession(const SessionRecord& session);
  // Records one step of a session; a position is recorded once. Throws StoreError.
  void addStep(const std::string& sessionId, const StepRecord& step);
  // Sets the state, status and duration of a session that ends. Throws StoreError.
  void finishSession(const std::string& sessionId, const std::string& state,
                     const std::string& status, std::int64_t durationMs);

  // Lookups; nullopt or an empty list when nothing matches.
  std::optional<SessionRecord> findSession(const std::string& id) const;
  // A session's steps in position order.
  std::vector<StepRecord> steps(const std::string& sessionId) const;
  std::optional<BatchRecord> findBatch(const std::string& id) const;
  // The most recently created batches first.
  std::vector<BatchRecord> recentBatches(int limit) const;
  // A batch's sessions, earliest first.
  std::vector<SessionRecord> sessionsOfBatch(const std::string& batchId) const;

  // The directory given at construction.
  const std::filesystem::path& dataDir() const { return dataDir_; }

 private:
  std::filesystem::path imagePath(std::string_view hash) const;

  std::filesystem::path dataDir_;
  mutable std::mutex mutex_;
  sqlite3* db_ = nullptr;
};

}  // namespace lumo::server
