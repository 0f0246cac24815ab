#include "postgres_cluster.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace lumo::test {
namespace {

// Who runs the cluster's programs; nullopt: ourselves.
struct Account {
  uid_t uid;
  gid_t gid;
};

std::optional<Account> unprivilegedAccount() {
  if (geteuid() != 0) {
    return std::nullopt;
  }
  for (const char* name : {"postgres", "nobody"}) {
    if (const passwd* entry = getpwnam(name)) {
      return Account{entry->pw_uid, entry->pw_gid};
    }
  }
  throw std::runtime_error("running as root, and neither user postgres nor nobody exists");
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs a program as `account`, in `directory`, its output appended to `log`; returns its
// exit status. Everything the child needs is prepared before the fork: it may only make
// system calls until it execs.
int run(const std::vector<std::string>& argv, const std::optional<Account>& account,
        const std::filesystem::path& directory, const std::filesystem::path& log) {
  std::vector<char*> args;
  for (const std::string& arg : argv) {
    args.push_back(const_cast<char*>(arg.c_str()));
  }
  args.push_back(nullptr);
  const std::string dir = directory.string();
  const std::string logFile = log.string();
  const pid_t child = fork();
  if (child < 0) {
    throw std::runtime_error("fork failed");
  }
  if (child == 0) {
    if (account &&
        (setgroups(0, nullptr) != 0 || setgid(account->gid) != 0 || setuid(account->uid) != 0)) {
      _exit(126);
    }
    const int out = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int in = ::open("/dev/null", O_RDONLY);
    if (out < 0 || in < 0 || chdir(dir.c_str()) != 0) {
      _exit(126);
    }
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    // The server outlives this child: it must not hold the test program's sockets or files.
    close_range(3, ~0U, 0);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

constexpr const char* kUser = "lumo";
constexpr const char* kPrefix = "lumo-pg-";

// A program that crashed left its cluster running: stop and remove the clusters of
// programs that are gone, so that a crash costs one stray server until the next run.
void removeOrphans(const std::filesystem::path& binDir, const std::optional<Account>& account) {
  std::error_code ec;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::temp_directory_path(), ec)) {
    if (!entry.path().filename().string().starts_with(kPrefix)) {
      continue;
    }
    const int owner = std::atoi(readFile(entry.path() / "owner").c_str());
    if (owner <= 0 || ::kill(owner, 0) == 0 || errno != ESRCH) {
      continue;
    }
    if (std::filesystem::exists(entry.path() / "data" / "postmaster.pid", ec)) {
      run({(binDir / "pg_ctl").string(), "stop", "-w", "-m", "immediate", "-D",
           (entry.path() / "data").string()},
          account, entry.path(), entry.path() / "server.log");
    }
    std::filesystem::remove_all(entry.path(), ec);
  }
}

}  // namespace

std::optional<std::filesystem::path> PostgresCluster::findBinDir() {
  auto complete = [](const std::filesystem::path& dir) {
    std::error_code ec;
    return std::ranges::all_of(
        std::initializer_list<const char*>{"initdb", "pg_ctl", "createdb"},
        [&](const char* program) { return std::filesystem::exists(dir / program, ec); });
  };
  if (const char* configured = std::getenv("LUMO_POSTGRES_BIN")) {
    return complete(configured) ? std::optional<std::filesystem::path>(configured) : std::nullopt;
  }
  std::optional<std::filesystem::path> best;
  int bestVersion = -1;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ec)) {
    const int version = std::atoi(entry.path().filename().c_str());
    if (version > bestVersion && complete(entry.path() / "bin")) {
      best = entry.path() / "bin";
      bestVersion = version;
    }
  }
  return best;
}

std::string PostgresCluster::skipReason() {
  return "PostgreSQL is not installed (no initdb and pg_ctl under /usr/lib/postgresql/*/bin or "
         "LUMO_POSTGRES_BIN): install Debian's postgresql package to run these tests";
}

