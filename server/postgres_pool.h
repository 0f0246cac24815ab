#pragma once

#include <libpq-fe.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "lumo/server/store_records.h"

namespace lumo::server::detail {

// A statement the database refused; `sqlState` is its five-character SQLSTATE code ("40001"
// serialization failure, "40P01" deadlock, "23503" foreign key), empty when the connection
// itself failed.
class PostgresError : public StoreError {
 public:
  PostgresError(const std::string& message, std::string sqlState)
      : StoreError(message), sqlState_(std::move(sqlState)) {}
  const std::string& sqlState() const { return sqlState_; }
  // Running the whole transaction again may succeed.
  bool retryable() const { return sqlState_ == "40001" || sqlState_ == "40P01"; }

 private:
  std::string sqlState_;
};

// The parameters of one statement, all sent separately from its text: in text form, or in
// binary for bytes.
class PostgresParams {
 public:
  PostgresParams& text(std::string_view value);
  PostgresParams& integer(std::int64_t value);
  PostgresParams& boolean(bool value);
  PostgresParams& bytes(std::string_view value);

 private:
  friend class PostgresConnection;
  std::vector<std::string> values_;
  std::vector<int> formats_;
};

// The rows a statement returned.
class PostgresResult {
 public:
  explicit PostgresResult(PGresult* result) : result_(result, &PQclear) {}

  int rows() const { return PQntuples(result_.get()); }
  // Rows an UPDATE, INSERT or DELETE changed.
  int changed() const;
  std::string text(int row, int column) const;
  std::int64_t integer(int row, int column) const;
  bool boolean(int row, int column) const;

 private:
  std::unique_ptr<PGresult, decltype(&PQclear)> result_;
};

// One open connection, used by one caller at a time.
class PostgresConnection {
 public:
  // Connects with a libpq connection string or postgresql:// URL. Throws PostgresError.
  explicit PostgresConnection(const std::string& url);
  ~PostgresConnection();
  PostgresConnection(const PostgresConnection&) = delete;
  PostgresConnection& operator=(const PostgresConnection&) = delete;

  // Runs one statement; rows come back as text, or as binary with `binaryRows`. Throws
  // PostgresError.
  PostgresResult run(const char* sql, const PostgresParams& params = {}, bool binaryRows = false);
  // Runs statements without parameters, several at once if `sql` holds several.
  void script(const char* sql);
  // False once the connection was lost or was left inside a transaction; the pool then
  // closes it, which also rolls such a transaction back.
  bool healthy() const;

 private:
  PostgresResult check(PGresult* result);

  PGconn* conn_ = nullptr;
};

// At most `capacity` connections to one database, opened when first needed and kept for
// reuse; a caller beyond that waits for one to be returned. Thread-safe.
class PostgresPool {
 public:
  PostgresPool(std::string url, int capacity);
  ~PostgresPool();
  PostgresPool(const PostgresPool&) = delete;
  PostgresPool& operator=(const PostgresPool&) = delete;

  // A connection taken from the pool, given back when it goes out of scope (or closed, if it
  // was lost meanwhile).
  class Lease {
   public:
    Lease(PostgresPool& pool, std::unique_ptr<PostgresConnection> connection)
        : pool_(&pool), connection_(std::move(connection)) {}
    ~Lease();
    Lease(Lease&&) = default;
    Lease& operator=(Lease&&) = delete;
    PostgresConnection* operator->() const { return connection_.get(); }
    PostgresConnection& operator*() const { return *connection_; }

   private:
    PostgresPool* pool_;
    std::unique_ptr<PostgresConnection> connection_;
  };

  // Blocks while every connection is taken. Throws PostgresError when a new connection
  // cannot be opened.
  Lease acquire();

 private:
  void giveBack(std::unique_ptr<PostgresConnection> connection);

  const std::string url_;
  const int capacity_;
  std::mutex mutex_;
  std::condition_variable returned_;
  std::vector<std::unique_ptr<PostgresConnection>> idle_;
  int open_ = 0;  // connections idle or leased
};

}  // namespace lumo::server::detail
