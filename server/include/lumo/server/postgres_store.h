#pragma once

#include <memory>
#include <string>

#include "lumo/server/store.h"

namespace lumo::server {

namespace detail {
class PostgresPool;
class PostgresConnection;
}  // namespace detail

// The shared store: one PostgreSQL database that any number of server instances use at
// once. Images are rows keyed by their content hash (stored once however many steps name
// them). Every multi-row change is one transaction that locks the session row it depends on
// (SELECT ... FOR UPDATE) before checking its precondition, so racing approvals, stops and
// appends from different instances are ordered, and one that hits a deadlock is run again.
// Saved baselines, approvals, session ends and images are committed as the database's
// synchronous_commit says (by default: the WAL flushed, and synchronous replicas too) before
// the call returns; a step, a touch or a new session is committed without waiting for the
// flush, which the next durable commit includes. Thread-safe: each call takes one connection of a
// bounded pool.
class PostgresStore final : public Store {
 public:
  // Connects to `url` (postgresql://USER@HOST:PORT/DB, or any libpq connection string;
  // the password as libpq finds it: PGPASSWORD, ~/.pgpass), creating or migrating the schema
  // under an advisory lock so that instances starting together do it once. At most
  // `maxConnections` calls run at once; others wait for a connection. Throws StoreError.
  explicit PostgresStore(const std::string& url, int maxConnections = 8);
  ~PostgresStore() override;
  PostgresStore(const PostgresStore&) = delete;
  PostgresStore& operator=(const PostgresStore&) = delete;

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

  // The schema version this build creates and expects.
  static int schemaVersion();

 private:
  enum class Commit { Flushed, Unflushed };
  // Runs `body` in one transaction on a pooled connection and commits it; rolls back when it
  // throws, and runs it again (a few times) after a deadlock or serialization failure.
  template <typename Body>
  auto transaction(Commit commit, Body&& body) const;
  // Within a transaction that holds the session row: replaces the baseline of `key` and
  // marks the session saved.
  static void writeBaseline(detail::PostgresConnection& db, const BaselineKey& key,
                            const std::vector<StoredStep>& steps, const std::string& sessionId);
  static void insertStep(detail::PostgresConnection& db, const std::string& sessionId,
                         const StepRecord& step);

  std::unique_ptr<detail::PostgresPool> pool_;
};

}  // namespace lumo::server
