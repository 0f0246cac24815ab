#include "lumo/server/postgres_store.h"

#include <algorithm>
#include <chrono>
#include <iterator>

#include "content_hash.h"
#include "postgres_pool.h"
#include "step_boxes.h"
#include "store_columns.h"

namespace lumo::server {
namespace {

using detail::PostgresConnection;
using detail::PostgresError;
using detail::PostgresParams;
using detail::PostgresResult;

// Migration i takes the database from schema version i to i + 1. Append only: a database
// is never rebuilt, since other instances may be using it.
constexpr const char* kMigrations[] = {
    R"sql(
CREATE TABLE images(
  hash TEXT PRIMARY KEY,
  png BYTEA NOT NULL);
-- PNG does not compress further: keep it out of line without trying.
ALTER TABLE images ALTER COLUMN png SET STORAGE EXTERNAL;
CREATE TABLE batches(
  seq BIGSERIAL UNIQUE,
  id TEXT PRIMARY KEY,
  name TEXT NOT NULL,
  started_at TEXT NOT NULL,
  created_ms BIGINT NOT NULL);
CREATE INDEX batches_recent ON batches(created_ms DESC, seq DESC);
CREATE TABLE baselines(
  id BIGSERIAL PRIMARY KEY,
  app TEXT NOT NULL,
  test TEXT NOT NULL,
  environment TEXT NOT NULL,
  branch TEXT NOT NULL,
  session_id TEXT NOT NULL,
  saved_ms BIGINT NOT NULL,
  UNIQUE(app, test, environment, branch));
CREATE TABLE baseline_steps(
  baseline_id BIGINT NOT NULL REFERENCES baselines(id) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  image TEXT NOT NULL REFERENCES images(hash),
  PRIMARY KEY(baseline_id, position));
CREATE TABLE sessions(
  seq BIGSERIAL UNIQUE,
  id TEXT PRIMARY KEY,
  batch_id TEXT NOT NULL,
  app TEXT NOT NULL,
  test TEXT NOT NULL,
  environment TEXT NOT NULL,
  branch TEXT NOT NULL,
  baseline_branch TEXT NOT NULL,
  start_info TEXT NOT NULL,
  started_at TEXT NOT NULL,
  started_ms BIGINT NOT NULL,
  state TEXT NOT NULL,
  status TEXT NOT NULL,
  is_new BOOLEAN NOT NULL,
  saved BOOLEAN NOT NULL,
  duration_ms BIGINT NOT NULL,
  owner TEXT NOT NULL,
  step_count INTEGER NOT NULL,
  last_active_ms BIGINT NOT NULL,
  expired BOOLEAN NOT NULL,
  rejected BOOLEAN NOT NULL);
CREATE INDEX sessions_by_batch ON sessions(batch_id, started_ms, seq);
CREATE INDEX sessions_running ON sessions(last_active_ms) WHERE state = 'running';
CREATE INDEX sessions_by_app ON sessions(app);
CREATE INDEX sessions_by_branch ON sessions(branch);
CREATE TABLE session_baselines(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(session_id, position));
CREATE TABLE steps(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  outcome TEXT NOT NULL,
  match_level TEXT NOT NULL,
  baseline_image TEXT NOT NULL,
  current_image TEXT NOT NULL,
  diff_image TEXT NOT NULL,
  rejected BOOLEAN NOT NULL,
  boxes TEXT NOT NULL,
  PRIMARY KEY(session_id, position));
)sql",
};

// Any constant would do: it only has to differ from other applications' advisory locks on
// the same database.
constexpr std::int64_t kMigrationLock = 0x6c756d6f5f736368;  // "lumo_sch"

constexpr int kAttempts = 5;

using detail::kSessionColumns;
using detail::kStepColumns;
using detail::nowMs;

SessionRecord readSession(const PostgresResult& r, int row) {
  SessionRecord s;
  s.id = r.text(row, 0);
  s.batchId = r.text(row, 1);
  s.key = {r.text(row, 2), r.text(row, 3), r.text(row, 4), r.text(row, 5)};
  s.baselineBranch = r.text(row, 6);
  s.startInfo = r.text(row, 7);
  s.startedAt = r.text(row, 8);
  s.startedMs = r.integer(row, 9);
  s.state = sessionStateNamed(r.text(row, 10));
  s.status = r.text(row, 11);
  s.isNew = r.boolean(row, 12);
  s.saved = r.boolean(row, 13);
  s.durationMs = r.integer(row, 14);
  s.owner = r.text(row, 15);
  s.stepCount = static_cast<int>(r.integer(row, 16));
  s.lastActiveMs = r.integer(row, 17);
  s.expired = r.boolean(row, 18);
  s.rejected = r.boolean(row, 19);
  return s;
}

StepRecord readStep(const PostgresResult& r, int row) {
  StepRecord s;
  s.position = static_cast<int>(r.integer(row, 0));
  s.name = r.text(row, 1);
  s.outcome = stepOutcomeNamed(r.text(row, 2));
  s.matchLevel = r.text(row, 3);
  s.baselineImage = r.text(row, 4);
  s.currentImage = r.text(row, 5);
  s.diffImage = r.text(row, 6);
  s.rejected = r.boolean(row, 7);
  s.boxes = detail::boxesFromJson(r.text(row, 8), s.position);
  return s;
}

// Every row of a result, each read by `read(result, row)`.
template <typename Read>
auto readRows(const PostgresResult& r, Read read) {
  std::vector<decltype(read(r, 0))> rows;
  rows.reserve(static_cast<std::size_t>(r.rows()));
  for (int row = 0; row < r.rows(); ++row) {
    rows.push_back(read(r, row));
  }
  return rows;
}

BatchRecord readBatch(const PostgresResult& r, int row) {
  return {r.text(row, 0), r.text(row, 1), r.text(row, 2), r.integer(row, 3)};
}

std::vector<StoredStep> readStoredSteps(const PostgresResult& r) {
  std::vector<StoredStep> steps;
  for (int row = 0; row < r.rows(); ++row) {
    steps.push_back({r.text(row, 0), r.text(row, 1)});
  }
  return steps;
}

std::vector<std::string> column(const PostgresResult& r) {
  std::vector<std::string> values;
  for (int row = 0; row < r.rows(); ++row) {
    values.push_back(r.text(row, 0));
  }
  return values;
}

// Names the missing image instead of the constraint; the database has refused the rows.
void checkImageNames(const std::vector<StoredStep>& steps) {
  for (const StoredStep& step : steps) {
    if (!detail::isSha256Hex(step.image)) {
      throw StoreError("baseline image " + step.image + " is not stored");
    }
  }
}

void migrate(PostgresConnection& db) {
  constexpr int kVersion = static_cast<int>(std::size(kMigrations));
  db.script("BEGIN");
  try {
    // Instances starting together queue here; the later ones find the schema current.
    db.run("SELECT pg_advisory_xact_lock($1)", PostgresParams().integer(kMigrationLock));
    db.script("CREATE TABLE IF NOT EXISTS lumo_schema(version INTEGER NOT NULL)");
    const PostgresResult found = db.run("SELECT version FROM lumo_schema");
    int current = found.rows() > 0 ? static_cast<int>(found.integer(0, 0)) : 0;
    if (found.rows() == 0) {
      db.script("INSERT INTO lumo_schema VALUES(0)");
    }
    if (current > kVersion) {
      throw StoreError("the database was written by a newer server (schema version " +
                       std::to_string(current) + ")");
    }
    for (; current < kVersion; ++current) {
      db.script(kMigrations[current]);
    }
    db.run("UPDATE lumo_schema SET version = $1", PostgresParams().integer(kVersion));
    db.script("COMMIT");
  } catch (...) {
    try {
      db.script("ROLLBACK");
    } catch (const StoreError&) {
      // The connection is gone; the server rolled the transaction back.
    }
    throw;
  }
}

}  // namespace

