#include "lumo/server/sqlite_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include "content_hash.h"
#include "json_limits.h"
#include "lumo/detail/json.h"
#include "step_boxes.h"
#include "store_columns.h"

namespace lumo::server {
namespace {

// The schema as it was before sessions lived in the store; each migration below moves a
// database one version on, so old data directories open as they are.
constexpr const char* kInitialSchema = R"sql(
CREATE TABLE IF NOT EXISTS batches(
  id TEXT PRIMARY KEY,
  name TEXT NOT NULL,
  started_at TEXT NOT NULL,
  created_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS baselines(
  id INTEGER PRIMARY KEY,
  app TEXT NOT NULL,
  test TEXT NOT NULL,
  environment TEXT NOT NULL,
  branch TEXT NOT NULL,
  session_id TEXT NOT NULL,
  saved_ms INTEGER NOT NULL,
  UNIQUE(app, test, environment, branch));
CREATE TABLE IF NOT EXISTS baseline_steps(
  baseline_id INTEGER NOT NULL REFERENCES baselines(id) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(baseline_id, position));
CREATE TABLE IF NOT EXISTS sessions(
  id TEXT PRIMARY KEY,
  batch_id TEXT NOT NULL,
  app TEXT NOT NULL,
  test TEXT NOT NULL,
  environment TEXT NOT NULL,
  branch TEXT NOT NULL,
  baseline_branch TEXT NOT NULL,
  start_info TEXT NOT NULL,
  started_at TEXT NOT NULL,
  started_ms INTEGER NOT NULL,
  state TEXT NOT NULL,
  status TEXT NOT NULL,
  is_new INTEGER NOT NULL,
  saved INTEGER NOT NULL,
  duration_ms INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS sessions_by_batch ON sessions(batch_id, started_ms);
CREATE TABLE IF NOT EXISTS steps(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  outcome TEXT NOT NULL,
  match_level TEXT NOT NULL,
  baseline_image TEXT NOT NULL,
  current_image TEXT NOT NULL,
  diff_image TEXT NOT NULL,
  PRIMARY KEY(session_id, position));
)sql";

// Migration i takes the database from user_version i to i + 1. Append only.
constexpr const char* kMigrations[] = {
    kInitialSchema,
    // Running sessions live in the store: owner, progress, idle time, review state and the
    // baseline each compares with. A session a former server kept in memory cannot resume.
    R"sql(
ALTER TABLE sessions ADD COLUMN owner TEXT NOT NULL DEFAULT '';
ALTER TABLE sessions ADD COLUMN step_count INTEGER NOT NULL DEFAULT 0;
ALTER TABLE sessions ADD COLUMN last_active_ms INTEGER NOT NULL DEFAULT 0;
ALTER TABLE sessions ADD COLUMN expired INTEGER NOT NULL DEFAULT 0;
ALTER TABLE sessions ADD COLUMN rejected INTEGER NOT NULL DEFAULT 0;
ALTER TABLE steps ADD COLUMN rejected INTEGER NOT NULL DEFAULT 0;
CREATE TABLE session_baselines(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(session_id, position));
CREATE INDEX running_sessions ON sessions(state, last_active_ms);
UPDATE sessions SET state = 'aborted', status = 'Unresolved' WHERE state = 'running';
UPDATE sessions SET step_count = (SELECT COUNT(*) FROM steps WHERE steps.session_id = sessions.id);
)sql",
    // Each compared step keeps the boxes around its differences, as a JSON array of
    // [left, top, width, height].
    "ALTER TABLE steps ADD COLUMN boxes TEXT NOT NULL DEFAULT '[]';",
};

using detail::kSessionColumns;
using detail::kStepColumns;
using detail::nowMs;

[[noreturn]] void fail(const std::string& what) { throw StoreError(what); }

[[noreturn]] void failErrno(const std::string& what, const std::filesystem::path& path) {
  fail(what + " " + path.string() + ": " + std::strerror(errno));
}

// One prepared statement, finalized when it goes out of scope.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
      fail(std::string("cannot prepare statement: ") + sqlite3_errmsg(db));
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int index, std::string_view text) {
    check(sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                            SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(int index, std::int64_t value) {
    check(sqlite3_bind_int64(stmt_, index, value));
    return *this;
  }
  // Steps once: true while a row is available.
  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) {
      return true;
    }
    if (rc != SQLITE_DONE) {
      fail(std::string("database error: ") + sqlite3_errmsg(db_));
    }
    return false;
  }
  void run() {
    while (step()) {
    }
  }
  // Ready to bind and run again.
  void reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  std::string text(int column) const {
    const auto* p = sqlite3_column_text(stmt_, column);
    return p ? std::string(reinterpret_cast<const char*>(p),
                           static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
             : std::string();
  }
  std::int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }

