#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace lumo::test {

// A throwaway PostgreSQL cluster from the installed server programs: initdb and pg_ctl on a
// fresh temporary directory, listening on a Unix socket in that directory only, trusting every
// local connection. Run as root, it runs the server as the unprivileged `postgres` user (which
// Debian's package creates) or else `nobody`, since PostgreSQL refuses root. Stopped and
// removed with the object, by the process that started it.
class PostgresCluster {
 public:
  struct Options {
    // Skip syncing to disk: faster, and a test cluster need not survive a power cut.
    bool fsync = false;
    int maxConnections = 200;
  };

  // Starts the cluster; throws std::runtime_error, with the server's log, when it cannot.
  explicit PostgresCluster(const std::filesystem::path& binDir, Options options);
  ~PostgresCluster();
  PostgresCluster(const PostgresCluster&) = delete;
  PostgresCluster& operator=(const PostgresCluster&) = delete;

  // The directory of the installed initdb and pg_ctl (the newest version under
  // /usr/lib/postgresql, or LUMO_POSTGRES_BIN); nullopt when PostgreSQL is not installed.
  static std::optional<std::filesystem::path> findBinDir();

  // The cluster this test program shares, started on first use: one start per run, however
  // many tests use it. Null when PostgreSQL is not installed (see skipReason); throws when
  // it is installed but does not start.
  static PostgresCluster* shared();
  static std::string skipReason();

  // A URL for database `name` (letters, digits, '-' and '_'), created empty on first use; the
  // same name gives the same database. Thread-safe.
  std::string database(const std::string& name);

  // How long initdb and the start took, in seconds.
  double startSeconds() const { return startSeconds_; }

 private:
  std::string url(const std::string& database) const;

  std::filesystem::path binDir_;
  std::filesystem::path root_;
  double startSeconds_ = 0;
  int ownerPid_ = 0;
  bool running_ = false;
  std::set<std::string> created_;
};

}  // namespace lumo::test