PostgresCluster* PostgresCluster::shared() {
  struct Shared {
    std::unique_ptr<PostgresCluster> cluster;
    std::string error;
  };
  // Started once: a failed start is reported to every caller, never tried again.
  static Shared* const shared = [] {
    static Shared s;
    if (const auto binDir = findBinDir()) {
      try {
        s.cluster = std::make_unique<PostgresCluster>(*binDir, Options{});
      } catch (const std::exception& e) {
        s.error = e.what();
      }
    }
    return &s;
  }();
  if (!shared->error.empty()) {
    throw std::runtime_error(shared->error);
  }
  return shared->cluster.get();
}

PostgresCluster::PostgresCluster(const std::filesystem::path& binDir, Options options)
    : binDir_(binDir), ownerPid_(getpid()) {
  const auto started = std::chrono::steady_clock::now();
  const auto account = unprivilegedAccount();
  removeOrphans(binDir, account);
  std::string pattern =
      (std::filesystem::temp_directory_path() / (std::string(kPrefix) + "XXXXXX")).string();
  if (!mkdtemp(pattern.data())) {
    throw std::runtime_error("mkdtemp failed");
  }
  root_ = pattern;
  std::ofstream(root_ / "owner") << getpid() << "\n";
  if (account && chown(root_.c_str(), account->uid, account->gid) != 0) {
    std::filesystem::remove_all(root_);
    throw std::runtime_error("cannot hand " + root_.string() + " to the cluster's user");
  }
  const std::filesystem::path data = root_ / "data";
  const std::filesystem::path log = root_ / "server.log";
  auto fail = [&](const std::string& what) {
    const std::string text = readFile(log);
    std::filesystem::remove_all(root_);
    throw std::runtime_error("PostgreSQL test cluster: " + what + "\n" + text);
  };
  if (run({(binDir / "initdb").string(), "-D", data.string(), "-U", kUser, "--auth=trust", "-E",
           "UTF8", "--no-locale", "--no-sync", "--no-instructions"},
          account, root_, log) != 0) {
    fail("initdb failed");
  }
  // No TCP at all: one socket in our own directory, so no port is taken or raced for.
  const std::string serverOptions =
      fmt::format("-c listen_addresses='' -c unix_socket_directories={} -c max_connections={}{}",
                  root_.string(), options.maxConnections,
                  options.fsync ? "" : " -c fsync=off -c full_page_writes=off");
  if (run({(binDir / "pg_ctl").string(), "start", "-w", "-t", "60", "-D", data.string(), "-l",
           log.string(), "-o", serverOptions},
          account, root_, log) != 0) {
    fail("pg_ctl start failed");
  }
  running_ = true;
  startSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

PostgresCluster::~PostgresCluster() {
  // A forked child that exits must not stop its parent's cluster.
  if (getpid() != ownerPid_) {
    return;
  }
  if (running_) {
    run({(binDir_ / "pg_ctl").string(), "stop", "-w", "-m", "immediate", "-D",
         (root_ / "data").string()},
        unprivilegedAccount(), root_, root_ / "server.log");
  }
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
}

std::string PostgresCluster::url(const std::string& database) const {
  return fmt::format("postgresql://{}@/{}?host={}", kUser, database, root_.string());
}

std::string PostgresCluster::database(const std::string& name) {
  const bool plain = !name.empty() && std::ranges::all_of(name, [](unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '_';
  });
  if (!plain) {
    throw std::invalid_argument("a test database name of letters, digits, - and _: " + name);
  }
  // Serialised: CREATE DATABASE copies a template that must have no other users.
  static std::mutex creating;
  std::lock_guard lock(creating);
  if (created_.insert(name).second &&
      run({(binDir_ / "createdb").string(), "-h", root_.string(), "-U", kUser, name},
          unprivilegedAccount(), root_, root_ / "server.log") != 0) {
    created_.erase(name);
    throw std::runtime_error("cannot create test database " + name + ":\n" +
                             readFile(root_ / "server.log"));
  }
  return url(name);
}

}  // namespace lumo::test