 private:
  void check(int rc) {
    if (rc != SQLITE_OK) {
      fail(std::string("cannot bind value: ") + sqlite3_errmsg(db_));
    }
  }

  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

void exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : "unknown error";
    sqlite3_free(message);
    fail("database error: " + text);
  }
}

// How a commit reaches the disk. Every commit survives the process being killed (WAL);
// a durable one also survives a power cut, at the cost of syncing the log (about 3 ms here).
// Syncing the log also syncs every commit written before it, so ordering is kept.
enum class Sync { Process, Durable };

// BEGIN IMMEDIATE ... COMMIT, rolled back when left by an exception.
class Transaction {
 public:
  explicit Transaction(sqlite3* db, Sync sync = Sync::Process) : db_(db), sync_(sync) {
    if (sync_ == Sync::Durable) {
      exec(db_, "PRAGMA synchronous=FULL");
    }
    exec(db_, "BEGIN IMMEDIATE");
  }
  ~Transaction() {
    if (!done_) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    if (sync_ == Sync::Durable) {
      sqlite3_exec(db_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit() {
    exec(db_, "COMMIT");
    done_ = true;
  }

 private:
  sqlite3* db_;
  Sync sync_;
  bool done_ = false;
};

void syncPath(const std::filesystem::path& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) {
    failErrno("cannot open", path);
  }
  const int rc = ::fsync(fd);
  ::close(fd);
  if (rc != 0) {
    failErrno("cannot sync", path);
  }
}

void writeFully(int fd, std::string_view data, const std::filesystem::path& path) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      failErrno("cannot write", path);
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
}

SessionRecord readSession(const Statement& s) {
  SessionRecord r;
  r.id = s.text(0);
  r.batchId = s.text(1);
  r.key = {s.text(2), s.text(3), s.text(4), s.text(5)};
  r.baselineBranch = s.text(6);
  r.startInfo = s.text(7);
  r.startedAt = s.text(8);
  r.startedMs = s.integer(9);
  r.state = sessionStateNamed(s.text(10));
  r.status = s.text(11);
  r.isNew = s.integer(12) != 0;
  r.saved = s.integer(13) != 0;
  r.durationMs = s.integer(14);
  r.owner = s.text(15);
  r.stepCount = static_cast<int>(s.integer(16));
  r.lastActiveMs = s.integer(17);
  r.expired = s.integer(18) != 0;
  r.rejected = s.integer(19) != 0;
  return r;
}

StepRecord readStep(const Statement& s) {
  StepRecord r;
  r.position = static_cast<int>(s.integer(0));
  r.name = s.text(1);
  r.outcome = stepOutcomeNamed(s.text(2));
  r.matchLevel = s.text(3);
  r.baselineImage = s.text(4);
  r.currentImage = s.text(5);
  r.diffImage = s.text(6);
  r.rejected = s.integer(7) != 0;
  r.boxes = detail::boxesFromJson(s.text(8), r.position);
  return r;
}

void migrate(sqlite3* db) {
  constexpr int kVersion = static_cast<int>(std::size(kMigrations));
  Transaction transaction(db, Sync::Durable);
  // Read inside the transaction: another process may be migrating the same file.
  Statement version(db, "PRAGMA user_version");
  int current = version.step() ? static_cast<int>(version.integer(0)) : 0;
  if (current > kVersion) {
    fail("the database was written by a newer server (schema version " + std::to_string(current) +
         ")");
  }
  for (; current < kVersion; ++current) {
    exec(db, kMigrations[current]);
  }
  exec(db, ("PRAGMA user_version = " + std::to_string(kVersion)).c_str());
  transaction.commit();
}

constexpr std::string_view kTempSuffix = ".tmp";

}  // namespace