int PostgresStore::schemaVersion() { return static_cast<int>(std::size(kMigrations)); }

PostgresStore::PostgresStore(const std::string& url, int maxConnections)
    : pool_(std::make_unique<detail::PostgresPool>(url, maxConnections)) {
  auto lease = pool_->acquire();
  migrate(*lease);
}

PostgresStore::~PostgresStore() = default;

template <typename Body>
auto PostgresStore::transaction(Commit commit, Body&& body) const {
  for (int attempt = 1;; ++attempt) {
    auto lease = pool_->acquire();
    PostgresConnection& db = *lease;
    db.script(commit == Commit::Flushed ? "BEGIN" : "BEGIN; SET LOCAL synchronous_commit = off");
    try {
      auto result = body(db);
      db.script("COMMIT");
      return result;
    } catch (const PostgresError& e) {
      try {
        db.script("ROLLBACK");
      } catch (const StoreError&) {
        // A lost connection: the pool drops it and the server has rolled back.
      }
      if (!e.retryable() || attempt == kAttempts) {
        throw;
      }
    } catch (...) {
      try {
        db.script("ROLLBACK");
      } catch (const StoreError&) {
      }
      throw;
    }
  }
}

std::string PostgresStore::putImage(std::string_view png) {
  const std::string hash = detail::sha256Hex(png);
  {
    auto lease = pool_->acquire();
    // Most images of a rerun are stored already: ask before sending the bytes.
    if (lease->run("SELECT 1 FROM images WHERE hash = $1", PostgresParams().text(hash)).rows() >
        0) {
      return hash;
    }
  }
  // Not flushed on the checkpoint's answer path: the log is flushed in order, so the flushed
  // commit of the stop, approval or baseline that names the image makes it durable first.
  transaction(Commit::Unflushed, [&](PostgresConnection& db) {
    db.run("INSERT INTO images(hash, png) VALUES($1, $2) ON CONFLICT(hash) DO NOTHING",
           PostgresParams().text(hash).bytes(png));
    return 0;
  });
  return hash;
}

