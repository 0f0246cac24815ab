#include "lumo/server/baseline_store.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>

namespace lumo::server {
namespace {

constexpr const char* kSchema = R"sql(
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

constexpr const char* kSessionColumns =
    "id, batch_id, app, test, environment, branch, baseline_branch, start_info, started_at, "
    "started_ms, state, status, is_new, saved, duration_ms";

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

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

// BEGIN IMMEDIATE ... COMMIT, rolled back when left by an exception.
class Transaction {
 public:
  explicit Transaction(sqlite3* db) : db_(db) { exec(db_, "BEGIN IMMEDIATE"); }
  ~Transaction() {
    if (!done_) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  void commit() {
    exec(db_, "COMMIT");
    done_ = true;
  }

 private:
  sqlite3* db_;
  bool done_ = false;
};

SessionRecord readSession(const Statement& s) {
  SessionRecord r;
  r.id = s.text(0);
  r.batchId = s.text(1);
  r.key = {s.text(2), s.text(3), s.text(4), s.text(5)};
  r.baselineBranch = s.text(6);
  r.startInfo = s.text(7);
  r.startedAt = s.text(8);
  r.startedMs = s.integer(9);
  r.state = s.text(10);
  r.status = s.text(11);
  r.isNew = s.integer(12) != 0;
  r.saved = s.integer(13) != 0;
  r.durationMs = s.integer(14);
  return r;
}

std::string sha256Hex(std::string_view data) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    fail("cannot hash image");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

bool isHash(std::string_view text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

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

constexpr std::string_view kTempSuffix = ".tmp";

}  // namespace

BaselineStore::BaselineStore(const std::filesystem::path& dataDir) : dataDir_(dataDir) {
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
    exec(db_, "PRAGMA synchronous=FULL");
    exec(db_, "PRAGMA foreign_keys=ON");
    exec(db_, kSchema);
    // Stores made before steps kept their difference boxes gain the column.
    if (!Statement(db_, "SELECT 1 FROM pragma_table_info('steps') WHERE name = 'boxes'").step()) {
      exec(db_, "ALTER TABLE steps ADD COLUMN boxes TEXT NOT NULL DEFAULT '[]'");
    }
  } catch (...) {
    sqlite3_close(db_);
    throw;
  }
}

BaselineStore::~BaselineStore() { sqlite3_close(db_); }

std::filesystem::path BaselineStore::imagePath(std::string_view hash) const {
  return dataDir_ / "images" / std::string(hash.substr(0, 2)) / (std::string(hash) + ".png");
}

std::string BaselineStore::putImage(std::string_view png) {
  const std::string hash = sha256Hex(png);
  const std::filesystem::path path = imagePath(hash);
  std::error_code ec;
  if (std::filesystem::exists(path, ec)) {
    return hash;
  }
  std::filesystem::create_directories(path.parent_path(), ec);
  if (ec) {
    fail("cannot create " + path.parent_path().string() + ": " + ec.message());
  }
  // A unique temporary name: two sessions may store the same image at once.
  thread_local std::mt19937_64 random{std::random_device{}()};
  std::filesystem::path temp = path;
  temp += "." + std::to_string(random()) + std::string(kTempSuffix);
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    failErrno("cannot create", temp);
  }
  try {
    writeFully(fd, png, temp);
    if (::fsync(fd) != 0) {
      failErrno("cannot sync", temp);
    }
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
  syncPath(path.parent_path(), O_RDONLY | O_DIRECTORY);
  return hash;
}

std::optional<std::string> BaselineStore::readImage(std::string_view hash) const {
  if (!isHash(hash)) {
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

std::optional<std::vector<StoredStep>> BaselineStore::findBaseline(const BaselineKey& key) const {
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

void BaselineStore::saveBaseline(const BaselineKey& key, const std::vector<StoredStep>& steps,
                                 const std::string& sessionId) {
  for (const StoredStep& step : steps) {
    std::error_code ec;
    if (!isHash(step.image) || !std::filesystem::exists(imagePath(step.image), ec)) {
      fail("baseline image " + step.image + " is not stored");
    }
  }
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
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
  for (std::size_t i = 0; i < steps.size(); ++i) {
    Statement insert(db_,
                     "INSERT INTO baseline_steps(baseline_id, position, name, image) "
                     "VALUES(?, ?, ?, ?)");
    insert.bind(1, id).bind(2, static_cast<std::int64_t>(i)).bind(3, steps[i].name);
    insert.bind(4, steps[i].image).run();
  }
  Statement mark(db_, "UPDATE sessions SET saved = 1 WHERE id = ?");
  mark.bind(1, sessionId).run();
  transaction.commit();
}

void BaselineStore::addBatch(const BatchRecord& batch) {
  std::lock_guard lock(mutex_);
  Statement insert(db_,
                   "INSERT INTO batches(id, name, started_at, created_ms) VALUES(?, ?, ?, ?) "
                   "ON CONFLICT(id) DO NOTHING");
  insert.bind(1, batch.id).bind(2, batch.name).bind(3, batch.startedAt);
  insert.bind(4, batch.createdMs ? batch.createdMs : nowMs()).run();
}

void BaselineStore::addSession(const SessionRecord& s) {
  std::lock_guard lock(mutex_);
  Statement insert(db_,
                   "INSERT INTO sessions(id, batch_id, app, test, environment, branch, "
                   "baseline_branch, start_info, started_at, started_ms, state, status, is_new, "
                   "saved, duration_ms) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  insert.bind(1, s.id).bind(2, s.batchId).bind(3, s.key.app).bind(4, s.key.test);
  insert.bind(5, s.key.environment).bind(6, s.key.branch).bind(7, s.baselineBranch);
  insert.bind(8, s.startInfo).bind(9, s.startedAt).bind(10, s.startedMs).bind(11, s.state);
  insert.bind(12, s.status).bind(13, std::int64_t{s.isNew}).bind(14, std::int64_t{s.saved});
  insert.bind(15, s.durationMs).run();
}

void BaselineStore::addStep(const std::string& sessionId, const StepRecord& step) {
  std::lock_guard lock(mutex_);
  Statement insert(db_,
                   "INSERT INTO steps(session_id, position, name, outcome, match_level, "
                   "baseline_image, current_image, diff_image, boxes) "
                   "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)");
  insert.bind(1, sessionId).bind(2, std::int64_t{step.position}).bind(3, step.name);
  insert.bind(4, step.outcome).bind(5, step.matchLevel).bind(6, step.baselineImage);
  insert.bind(7, step.currentImage).bind(8, step.diffImage);
  insert.bind(9, step.boxes.empty() ? std::string_view("[]") : std::string_view(step.boxes)).run();
}

void BaselineStore::finishSession(const std::string& sessionId, const std::string& state,
                                  const std::string& status, std::int64_t durationMs) {
  std::lock_guard lock(mutex_);
  Statement update(db_, "UPDATE sessions SET state = ?, status = ?, duration_ms = ? WHERE id = ?");
  update.bind(1, state).bind(2, status).bind(3, durationMs).bind(4, sessionId).run();
}

std::optional<SessionRecord> BaselineStore::findSession(const std::string& id) const {
  std::lock_guard lock(mutex_);
  const std::string sql = std::string("SELECT ") + kSessionColumns + " FROM sessions WHERE id = ?";
  Statement find(db_, sql.c_str());
  find.bind(1, id);
  if (!find.step()) {
    return std::nullopt;
  }
  return readSession(find);
}

std::vector<StepRecord> BaselineStore::steps(const std::string& sessionId) const {
  std::lock_guard lock(mutex_);
  Statement select(db_,
                   "SELECT position, name, outcome, match_level, baseline_image, current_image, "
                   "diff_image, boxes FROM steps WHERE session_id = ? ORDER BY position");
  select.bind(1, sessionId);
  std::vector<StepRecord> result;
  while (select.step()) {
    result.push_back({static_cast<int>(select.integer(0)), select.text(1), select.text(2),
                      select.text(3), select.text(4), select.text(5), select.text(6),
                      select.text(7)});
  }
  return result;
}

std::optional<BatchRecord> BaselineStore::findBatch(const std::string& id) const {
  std::lock_guard lock(mutex_);
  Statement find(db_, "SELECT id, name, started_at, created_ms FROM batches WHERE id = ?");
  find.bind(1, id);
  if (!find.step()) {
    return std::nullopt;
  }
  return BatchRecord{find.text(0), find.text(1), find.text(2), find.integer(3)};
}

std::vector<BatchRecord> BaselineStore::recentBatches(int limit) const {
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

std::vector<SessionRecord> BaselineStore::sessionsOfBatch(const std::string& batchId) const {
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

}  // namespace lumo::server