SqliteStore::SqliteStore(const std::filesystem::path& dataDir) : dataDir_(dataDir) {
  std::error_code ec;
  std::filesystem::create_directories(dataDir_ / "images", ec);
  if (ec) {
    fail("cannot create " + (dataDir_ / "images").string() + ": " + ec.message());
  }
  // A temporary image file was never named by a committed row: it is safe to drop.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dataDir_ / "images")) {
    if (entry.is_regular_file() && entry.path().string().ends_with(kTempSuffix)) {
      std::filesystem::remove(entry.path(), ec);
    }
  }
  const std::string file = (dataDir_ / "lumo.db").string();
  if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    fail("cannot open " + file + ": " + message);
  }
  try {
    sqlite3_busy_timeout(db_, 5000);
    exec(db_, "PRAGMA journal_mode=WAL");
    // Steps and activity need only survive a killed process; baselines and verdicts are
    // committed durably (see Sync).
    exec(db_, "PRAGMA synchronous=NORMAL");
    exec(db_, "PRAGMA foreign_keys=ON");
    migrate(db_);
  } catch (...) {
    sqlite3_close(db_);
    throw;
  }
}

SqliteStore::~SqliteStore() { sqlite3_close(db_); }

std::filesystem::path SqliteStore::imagePath(std::string_view hash) const {
  return dataDir_ / "images" / std::string(hash.substr(0, 2)) / (std::string(hash) + ".png");
}

std::string SqliteStore::putImage(std::string_view png) {
  const std::string hash = detail::sha256Hex(png);
  const std::filesystem::path path = imagePath(hash);
  std::error_code ec;
  // A file of another size was renamed into place but lost its data in a power cut: write
  // it again.
  if (std::filesystem::file_size(path, ec) == png.size() && !ec) {
    return hash;
  }
  std::filesystem::create_directories(path.parent_path(), ec);
  if (ec) {
    fail("cannot create " + path.parent_path().string() + ": " + ec.message());
  }
  // A unique temporary name: two sessions may store the same image at once. The rename
  // makes the whole file appear at once to a process killed at any moment; syncing waits
  // for the row that makes it matter (syncImages), off the checkpoint's answer path.
  thread_local std::mt19937_64 random{std::random_device{}()};
  std::filesystem::path temp = path;
  temp += '.';
  temp += std::to_string(random());
  temp += kTempSuffix;
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    failErrno("cannot create", temp);
  }
  try {
    writeFully(fd, png, temp);
  } catch (...) {
    ::close(fd);
    std::filesystem::remove(temp, ec);
    throw;
  }
  ::close(fd);
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    std::filesystem::remove(temp, ec);
    failErrno("cannot rename to", path);
  }
  return hash;
}

std::optional<std::string> SqliteStore::readImage(std::string_view hash) const {
  if (!detail::isSha256Hex(hash)) {
    return std::nullopt;
  }
  std::ifstream in(imagePath(hash), std::ios::binary);
  if (!in) {
    return std::nullopt;
  }
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return std::move(bytes).str();
}

std::optional<std::vector<StoredStep>> SqliteStore::findBaseline(const BaselineKey& key) const {
  std::lock_guard lock(mutex_);
  Statement find(db_,
                 "SELECT id FROM baselines WHERE app = ? AND test = ? AND environment = ? AND "
                 "branch = ?");
  find.bind(1, key.app).bind(2, key.test).bind(3, key.environment).bind(4, key.branch);
  if (!find.step()) {
    return std::nullopt;
  }
  Statement steps(db_,
                  "SELECT name, image FROM baseline_steps WHERE baseline_id = ? ORDER BY position");
  steps.bind(1, find.integer(0));
  std::vector<StoredStep> result;
  while (steps.step()) {
    result.push_back({steps.text(0), steps.text(1)});
  }
  return result;
}