std::optional<std::string> PostgresStore::readImage(std::string_view hash) const {
  if (!detail::isSha256Hex(hash)) {
    return std::nullopt;
  }
  auto lease = pool_->acquire();
  const PostgresResult found =
      lease->run("SELECT png FROM images WHERE hash = $1", PostgresParams().text(hash), true);
  if (found.rows() == 0) {
    return std::nullopt;
  }
  return found.text(0, 0);
}

std::optional<std::vector<StoredStep>> PostgresStore::findBaseline(const BaselineKey& key) const {
  auto lease = pool_->acquire();
  // One statement, so that a baseline replaced meanwhile is seen wholly old or wholly new.
  const PostgresResult found = lease->run(
      "SELECT s.name, s.image, b.id FROM baselines b LEFT JOIN baseline_steps s ON "
      "s.baseline_id = b.id WHERE b.app = $1 AND b.test = $2 AND b.environment = $3 AND "
      "b.branch = $4 ORDER BY s.position",
      PostgresParams().text(key.app).text(key.test).text(key.environment).text(key.branch));
  if (found.rows() == 0) {
    return std::nullopt;
  }
  std::vector<StoredStep> steps;
  for (int row = 0; row < found.rows(); ++row) {
    if (!found.text(row, 1).empty()) {
      steps.push_back({found.text(row, 0), found.text(row, 1)});
    }
  }
  return steps;
}

void PostgresStore::writeBaseline(PostgresConnection& db, const BaselineKey& key,
                                  const std::vector<StoredStep>& steps,
                                  const std::string& sessionId) {
  // The upsert locks the baseline row, so concurrent saves of one key take turns, and each
  // one's DELETE below sees the rows of the one before it.
  const PostgresResult upserted = db.run(
      "INSERT INTO baselines(app, test, environment, branch, session_id, saved_ms) "
      "VALUES($1, $2, $3, $4, $5, $6) ON CONFLICT(app, test, environment, branch) DO "
      "UPDATE SET session_id = excluded.session_id, saved_ms = excluded.saved_ms RETURNING id",
      PostgresParams()
          .text(key.app)
          .text(key.test)
          .text(key.environment)
          .text(key.branch)
          .text(sessionId)
          .integer(nowMs()));
  const std::int64_t id = upserted.integer(0, 0);
  db.run("DELETE FROM baseline_steps WHERE baseline_id = $1", PostgresParams().integer(id));
  for (std::size_t i = 0; i < steps.size(); ++i) {
    try {
      db.run(
          "INSERT INTO baseline_steps(baseline_id, position, name, image) VALUES($1, $2, $3, $4)",
          PostgresParams()
              .integer(id)
              .integer(static_cast<std::int64_t>(i))
              .text(steps[i].name)
              .text(steps[i].image));
    } catch (const PostgresError& e) {
      if (e.sqlState() == "23503") {
        throw StoreError("baseline image " + steps[i].image + " is not stored");
      }
      throw;
    }
  }
  db.run("UPDATE sessions SET saved = TRUE WHERE id = $1", PostgresParams().text(sessionId));
}

