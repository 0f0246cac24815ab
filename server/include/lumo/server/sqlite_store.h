#pragma once

#include <filesystem>
#include <mutex>

#include "lumo/server/store.h"

struct sqlite3;

namespace lumo::server {

// The embedded store: SQLite (WAL) under a data directory, images as content-addressed PNG
// files beside it. An image file is complete and synced before any row names it, so a
// process killed at any moment leaves every committed baseline and session readable. Saved
// baselines, approvals and session ends are also synced, so they survive a power cut; a
// step recorded since the last such commit might not. Several stores (threads or processes) may
// open one directory; within one store, calls are serialised on its connection, and writers wait up
// to five seconds for each other.
class SqliteStore final : public Store {
 public:
  // Opens or creates the store in `dataDir` (created if absent), brings its schema up to
  // date and clears half-written image files of an earlier run. Throws StoreError.
  explicit SqliteStore(const std::filesystem::path& dataDir);
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  std::string putImage(std::string_view png) override;
  std::optional<std::string> readImage(std::string_view hash) const override;

  std::optional<std::vector<StoredStep>> findBaseline(const BaselineKey& key) const override;
  void saveBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                    const std::string& sessionId) override;
  bool approveSession(const std::string& sessionId, const std::vector<StoredStep>& steps) override;

  void addBatch(const BatchRecord& batch) override;
  int countSessions(const std::string& batchId) const override;
  void addSession(const SessionRecord& session, const std::vector<StoredStep>& baseline) override;
  std::vector<StoredStep> sessionBaseline(const std::string& sessionId) const override;
  Append appendStep(const std::string& sessionId, const StepRecord& step,
                    std::int64_t nowMs) override;
  void completeStep(const std::string& sessionId, int position, const std::string& diffImage,
                    const std::vector<Rect>& boxes) override;
  void touchSession(const std::string& sessionId, std::int64_t nowMs) override;
  bool finishSession(const std::string& sessionId, const SessionEnd& end) override;
  int expireIdleSessions(std::int64_t idleSinceMs) override;
  bool rejectSession(const std::string& sessionId, std::optional<int> position) override;

  std::optional<SessionRecord> findSession(const std::string& id) const override;
  std::vector<StepRecord> steps(const std::string& sessionId) const override;
  std::optional<BatchRecord> findBatch(const std::string& id) const override;
  std::vector<BatchRecord> recentBatches(int limit) const override;
  std::vector<SessionRecord> sessionsOfBatch(const std::string& batchId) const override;
  BatchList queryBatches(const BatchQuery& query) const override;
  std::vector<std::string> sessionApps() const override;
  std::vector<std::string> sessionBranches() const override;

  // The directory given at construction.
  const std::filesystem::path& dataDir() const { return dataDir_; }

 private:
  std::filesystem::path imagePath(std::string_view hash) const;
  // Flushes the named images (empty names skipped) and their directories to the disk;
  // StoreError when one is not stored.
  void syncImages(std::vector<std::string> hashes) const;
  // The current and differences images of a session's steps.
  std::vector<std::string> imagesOfSteps(const std::string& sessionId) const;
  // Within a transaction: replaces the baseline rows and marks the session saved.
  void writeBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                     const std::string& sessionId);
  void insertStep(const std::string& sessionId, const StepRecord& step);

  std::filesystem::path dataDir_;
  mutable std::mutex mutex_;
  sqlite3* db_ = nullptr;
};

}  // namespace lumo::server