void SqliteStore::syncImages(std::vector<std::string> hashes) const {
  std::sort(hashes.begin(), hashes.end());
  hashes.erase(std::unique(hashes.begin(), hashes.end()), hashes.end());
  std::vector<std::filesystem::path> directories;
  for (const std::string& hash : hashes) {
    if (hash.empty()) {
      continue;
    }
    const std::filesystem::path path = imagePath(hash);
    if (!detail::isSha256Hex(hash) || ::access(path.c_str(), F_OK) != 0) {
      fail("image " + hash + " is not stored");
    }
    syncPath(path, O_RDONLY);
    directories.push_back(path.parent_path());
  }
  // The directory entry made by the rename is a write of its own.
  std::sort(directories.begin(), directories.end());
  directories.erase(std::unique(directories.begin(), directories.end()), directories.end());
  for (const auto& directory : directories) {
    syncPath(directory, O_RDONLY | O_DIRECTORY);
  }
}

std::vector<std::string> SqliteStore::imagesOfSteps(const std::string& sessionId) const {
  std::lock_guard lock(mutex_);
  Statement find(db_, "SELECT current_image, diff_image FROM steps WHERE session_id = ?");
  find.bind(1, sessionId);
  std::vector<std::string> hashes;
  while (find.step()) {
    hashes.push_back(find.text(0));
    hashes.push_back(find.text(1));
  }
  return hashes;
}

namespace {

std::vector<std::string> imagesOf(const std::vector<StoredStep>& steps) {
  std::vector<std::string> hashes;
  for (const StoredStep& step : steps) {
    hashes.push_back(step.image);
  }
  return hashes;
}

}  // namespace

void SqliteStore::writeBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                                const std::string& sessionId) {
  Statement upsert(db_,
                   "INSERT INTO baselines(app, test, environment, branch, session_id, saved_ms) "
                   "VALUES(?, ?, ?, ?, ?, ?) ON CONFLICT(app, test, environment, branch) DO "
                   "UPDATE SET session_id = excluded.session_id, saved_ms = excluded.saved_ms "
                   "RETURNING id");
  upsert.bind(1, key.app).bind(2, key.test).bind(3, key.environment).bind(4, key.branch);
  upsert.bind(5, sessionId).bind(6, nowMs());
  if (!upsert.step()) {
    fail("baseline row was not written");
  }
  const std::int64_t id = upsert.integer(0);
  upsert.run();
  Statement clear(db_, "DELETE FROM baseline_steps WHERE baseline_id = ?");
  clear.bind(1, id).run();
  Statement insert(db_,
                   "INSERT INTO baseline_steps(baseline_id, position, name, image) "
                   "VALUES(?, ?, ?, ?)");
  for (std::size_t i = 0; i < steps.size(); ++i) {
    insert.reset();
    insert.bind(1, id).bind(2, static_cast<std::int64_t>(i)).bind(3, steps[i].name);
    insert.bind(4, steps[i].image).run();
  }
  Statement mark(db_, "UPDATE sessions SET saved = 1 WHERE id = ?");
  mark.bind(1, sessionId).run();
}

void SqliteStore::saveBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                               const std::string& sessionId) {
  syncImages(imagesOf(steps));
  std::lock_guard lock(mutex_);
  Transaction transaction(db_, Sync::Durable);
  writeBaseline(key, steps, sessionId);
  transaction.commit();
}

bool SqliteStore::approveSession(const std::string& sessionId,
                                 const std::vector<StoredStep>& steps) {
  syncImages(imagesOf(steps));
  std::lock_guard lock(mutex_);
  Transaction transaction(db_, Sync::Durable);
  Statement find(db_,
                 "SELECT app, test, environment, branch FROM sessions WHERE id = ? AND "
                 "state = 'stopped'");
  find.bind(1, sessionId);
  if (!find.step()) {
    return false;
  }
  writeBaseline({find.text(0), find.text(1), find.text(2), find.text(3)}, steps, sessionId);
  Statement clearSession(db_, "UPDATE sessions SET rejected = 0 WHERE id = ?");
  clearSession.bind(1, sessionId).run();
  Statement clearSteps(db_, "UPDATE steps SET rejected = 0 WHERE session_id = ?");
  clearSteps.bind(1, sessionId).run();
  transaction.commit();
  return true;
}