void PostgresStore::saveBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                                 const std::string& sessionId) {
  checkImageNames(steps);
  transaction(Commit::Flushed, [&](PostgresConnection& db) {
    // Session row first, then the baseline row: the order every transaction takes them in.
    db.run("SELECT 1 FROM sessions WHERE id = $1 FOR UPDATE", PostgresParams().text(sessionId));
    writeBaseline(db, key, steps, sessionId);
    return true;
  });
}

bool PostgresStore::approveSession(const std::string& sessionId,
                                   const std::vector<StoredStep>& steps) {
  checkImageNames(steps);
  return transaction(Commit::Flushed, [&](PostgresConnection& db) {
    const PostgresResult found = db.run(
        "SELECT app, test, environment, branch FROM sessions WHERE id = $1 AND "
        "state = 'stopped' FOR UPDATE",
        PostgresParams().text(sessionId));
    if (found.rows() == 0) {
      return false;
    }
    writeBaseline(db, {found.text(0, 0), found.text(0, 1), found.text(0, 2), found.text(0, 3)},
                  steps, sessionId);
    db.run("UPDATE sessions SET rejected = FALSE WHERE id = $1", PostgresParams().text(sessionId));
    db.run("UPDATE steps SET rejected = FALSE WHERE session_id = $1 AND rejected",
           PostgresParams().text(sessionId));
    return true;
  });
}

void PostgresStore::addBatch(const BatchRecord& batch) {
  transaction(Commit::Unflushed, [&](PostgresConnection& db) {
    db.run(
        "INSERT INTO batches(id, name, started_at, created_ms) VALUES($1, $2, $3, $4) "
        "ON CONFLICT(id) DO NOTHING",
        PostgresParams()
            .text(batch.id)
            .text(batch.name)
            .text(batch.startedAt)
            .integer(batch.createdMs ? batch.createdMs : nowMs()));
    return true;
  });
}

int PostgresStore::countSessions(const std::string& batchId) const {
  auto lease = pool_->acquire();
  return static_cast<int>(
      lease
          ->run("SELECT COUNT(*) FROM sessions WHERE batch_id = $1", PostgresParams().text(batchId))
          .integer(0, 0));
}

void PostgresStore::addSession(const SessionRecord& s, const std::vector<StoredStep>& baseline) {
  transaction(Commit::Unflushed, [&](PostgresConnection& db) {
    db.run(
        "INSERT INTO sessions(id, batch_id, app, test, environment, branch, baseline_branch, "
        "start_info, started_at, started_ms, state, status, is_new, saved, duration_ms, owner, "
        "step_count, last_active_ms, expired, rejected) VALUES($1, $2, $3, $4, $5, $6, $7, $8, "
        "$9, $10, $11, $12, $13, $14, $15, $16, $17, $18, $19, $20)",
        PostgresParams()
            .text(s.id)
            .text(s.batchId)
            .text(s.key.app)
            .text(s.key.test)
            .text(s.key.environment)
            .text(s.key.branch)
            .text(s.baselineBranch)
            .text(s.startInfo)
            .text(s.startedAt)
            .integer(s.startedMs)
            .text(std::string(nameOf(s.state)))
            .text(s.status)
            .boolean(s.isNew)
            .boolean(s.saved)
            .integer(s.durationMs)
            .text(s.owner)
            .integer(s.stepCount)
            .integer(s.lastActiveMs)
            .boolean(s.expired)
            .boolean(s.rejected));
    for (std::size_t i = 0; i < baseline.size(); ++i) {
      db.run(
          "INSERT INTO session_baselines(session_id, position, name, image) "
          "VALUES($1, $2, $3, $4)",
          PostgresParams()
              .text(s.id)
              .integer(static_cast<std::int64_t>(i))
              .text(baseline[i].name)
              .text(baseline[i].image));
    }
    return true;
  });
}

std::vector<StoredStep> PostgresStore::sessionBaseline(const std::string& sessionId) const {
  auto lease = pool_->acquire();
  return readStoredSteps(lease->run(
      "SELECT name, image FROM session_baselines WHERE session_id = $1 ORDER BY position",
      PostgresParams().text(sessionId)));
}

