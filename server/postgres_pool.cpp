#include "postgres_pool.h"

#include <charconv>

namespace lumo::server::detail {
namespace {

std::string trimmed(const char* message) {
  std::string text = message ? message : "unknown error";
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

}  // namespace

PostgresParams& PostgresParams::text(std::string_view value) {
  values_.emplace_back(value);
  formats_.push_back(0);
  return *this;
}

PostgresParams& PostgresParams::integer(std::int64_t value) { return text(std::to_string(value)); }

PostgresParams& PostgresParams::boolean(bool value) { return text(value ? "t" : "f"); }

PostgresParams& PostgresParams::bytes(std::string_view value) {
  values_.emplace_back(value);
  formats_.push_back(1);
  return *this;
}

int PostgresResult::changed() const {
  const char* count = PQcmdTuples(result_.get());
  int n = 0;
  std::from_chars(count, count + std::char_traits<char>::length(count), n);
  return n;
}

std::string PostgresResult::text(int row, int column) const {
  return std::string(PQgetvalue(result_.get(), row, column),
                     static_cast<std::size_t>(PQgetlength(result_.get(), row, column)));
}

std::int64_t PostgresResult::integer(int row, int column) const {
  const char* value = PQgetvalue(result_.get(), row, column);
  std::int64_t n = 0;
  std::from_chars(value, value + PQgetlength(result_.get(), row, column), n);
  return n;
}

bool PostgresResult::boolean(int row, int column) const {
  return PQgetvalue(result_.get(), row, column)[0] == 't';
}

PostgresConnection::PostgresConnection(const std::string& url) {
  conn_ = PQconnectdb(url.c_str());
  if (PQstatus(conn_) != CONNECTION_OK) {
    const std::string message = trimmed(PQerrorMessage(conn_));
    PQfinish(conn_);
    throw PostgresError("cannot connect to PostgreSQL: " + message, "");
  }
  // Notices (such as "relation already exists, skipping") are not for the server's output.
  PQsetNoticeProcessor(
      conn_, [](void*, const char*) {}, nullptr);
}

PostgresConnection::~PostgresConnection() { PQfinish(conn_); }

bool PostgresConnection::healthy() const {
  return PQstatus(conn_) == CONNECTION_OK && PQtransactionStatus(conn_) == PQTRANS_IDLE;
}

PostgresResult PostgresConnection::check(PGresult* raw) {
  PostgresResult result(raw);
  const ExecStatusType status = PQresultStatus(raw);
  if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
    return result;
  }
  const char* state = raw ? PQresultErrorField(raw, PG_DIAG_SQLSTATE) : nullptr;
  const char* message = raw ? PQresultErrorMessage(raw) : PQerrorMessage(conn_);
  throw PostgresError("database error: " + trimmed(message), state ? state : "");
}

PostgresResult PostgresConnection::run(const char* sql, const PostgresParams& params,
                                       bool binaryRows) {
  std::vector<const char*> values;
  std::vector<int> lengths;
  for (const std::string& value : params.values_) {
    values.push_back(value.data());
    lengths.push_back(static_cast<int>(value.size()));
  }
  return check(PQexecParams(conn_, sql, static_cast<int>(values.size()), nullptr, values.data(),
                            lengths.data(), params.formats_.data(), binaryRows ? 1 : 0));
}

void PostgresConnection::script(const char* sql) { check(PQexec(conn_, sql)); }

PostgresPool::PostgresPool(std::string url, int capacity)
    : url_(std::move(url)), capacity_(capacity < 1 ? 1 : capacity) {}

PostgresPool::~PostgresPool() = default;

PostgresPool::Lease::~Lease() {
  if (connection_) {
    pool_->giveBack(std::move(connection_));
  }
}

PostgresPool::Lease PostgresPool::acquire() {
  std::unique_lock lock(mutex_);
  returned_.wait(lock, [this] { return !idle_.empty() || open_ < capacity_; });
  if (!idle_.empty()) {
    auto connection = std::move(idle_.back());
    idle_.pop_back();
    return Lease(*this, std::move(connection));
  }
  // Counted before connecting, so that waiting callers do not all open one at once.
  ++open_;
  lock.unlock();
  try {
    return Lease(*this, std::make_unique<PostgresConnection>(url_));
  } catch (...) {
    lock.lock();
    --open_;
    returned_.notify_one();
    throw;
  }
}

void PostgresPool::giveBack(std::unique_ptr<PostgresConnection> connection) {
  const bool keep = connection->healthy();
  if (!keep) {
    connection.reset();
  }
  std::lock_guard lock(mutex_);
  if (keep) {
    idle_.push_back(std::move(connection));
  } else {
    --open_;
  }
  returned_.notify_one();
}

}  // namespace lumo::server::detail