void SqliteStore::addBatch(const BatchRecord& batch) {
  std::lock_guard lock(mutex_);
  Statement insert(db_,
                   "INSERT INTO batches(id, name, started_at, created_ms) VALUES(?, ?, ?, ?) "
                   "ON CONFLICT(id) DO NOTHING");
  insert.bind(1, batch.id).bind(2, batch.name).bind(3, batch.startedAt);
  insert.bind(4, batch.createdMs ? batch.createdMs : nowMs()).run();
}

int SqliteStore::countSessions(const std::string& batchId) const {
  std::lock_guard lock(mutex_);
  Statement count(db_, "SELECT COUNT(*) FROM sessions WHERE batch_id = ?");
  count.bind(1, batchId);
  return count.step() ? static_cast<int>(count.integer(0)) : 0;
}

void SqliteStore::addSession(const SessionRecord& s, const std::vector<StoredStep>& baseline) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  Statement insert(db_,
                   "INSERT INTO sessions(id, batch_id, app, test, environment, branch, "
                   "baseline_branch, start_info, started_at, started_ms, state, status, is_new, "
                   "saved, duration_ms, owner, step_count, last_active_ms, expired, rejected) "
                   "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  insert.bind(1, s.id).bind(2, s.batchId).bind(3, s.key.app).bind(4, s.key.test);
  insert.bind(5, s.key.environment).bind(6, s.key.branch).bind(7, s.baselineBranch);
  insert.bind(8, s.startInfo)
      .bind(9, s.startedAt)
      .bind(10, s.startedMs)
      .bind(11, std::string(nameOf(s.state)));
  insert.bind(12, s.status).bind(13, std::int64_t{s.isNew}).bind(14, std::int64_t{s.saved});
  insert.bind(15, s.durationMs).bind(16, s.owner).bind(17, std::int64_t{s.stepCount});
  insert.bind(18, s.lastActiveMs).bind(19, std::int64_t{s.expired});
  insert.bind(20, std::int64_t{s.rejected}).run();
  Statement step(db_,
                 "INSERT INTO session_baselines(session_id, position, name, image) "
                 "VALUES(?, ?, ?, ?)");
  for (std::size_t i = 0; i < baseline.size(); ++i) {
    step.reset();
    step.bind(1, s.id).bind(2, static_cast<std::int64_t>(i)).bind(3, baseline[i].name);
    step.bind(4, baseline[i].image).run();
  }
  transaction.commit();
}

std::vector<StoredStep> SqliteStore::sessionBaseline(const std::string& sessionId) const {
  std::lock_guard lock(mutex_);
  Statement select(db_,
                   "SELECT name, image FROM session_baselines WHERE session_id = ? "
                   "ORDER BY position");
  select.bind(1, sessionId);
  std::vector<StoredStep> result;
  while (select.step()) {
    result.push_back({select.text(0), select.text(1)});
  }
  return result;
}

void SqliteStore::insertStep(const std::string& sessionId, const StepRecord& step) {
  Statement insert(db_,
                   "INSERT INTO steps(session_id, position, name, outcome, match_level, "
                   "baseline_image, current_image, diff_image, rejected, boxes) "
                   "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  insert.bind(1, sessionId).bind(2, std::int64_t{step.position}).bind(3, step.name);
  insert.bind(4, std::string(nameOf(step.outcome)))
      .bind(5, step.matchLevel)
      .bind(6, step.baselineImage);
  insert.bind(7, step.currentImage).bind(8, step.diffImage);
  insert.bind(9, std::int64_t{step.rejected}).bind(10, detail::boxesToJson(step.boxes)).run();
}

Store::Append SqliteStore::appendStep(const std::string& sessionId, const StepRecord& step,
                                      std::int64_t nowMs) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  Statement find(db_, "SELECT state, step_count FROM sessions WHERE id = ?");
  find.bind(1, sessionId);
  if (!find.step() || find.text(0) != "running") {
    return Append::NotRunning;
  }
  if (find.integer(1) != step.position) {
    return Append::PositionTaken;
  }
  insertStep(sessionId, step);
  Statement update(db_,
                   "UPDATE sessions SET step_count = step_count + 1, last_active_ms = ? "
                   "WHERE id = ?");
  update.bind(1, nowMs).bind(2, sessionId).run();
  transaction.commit();
  return Append::Appended;
}