void PostgresStore::insertStep(PostgresConnection& db, const std::string& sessionId,
                               const StepRecord& step) {
  db.run(
      "INSERT INTO steps(session_id, position, name, outcome, match_level, baseline_image, "
      "current_image, diff_image, rejected, boxes) VALUES($1, $2, $3, $4, $5, $6, $7, $8, $9, "
      "$10)",
      PostgresParams()
          .text(sessionId)
          .integer(step.position)
          .text(step.name)
          .text(std::string(nameOf(step.outcome)))
          .text(step.matchLevel)
          .text(step.baselineImage)
          .text(step.currentImage)
          .text(step.diffImage)
          .boolean(step.rejected)
          .text(detail::boxesToJson(step.boxes)));
}

Store::Append PostgresStore::appendStep(const std::string& sessionId, const StepRecord& step,
                                        std::int64_t nowMs) {
  return transaction(Commit::Unflushed, [&](PostgresConnection& db) {
    const PostgresResult found =
        db.run("SELECT state, step_count FROM sessions WHERE id = $1 FOR UPDATE",
               PostgresParams().text(sessionId));
    if (found.rows() == 0 || found.text(0, 0) != "running") {
      return Append::NotRunning;
    }
    if (found.integer(0, 1) != step.position) {
      return Append::PositionTaken;
    }
    insertStep(db, sessionId, step);
    db.run("UPDATE sessions SET step_count = step_count + 1, last_active_ms = $1 WHERE id = $2",
           PostgresParams().integer(nowMs).text(sessionId));
    return Append::Appended;
  });
}

void PostgresStore::completeStep(const std::string& sessionId, int position,
                                 const std::string& diffImage, const std::vector<Rect>& boxes) {
  transaction(Commit::Unflushed, [&](PostgresConnection& db) {
    db.run("UPDATE steps SET diff_image = $1, boxes = $2 WHERE session_id = $3 AND position = $4",
           PostgresParams()
               .text(diffImage)
               .text(detail::boxesToJson(boxes))
               .text(sessionId)
               .integer(position));
    return true;
  });
}

void PostgresStore::touchSession(const std::string& sessionId, std::int64_t nowMs) {
  transaction(Commit::Unflushed, [&](PostgresConnection& db) {
    db.run(
        "UPDATE sessions SET last_active_ms = GREATEST(last_active_ms, $1) "
        "WHERE id = $2 AND state = 'running'",
        PostgresParams().integer(nowMs).text(sessionId));
    return true;
  });
}

bool PostgresStore::finishSession(const std::string& sessionId, const SessionEnd& end) {
  if (end.baseline) {
    checkImageNames(*end.baseline);
  }
  return transaction(Commit::Flushed, [&](PostgresConnection& db) {
    const PostgresResult found = db.run(
        "SELECT app, test, environment, branch FROM sessions WHERE id = $1 AND "
        "state = 'running' AND step_count = $2 FOR UPDATE",
        PostgresParams().text(sessionId).integer(end.expectedSteps));
    if (found.rows() == 0) {
      return false;
    }
    for (const StepRecord& step : end.addedSteps) {
      insertStep(db, sessionId, step);
    }
    db.run(
        "UPDATE sessions SET state = $1, status = $2, duration_ms = $3, expired = $4, "
        "step_count = step_count + $5 WHERE id = $6",
        PostgresParams()
            .text(std::string(nameOf(end.state)))
            .text(end.status)
            .integer(end.durationMs)
            .boolean(end.expired)
            .integer(static_cast<std::int64_t>(end.addedSteps.size()))
            .text(sessionId));
    if (end.baseline) {
      writeBaseline(db, {found.text(0, 0), found.text(0, 1), found.text(0, 2), found.text(0, 3)},
                    *end.baseline, sessionId);
    }
    return true;
  });
}

int PostgresStore::expireIdleSessions(std::int64_t idleSinceMs) {
  return transaction(Commit::Flushed, [&](PostgresConnection& db) {
    return db
        .run(
            "UPDATE sessions SET state = 'aborted', status = 'Unresolved', expired = TRUE, "
            "duration_ms = GREATEST(last_active_ms - started_ms, 0) "
            "WHERE state = 'running' AND last_active_ms < $1",
            PostgresParams().integer(idleSinceMs))
        .changed();
  });
}