void SqliteStore::completeStep(const std::string& sessionId, int position,
                               const std::string& diffImage, const std::vector<Rect>& boxes) {
  std::lock_guard lock(mutex_);
  Statement update(db_,
                   "UPDATE steps SET diff_image = ?, boxes = ? WHERE session_id = ? AND "
                   "position = ?");
  update.bind(1, diffImage).bind(2, detail::boxesToJson(boxes)).bind(3, sessionId);
  update.bind(4, std::int64_t{position}).run();
}

void SqliteStore::touchSession(const std::string& sessionId, std::int64_t nowMs) {
  std::lock_guard lock(mutex_);
  Statement update(db_,
                   "UPDATE sessions SET last_active_ms = MAX(last_active_ms, ?) "
                   "WHERE id = ? AND state = 'running'");
  update.bind(1, nowMs).bind(2, sessionId).run();
}

bool SqliteStore::finishSession(const std::string& sessionId, const SessionEnd& end) {
  // Every image the ended session names becomes durable with its verdict. Steps recorded
  // after this read fail the step count check below.
  std::vector<std::string> images = imagesOfSteps(sessionId);
  if (end.baseline) {
    const auto saved = imagesOf(*end.baseline);
    images.insert(images.end(), saved.begin(), saved.end());
  }
  syncImages(std::move(images));
  std::lock_guard lock(mutex_);
  Transaction transaction(db_, Sync::Durable);
  Statement find(db_,
                 "SELECT app, test, environment, branch FROM sessions WHERE id = ? AND "
                 "state = 'running' AND step_count = ?");
  find.bind(1, sessionId).bind(2, std::int64_t{end.expectedSteps});
  if (!find.step()) {
    return false;
  }
  for (const StepRecord& step : end.addedSteps) {
    insertStep(sessionId, step);
  }
  Statement update(db_,
                   "UPDATE sessions SET state = ?, status = ?, duration_ms = ?, expired = ?, "
                   "step_count = step_count + ? WHERE id = ?");
  update.bind(1, std::string(nameOf(end.state))).bind(2, end.status).bind(3, end.durationMs);
  update.bind(4, std::int64_t{end.expired});
  update.bind(5, static_cast<std::int64_t>(end.addedSteps.size())).bind(6, sessionId).run();
  if (end.baseline) {
    writeBaseline({find.text(0), find.text(1), find.text(2), find.text(3)}, *end.baseline,
                  sessionId);
  }
  transaction.commit();
  return true;
}

int SqliteStore::expireIdleSessions(std::int64_t idleSinceMs) {
  std::lock_guard lock(mutex_);
  Statement update(db_,
                   "UPDATE sessions SET state = 'aborted', status = 'Unresolved', expired = 1, "
                   "duration_ms = MAX(last_active_ms - started_ms, 0) "
                   "WHERE state = 'running' AND last_active_ms < ?");
  update.bind(1, idleSinceMs).run();
  return sqlite3_changes(db_);
}

bool SqliteStore::rejectSession(const std::string& sessionId, std::optional<int> position) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_, Sync::Durable);
  Statement find(db_, "SELECT 1 FROM sessions WHERE id = ? AND state = 'stopped'");
  find.bind(1, sessionId);
  if (!find.step()) {
    return false;
  }
  if (position) {
    Statement step(db_, "UPDATE steps SET rejected = 1 WHERE session_id = ? AND position = ?");
    step.bind(1, sessionId).bind(2, std::int64_t{*position}).run();
    if (sqlite3_changes(db_) == 0) {
      return false;
    }
  } else {
    Statement steps(db_, "UPDATE steps SET rejected = 1 WHERE session_id = ?");
    steps.bind(1, sessionId).run();
  }
  Statement mark(db_, "UPDATE sessions SET rejected = 1 WHERE id = ?");
  mark.bind(1, sessionId).run();
  transaction.commit();
  return true;
}

std::optional<SessionRecord> SqliteStore::findSession(const std::string& id) const {
  std::lock_guard lock(mutex_);
  const std::string sql = std::string("SELECT ") + kSessionColumns + " FROM sessions WHERE id = ?";
  Statement find(db_, sql.c_str());
  find.bind(1, id);
  if (!find.step()) {
    return std::nullopt;
  }
  return readSession(find);
}