bool PostgresStore::rejectSession(const std::string& sessionId, std::optional<int> position) {
  return transaction(Commit::Flushed, [&](PostgresConnection& db) {
    if (db.run("SELECT 1 FROM sessions WHERE id = $1 AND state = 'stopped' FOR UPDATE",
               PostgresParams().text(sessionId))
            .rows() == 0) {
      return false;
    }
    if (position) {
      if (db.run("UPDATE steps SET rejected = TRUE WHERE session_id = $1 AND position = $2",
                 PostgresParams().text(sessionId).integer(*position))
              .changed() == 0) {
        return false;
      }
    } else {
      db.run("UPDATE steps SET rejected = TRUE WHERE session_id = $1",
             PostgresParams().text(sessionId));
    }
    db.run("UPDATE sessions SET rejected = TRUE WHERE id = $1", PostgresParams().text(sessionId));
    return true;
  });
}

std::optional<SessionRecord> PostgresStore::findSession(const std::string& id) const {
  auto lease = pool_->acquire();
  const std::string sql = std::string("SELECT ") + kSessionColumns + " FROM sessions WHERE id = $1";
  const PostgresResult found = lease->run(sql.c_str(), PostgresParams().text(id));
  if (found.rows() == 0) {
    return std::nullopt;
  }
  return readSession(found, 0);
}

std::vector<StepRecord> PostgresStore::steps(const std::string& sessionId) const {
  auto lease = pool_->acquire();
  const std::string sql =
      std::string("SELECT ") + kStepColumns + " FROM steps WHERE session_id = $1 ORDER BY position";
  const PostgresResult found = lease->run(sql.c_str(), PostgresParams().text(sessionId));
  return readRows(found, readStep);
}

std::optional<BatchRecord> PostgresStore::findBatch(const std::string& id) const {
  auto lease = pool_->acquire();
  const PostgresResult found =
      lease->run("SELECT id, name, started_at, created_ms FROM batches WHERE id = $1",
                 PostgresParams().text(id));
  if (found.rows() == 0) {
    return std::nullopt;
  }
  return readBatch(found, 0);
}

std::vector<BatchRecord> PostgresStore::recentBatches(int limit) const {
  auto lease = pool_->acquire();
  const PostgresResult found = lease->run(
      "SELECT id, name, started_at, created_ms FROM batches ORDER BY created_ms DESC, seq DESC "
      "LIMIT $1",
      PostgresParams().integer(std::max(limit, 0)));
  return readRows(found, readBatch);
}

std::vector<SessionRecord> PostgresStore::sessionsOfBatch(const std::string& batchId) const {
  auto lease = pool_->acquire();
  const std::string sql = std::string("SELECT ") + kSessionColumns +
                          " FROM sessions WHERE batch_id = $1 ORDER BY started_ms, seq";
  const PostgresResult found = lease->run(sql.c_str(), PostgresParams().text(batchId));
  return readRows(found, readSession);
}

namespace {

// The filter of queryBatches: a batch matches when one of its sessions does.
constexpr const char* kBatchFilter =
    " FROM batches b WHERE EXISTS(SELECT 1 FROM sessions s WHERE s.batch_id = b.id AND "
    "($1::text = '' OR s.app = $1::text) AND ($2::text = '' OR s.branch = $2::text))";

}  // namespace

PostgresStore::BatchList PostgresStore::queryBatches(const BatchQuery& query) const {
  auto lease = pool_->acquire();
  BatchList list;
  const std::string countSql = std::string("SELECT COUNT(*)") + kBatchFilter;
  list.total = static_cast<int>(
      lease->run(countSql.c_str(), PostgresParams().text(query.app).text(query.branch))
          .integer(0, 0));
  const std::string sql = std::string("SELECT b.id, b.name, b.started_at, b.created_ms") +
                          kBatchFilter +
                          " ORDER BY b.created_ms DESC, b.seq DESC LIMIT $3 OFFSET $4";
  const PostgresResult found = lease->run(sql.c_str(), PostgresParams()
                                                           .text(query.app)
                                                           .text(query.branch)
                                                           .integer(std::max(query.limit, 0))
                                                           .integer(std::max(query.offset, 0)));
  list.batches = readRows(found, readBatch);
  return list;
}

std::vector<std::string> PostgresStore::sessionApps() const {
  auto lease = pool_->acquire();
  return column(lease->run("SELECT DISTINCT app FROM sessions ORDER BY app"));
}

std::vector<std::string> PostgresStore::sessionBranches() const {
  auto lease = pool_->acquire();
  return column(lease->run("SELECT DISTINCT branch FROM sessions ORDER BY branch"));
}

}  // namespace lumo::server