std::vector<StepRecord> SqliteStore::steps(const std::string& sessionId) const {
  std::lock_guard lock(mutex_);
  const std::string sql =
      std::string("SELECT ") + kStepColumns + " FROM steps WHERE session_id = ? ORDER BY position";
  Statement select(db_, sql.c_str());
  select.bind(1, sessionId);
  std::vector<StepRecord> result;
  while (select.step()) {
    result.push_back(readStep(select));
  }
  return result;
}

std::optional<BatchRecord> SqliteStore::findBatch(const std::string& id) const {
  std::lock_guard lock(mutex_);
  Statement find(db_, "SELECT id, name, started_at, created_ms FROM batches WHERE id = ?");
  find.bind(1, id);
  if (!find.step()) {
    return std::nullopt;
  }
  return BatchRecord{find.text(0), find.text(1), find.text(2), find.integer(3)};
}

std::vector<BatchRecord> SqliteStore::recentBatches(int limit) const {
  std::lock_guard lock(mutex_);
  Statement select(db_,
                   "SELECT id, name, started_at, created_ms FROM batches "
                   "ORDER BY created_ms DESC, rowid DESC LIMIT ?");
  select.bind(1, std::int64_t{limit});
  std::vector<BatchRecord> result;
  while (select.step()) {
    result.push_back({select.text(0), select.text(1), select.text(2), select.integer(3)});
  }
  return result;
}

std::vector<SessionRecord> SqliteStore::sessionsOfBatch(const std::string& batchId) const {
  std::lock_guard lock(mutex_);
  const std::string sql = std::string("SELECT ") + kSessionColumns +
                          " FROM sessions WHERE batch_id = ? ORDER BY started_ms, rowid";
  Statement select(db_, sql.c_str());
  select.bind(1, batchId);
  std::vector<SessionRecord> result;
  while (select.step()) {
    result.push_back(readSession(select));
  }
  return result;
}

// Review state and the results pages' queries.

namespace {

// The filter of queryBatches as SQL: a batch matches when one of its sessions does.
constexpr const char* kBatchFilter =
    " FROM batches b WHERE EXISTS(SELECT 1 FROM sessions s WHERE s.batch_id = b.id AND "
    "(?1 = '' OR s.app = ?1) AND (?2 = '' OR s.branch = ?2))";

std::vector<std::string> column(sqlite3* db, const char* sql) {
  Statement select(db, sql);
  std::vector<std::string> values;
  while (select.step()) {
    values.push_back(select.text(0));
  }
  return values;
}

}  // namespace

SqliteStore::BatchList SqliteStore::queryBatches(const BatchQuery& query) const {
  std::lock_guard lock(mutex_);
  BatchList list;
  const std::string countSql = std::string("SELECT COUNT(*)") + kBatchFilter;
  Statement count(db_, countSql.c_str());
  count.bind(1, query.app).bind(2, query.branch);
  if (count.step()) {
    list.total = static_cast<int>(count.integer(0));
  }
  const std::string sql = std::string("SELECT b.id, b.name, b.started_at, b.created_ms") +
                          kBatchFilter +
                          " ORDER BY b.created_ms DESC, b.rowid DESC LIMIT ?3 OFFSET ?4";
  Statement select(db_, sql.c_str());
  select.bind(1, query.app).bind(2, query.branch);
  select.bind(3, std::int64_t{std::max(query.limit, 0)});
  select.bind(4, std::int64_t{std::max(query.offset, 0)});
  while (select.step()) {
    list.batches.push_back({select.text(0), select.text(1), select.text(2), select.integer(3)});
  }
  return list;
}

std::vector<std::string> SqliteStore::sessionApps() const {
  std::lock_guard lock(mutex_);
  return column(db_, "SELECT DISTINCT app FROM sessions ORDER BY app");
}

std::vector<std::string> SqliteStore::sessionBranches() const {
  std::lock_guard lock(mutex_);
  return column(db_, "SELECT DISTINCT branch FROM sessions ORDER BY branch");
}

}  // namespace lumo::server
