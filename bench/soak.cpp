// Soak: many visual tests at once through the client library against `lumo server` run as a
// child process on a loopback port, with the server killed (SIGKILL) once mid-run and started
// again on the same port and data directory. Checks that every test ends with a verdict or a
// clear error and never with a wrong verdict, that every baseline the clients saw committed
// is in the store whole and decodable, and that each server process's peak memory stays under
// a bound. Prints the counts, and a verdict line last; exits 1 when a check fails, 2 on the
// overall time-out.
//
//   soak [--clients 64] [--tests 10] [--checkpoints 5] [--screen 390x844] [--kill-at 0.5]
//        [--timeout 300] [--max-server-mb 1024] [--lumo PATH] [--keep]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lumo/batch_info.h"
#include "lumo/check_settings.h"
#include "lumo/error.h"
#include "lumo/exception.h"
#include "lumo/lumo.h"
#include "lumo/match_result.h"
#include "lumo/running_session.h"
#include "lumo/server/sqlite_store.h"
#include "lumo/system_log.h"
#include "lumo/test_failed_exception.h"
#include "lumo/test_results.h"
#include "lumo/wait_policy.h"
#include "platform/png.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kApp = "Soak";
constexpr const char* kEnvironment = "soak";
constexpr const char* kApiKey = "lumo-demo-key";
// Distinct test names per client: the first run of each is new, later runs pass or differ.
constexpr int kNamesPerClient = 4;

struct Options {
  int clients = 64;
  int tests = 10;
  int checkpoints = 5;
  int width = 390;  // a phone's screen in points, taken at one pixel a point
  int height = 844;
  double killAt = 0.5;  // share of all checkpoints answered before the kill
  int timeoutSeconds = 300;
  long maxServerMb = 1024;
  std::filesystem::path lumo;
  bool keep = false;
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---- The server as a child process --------------------------------------------------------

int freeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    close(fd);
    throw std::runtime_error("no free loopback port");
  }
  close(fd);
  return ntohs(address.sin_port);
}

bool accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

class ServerProcess {
 public:
  // Starts `lumo server` and returns once it accepts connections; throws when it cannot.
  ServerProcess(const Options& o, const std::filesystem::path& dataDir,
                const std::filesystem::path& log, int port)
      : port_(port) {
    // A port just left by a killed server may take a moment to bind again.
    for (int attempt = 0; attempt < 20; ++attempt) {
      if (spawn(o, dataDir, log) && waitUntilAccepting()) {
        return;
      }
      std::this_thread::sleep_for(250ms);
    }
    throw std::runtime_error("lumo server did not start; see " + log.string());
  }
  ~ServerProcess() { stop(SIGKILL); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // The process's peak resident memory so far (VmHWM), in kB; it dies with the process, so
  // it must be read before the process is ended.
  long peakKb() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("VmHWM:", 0) == 0) {
        return std::atol(line.c_str() + 6);
      }
    }
    return 0;
  }

  // Sends `signal` and reaps the process; a process that ignores SIGTERM for 10 s is killed.
  void stop(int signal) {
    if (pid_ <= 0) {
      return;
    }
    kill(pid_, signal);
    const auto deadline = Clock::now() + 10s;
    while (waitpid(pid_, nullptr, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        break;
      }
      std::this_thread::sleep_for(20ms);
    }
    pid_ = -1;
  }

 private:
  bool spawn(const Options& o, const std::filesystem::path& dataDir,
             const std::filesystem::path& log) {
    const std::string port = std::to_string(port_);
    const std::string data = dataDir.string();
    const std::string program = o.lumo.string();
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) {
      throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
      // The server must not outlive the soak, whatever ends it.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) {
        _exit(127);
      }
      if (!freopen(log.c_str(), "a", stdout) || !freopen(log.c_str(), "a", stderr)) {
        _exit(127);
      }
      execl(program.c_str(), program.c_str(), "server", "--host", "127.0.0.1", "--port",
            port.c_str(), "--data", data.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    return true;
  }

  bool waitUntilAccepting() {
    const auto deadline = Clock::now() + 15s;
    while (Clock::now() < deadline) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;  // it exited: the port is still taken, most likely
        return false;
      }
      if (accepts(port_)) {
        return true;
      }
      std::this_thread::sleep_for(20ms);
    }
    stop(SIGKILL);
    return false;
  }

  int port_;
  pid_t pid_ = -1;
};

// ---- Screens ------------------------------------------------------------------------------

void fill(lumo::Image& image, int left, int top, int width, int height, std::uint32_t rgb) {
  for (int y = std::max(top, 0); y < std::min(top + height, image.height()); ++y) {
    std::uint8_t* row = image.row(y);
    for (int x = std::max(left, 0); x < std::min(left + width, image.width()); ++x) {
      row[x * 4 + 0] = static_cast<std::uint8_t>(rgb >> 16);
      row[x * 4 + 1] = static_cast<std::uint8_t>(rgb >> 8);
      row[x * 4 + 2] = static_cast<std::uint8_t>(rgb);
      row[x * 4 + 3] = 255;
    }
  }
}

std::uint32_t colour(unsigned seed) {
  seed = seed * 2654435761u;
  return (seed >> 8) & 0xffffff;
}

// The screen of one checkpoint: what every client, test name and position shows, and with a
// variant other than 0 a block that makes it differ from variant 0 and from every other.
lumo::Image screen(const Options& o, int client, int name, int position, int variant) {
  lumo::Image image(o.width, o.height);
  fill(image, 0, 0, o.width, o.height, 0xf4f4f4);
  fill(image, 0, 0, o.width, 14, colour(static_cast<unsigned>(client) + 1));
  fill(image, 6, 20 + position * 6, o.width - 12, 30, colour(static_cast<unsigned>(name) + 101));
  for (int line = 0; line < 5; ++line) {
    const int length = 16 + (client * 7 + name * 13 + line * 29 + position * 5) % (o.width - 28);
    fill(image, 8, 70 + line * 11, length, 5, 0x404040);
  }
  if (variant != 0) {
    const int size = std::min(24, o.width / 3);
    fill(image, (variant * 17) % (o.width - size), o.height - size - 6, size, size,
         colour(static_cast<unsigned>(variant) + 1000) | 0x800000);
  }
  return image;
}

// ---- One client ---------------------------------------------------------------------------

enum class Outcome { Passed, New, Differences, Failed, Error };

// What a client knows of one of its test names' baseline: none, exactly these variants, or
// unknown since a run that may have saved could not say whether it did (or saved a part).
struct NameState {
  enum class Kind { None, Known, Unknown } kind = Kind::None;
  std::vector<int> baseline;
  std::vector<std::set<int>> sent;  // per position, every variant sent
  std::vector<int> last;
};

struct TestRecord {
  Outcome outcome = Outcome::Error;
  std::string error;
  int unanswered = 0;
  std::string wrong;  // why its verdict cannot be right; empty when it can
};

struct Progress {
  std::atomic<int> checkpoints{0};
  std::atomic<int> tests{0};
};

// The checkpoint being made: every capture of one check shows the same screen.
class CurrentScreen : public lumo::ScreenshotSource {
 public:
  void set(lumo::ImagePtr image) {
    std::lock_guard lock(mutex_);
    image_ = std::move(image);
  }
  lumo::ImagePtr capture() override {
    std::lock_guard lock(mutex_);
    return image_;
  }

 private:
  std::mutex mutex_;
  lumo::ImagePtr image_;
};

// Answers are awaited for 30 s instead of 60: a server that was killed resets its
// connections at once, so only a stuck one would take that long.
class SoakWaitPolicy : public lumo::WaitPolicy {
 public:
  double serverAnswerSeconds() const override { return 30; }
};

std::string testName(int client, int name) {
  return "client" + std::to_string(client) + "-screen" + std::to_string(name);
}

class Client {
 public:
  Client(const Options& o, int index, std::string serverUrl, Progress& progress)
      : o_(o), index_(index), url_(std::move(serverUrl)), progress_(progress) {
    names_.resize(kNamesPerClient);
    for (NameState& state : names_) {
      state.sent.resize(static_cast<std::size_t>(o.checkpoints));
      state.last.assign(static_cast<std::size_t>(o.checkpoints), 0);
    }
  }

  void run() {
    auto source = std::make_shared<CurrentScreen>();
    lumo::Lumo lumo(url_, source);
    lumo.setApiKey(kApiKey);
    lumo.setBatch(std::make_shared<lumo::BatchInfo>("Soak client " + std::to_string(index_)));
    lumo.setBaselineEnvName(kEnvironment);
    lumo.setMatchTimeout(0);
    // Half the clients take a test with differences as the new baseline, so that baselines
    // are replaced as well as created while the server is killed.
    lumo.setSaveFailedTests(index_ % 2 == 1);
    lumo.setWaitPolicy(std::make_shared<SoakWaitPolicy>());
    for (int t = 0; t < o_.tests; ++t) {
      records_.push_back(runTest(lumo, *source, t));
      ++progress_.tests;
      // A CI job whose test failed does not start the next one within microseconds; without
      // the pause a client would spend several tests on one outage of half a second.
      if (records_.back().outcome == Outcome::Error) {
        std::this_thread::sleep_for(1s);
      }
    }
  }

  const std::vector<TestRecord>& records() const { return records_; }
  const std::vector<NameState>& names() const { return names_; }

 private:
  // The screens of run `t`: a new test's plain screens, a rerun's previous screens, or every
  // third rerun one screen changed in a way no earlier run showed.
  std::vector<int> variantsOf(int t, const NameState& state) const {
    if (t < kNamesPerClient) {
      return std::vector<int>(static_cast<std::size_t>(o_.checkpoints), 0);
    }
    std::vector<int> variants = state.kind == NameState::Kind::Known ? state.baseline : state.last;
    if ((index_ + t) % 3 == 0) {
      variants[static_cast<std::size_t>((index_ + t) % o_.checkpoints)] = t + 1;
    }
    return variants;
  }

  TestRecord runTest(lumo::Lumo& lumo, CurrentScreen& source, int t) {
    const int name = t % kNamesPerClient;
    NameState& state = names_[static_cast<std::size_t>(name)];
    const std::vector<int> variants = variantsOf(t, state);
    state.last = variants;
    for (int k = 0; k < o_.checkpoints; ++k) {
      state.sent[static_cast<std::size_t>(k)].insert(variants[static_cast<std::size_t>(k)]);
    }

    TestRecord record;
    // Checkpoints a failed test never made count as done, so that the kill still comes.
    int made = 0;
    struct Done {
      Progress& progress;
      const int& made;
      int all;
      ~Done() { progress.checkpoints += all - made; }
    } done{progress_, made, o_.checkpoints};
    bool started = false;
    bool isNewSession = false;
    std::vector<int> mismatched;
    std::shared_ptr<lumo::TestResults> results;
    try {
      lumo.open(kApp, testName(index_, name),
                {static_cast<double>(o_.width), static_cast<double>(o_.height)});
      lumo.ensureRunningSession();
      const auto session = lumo.runningSession();
      if (!session || !session->sessionId()) {
        lumo.abortIfNotClosed();
        record.error = "the session did not start";
        return record;
      }
      started = true;
      isNewSession = session->isNewSession();
      for (int k = 0; k < o_.checkpoints; ++k) {
        source.set(std::make_shared<const lumo::Image>(
            screen(o_, index_, name, k, variants[static_cast<std::size_t>(k)])));
        const auto result =
            lumo.check("p" + std::to_string(k), lumo::CheckSettings().timeoutInSeconds(0));
        ++made;
        ++progress_.checkpoints;
        if (!result) {
          ++record.unanswered;
        } else if (!result->asExpected()) {
          mismatched.push_back(k);
        }
      }
      // Close hands back the earlier results when the stop got no verdict.
      const auto earlier = lumo.testResult();
      lumo::Error error;
      results = lumo.closeWithThrow(false, &error);
      if (!results || results == earlier) {
        results = nullptr;
        record.error = "the stop got no verdict";
      }
    } catch (const lumo::TestFailedException& e) {
      lumo.abortIfNotClosed();
      record.error = "timed out: " + e.reason();
    } catch (const std::exception& e) {
      lumo.abortIfNotClosed();
      record.error = e.what();
    }
    if (!started && record.error.empty()) {
      record.error = "the session did not start";
    }
    const bool save = isNewSession ? lumo.saveNewTests() : lumo.saveFailedTests();
    if (!results) {
      // A stop that got no verdict may still have been committed, baseline and all.
      if (started && save) {
        state.kind = NameState::Kind::Unknown;
      }
      return record;
    }
    if (results->status() == lumo::TestResultsStatusPassed) {
      record.outcome = Outcome::Passed;
    } else if (results->status() == lumo::TestResultsStatusFailed) {
      record.outcome = Outcome::Failed;
    } else {
      record.outcome = results->isNew() ? Outcome::New : Outcome::Differences;
    }
    judge(record, state, variants, isNewSession, mismatched, *results);

    const bool clean = record.unanswered == 0;
    const bool saved =
        (record.outcome == Outcome::New || record.outcome == Outcome::Differences) && save;
    if ((saved || record.outcome == Outcome::Passed) && clean) {
      state.kind = NameState::Kind::Known;
      state.baseline = variants;
    } else if (saved) {
      // Only the checkpoints the server recorded were saved.
      state.kind = NameState::Kind::Unknown;
    }
    return record;
  }

  // Notes in `record.wrong` a verdict the screens cannot have earned.
  void judge(TestRecord& record, const NameState& state, const std::vector<int>& variants,
             bool isNewSession, const std::vector<int>& mismatched,
             const lumo::TestResults& results) const {
    const bool known = state.kind == NameState::Kind::Known;
    const bool differs = known && variants != state.baseline;
    const bool clean = record.unanswered == 0;
    auto wrong = [&](std::string why) {
      if (record.wrong.empty()) {
        record.wrong = std::move(why);
      }
    };
    if (known && (isNewSession || record.outcome == Outcome::New)) {
      wrong("a test with a committed baseline started as new");
    }
    if (state.kind == NameState::Kind::None && !isNewSession) {
      wrong("a test that never saved a baseline found one");
    }
    if (differs && record.outcome == Outcome::Passed) {
      wrong("a test with a difference passed");
    }
    if (!clean) {
      return;
    }
    if (record.outcome == Outcome::Passed && results.steps() != o_.checkpoints) {
      wrong("passed with " + std::to_string(results.steps()) + " steps");
    }
    if (isNewSession && record.outcome != Outcome::New) {
      wrong("a new session did not end as a new test");
    }
    if (known && !isNewSession) {
      if (record.outcome != (differs ? Outcome::Differences : Outcome::Passed)) {
        wrong(differs ? "a test with a difference did not end with differences"
                      : "an unchanged test did not pass");
      }
      std::vector<int> expected;
      for (int k = 0; k < o_.checkpoints; ++k) {
        if (variants[static_cast<std::size_t>(k)] != state.baseline[static_cast<std::size_t>(k)]) {
          expected.push_back(k);
        }
      }
      if (mismatched != expected) {
        wrong("a checkpoint's answer did not match its screen");
      }
    } else if (isNewSession && !mismatched.empty()) {
      wrong("a new test's checkpoint did not match");
    }
  }

  const Options& o_;
  int index_;
  std::string url_;
  Progress& progress_;
  std::vector<NameState> names_;
  std::vector<TestRecord> records_;
};

// ---- The store after the run --------------------------------------------------------------

struct BaselineCounts {
  int checked = 0;
  int exact = 0;      // committed as a client saw it, compared image by image
  int uncertain = 0;  // a run that may have saved did not say; each image still checked
  int lost = 0;
  int corrupted = 0;
  std::vector<std::string> problems;
};

void checkBaselines(const Options& o, const std::filesystem::path& dataDir,
                    const std::vector<std::unique_ptr<Client>>& clients, BaselineCounts& counts) {
  lumo::server::SqliteStore store(dataDir);
  for (std::size_t c = 0; c < clients.size(); ++c) {
    const int client = static_cast<int>(c);
    for (int name = 0; name < kNamesPerClient; ++name) {
      const NameState& state = clients[c]->names()[static_cast<std::size_t>(name)];
      const std::string test = testName(client, name);
      const auto steps = store.findBaseline({kApp, test, kEnvironment, "default"});
      auto problem = [&](int& counter, const std::string& what) {
        ++counter;
        if (counts.problems.size() < 10) {
          counts.problems.push_back(test + ": " + what);
        }
      };
      if (state.kind == NameState::Kind::None) {
        if (steps) {
          problem(counts.corrupted, "a baseline no client saved");
        }
        continue;
      }
      ++counts.checked;
      ++(state.kind == NameState::Kind::Known ? counts.exact : counts.uncertain);
      if (!steps) {
        if (state.kind == NameState::Kind::Known) {
          problem(counts.lost, "its baseline is missing");
        }
        continue;
      }
      if (state.kind == NameState::Kind::Known &&
          steps->size() != static_cast<std::size_t>(o.checkpoints)) {
        problem(counts.lost, "its baseline has " + std::to_string(steps->size()) + " steps");
        continue;
      }
      for (std::size_t i = 0; i < steps->size(); ++i) {
        const lumo::server::StoredStep& step = (*steps)[i];
        const auto bytes = store.readImage(step.image);
        if (!bytes) {
          problem(counts.lost, "the image of step " + step.name + " is missing");
          break;
        }
        lumo::Image image;
        try {
          image = lumo::decodePng(
              std::span(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size()));
        } catch (const std::exception& e) {
          problem(counts.corrupted, "the image of step " + step.name + " does not decode");
          break;
        }
        const int position = step.name.size() > 1 ? std::atoi(step.name.c_str() + 1) : -1;
        std::set<int> candidates;
        if (state.kind == NameState::Kind::Known) {
          candidates.insert(state.baseline[i]);
          if (step.name != "p" + std::to_string(i)) {
            problem(counts.lost, "step " + std::to_string(i) + " is named " + step.name);
            break;
          }
        } else if (position >= 0 && position < o.checkpoints) {
          candidates = state.sent[static_cast<std::size_t>(position)];
        }
        const bool matches = std::any_of(candidates.begin(), candidates.end(), [&](int variant) {
          return image == screen(o, client, name, position, variant);
        });
        if (!matches) {
          problem(state.kind == NameState::Kind::Known ? counts.lost : counts.corrupted,
                  "step " + step.name + " holds an image no client sent there");
          break;
        }
      }
    }
  }
}

// ---- Main ---------------------------------------------------------------------------------

Options parse(int argc, char** argv) {
  Options o;
#ifdef LUMO_COMMAND
  o.lumo = LUMO_COMMAND;
#endif
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const bool hasValue = i + 1 < argc;
    auto number = [&] { return std::atof(argv[++i]); };
    if (arg == "--keep") {
      o.keep = true;
    } else if (hasValue && arg == "--clients") {
      o.clients = static_cast<int>(number());
    } else if (hasValue && arg == "--tests") {
      o.tests = static_cast<int>(number());
    } else if (hasValue && arg == "--checkpoints") {
      o.checkpoints = static_cast<int>(number());
    } else if (hasValue && arg == "--kill-at") {
      o.killAt = number();
    } else if (hasValue && arg == "--timeout") {
      o.timeoutSeconds = static_cast<int>(number());
    } else if (hasValue && arg == "--max-server-mb") {
      o.maxServerMb = static_cast<long>(number());
    } else if (hasValue && arg == "--lumo") {
      o.lumo = argv[++i];
    } else if (hasValue && arg == "--screen" &&
               std::sscanf(argv[i + 1], "%dx%d", &o.width, &o.height) == 2) {
      ++i;
    } else {
      throw std::invalid_argument("unknown or incomplete option " + std::string(arg));
    }
  }
  if (o.clients < 1 || o.tests < 1 || o.checkpoints < 1 || o.width < 48 || o.height < 140 ||
      o.killAt < 0 || o.killAt > 1 || o.timeoutSeconds < 1 || o.lumo.empty()) {
    throw std::invalid_argument(
        "expected positive counts, a screen of at least 48x140, --kill-at from 0 to 1 and the "
        "lumo command (--lumo PATH)");
  }
  return o;
}

// Library log lines that say a request failed, counted by their message.
class FailureLog {
 public:
  FailureLog() {
    lumo::setSystemLogSink([this](std::string_view line) {
      for (const std::string_view prefix :
           {"Failed to check: ", "Failed to start session: ", "Failed to abort server session: "}) {
        if (const auto at = line.find(prefix); at != std::string_view::npos) {
          // "<prefix><method> <url> failed: <reason>": the URL names a session, so it goes.
          std::string_view reason = line.substr(at + prefix.size());
          if (const auto failed = reason.find(" failed: "); failed != std::string_view::npos) {
            reason.remove_prefix(failed + 9);
          }
          // "after 16 ms" and "after 0 ms" are the same failure.
          const std::string text = std::regex_replace(std::string(reason), milliseconds_, "N ms");
          std::lock_guard lock(mutex_);
          ++counts_[std::string(prefix) + text];
        }
      }
    });
  }
  ~FailureLog() { lumo::setSystemLogSink(nullptr); }
  FailureLog(const FailureLog&) = delete;
  FailureLog& operator=(const FailureLog&) = delete;

  std::map<std::string, int> counts() const {
    std::lock_guard lock(mutex_);
    return counts_;
  }

 private:
  const std::regex milliseconds_{"[0-9]+ ms"};
  mutable std::mutex mutex_;
  std::map<std::string, int> counts_;
};

int soak(const Options& o) {
  const auto start = Clock::now();
  std::string pattern = (std::filesystem::temp_directory_path() / "lumo-soak-XXXXXX").string();
  if (!mkdtemp(pattern.data())) {
    throw std::runtime_error("cannot make a temporary directory");
  }
  const std::filesystem::path work = pattern;
  const std::filesystem::path dataDir = work / "data";
  const std::filesystem::path log = work / "server.log";
  const int port = freeLoopbackPort();
  const std::string url = "http://127.0.0.1:" + std::to_string(port);

  auto server = std::make_unique<ServerProcess>(o, dataDir, log, port);
  std::atomic<bool> finished{false};
  // The overall bound: a stuck client or server ends the soak, not the CI job's patience.
  std::thread watchdog([&] {
    const auto deadline = start + std::chrono::seconds(o.timeoutSeconds);
    while (!finished && Clock::now() < deadline) {
      std::this_thread::sleep_for(100ms);
    }
    if (!finished) {
      std::printf("soak: timed out after %d s; data and server log kept in %s\n", o.timeoutSeconds,
                  work.c_str());
      std::fflush(stdout);
      // The server child gets SIGKILL as the soak ends (its parent-death signal).
      _exit(2);
    }
  });

  FailureLog failures;
  Progress progress;
  std::vector<std::unique_ptr<Client>> clients;
  for (int c = 0; c < o.clients; ++c) {
    clients.push_back(std::make_unique<Client>(o, c, url, progress));
  }
  std::vector<std::thread> threads;
  for (auto& client : clients) {
    threads.emplace_back([&client] { client->run(); });
  }

  const int total = o.clients * o.tests * o.checkpoints;
  const int killAfter = static_cast<int>(o.killAt * total);
  while (progress.checkpoints < killAfter && progress.tests < o.clients * o.tests) {
    std::this_thread::sleep_for(5ms);
  }
  const int atKill = progress.checkpoints;
  const long firstPeakKb = server->peakKb();
  server->stop(SIGKILL);
  const auto killedAt = Clock::now();
  server = std::make_unique<ServerProcess>(o, dataDir, log, port);
  const double outage = secondsSince(killedAt);

  for (std::thread& thread : threads) {
    thread.join();
  }
  const long secondPeakKb = server->peakKb();
  server->stop(SIGTERM);
  BaselineCounts baselines;
  checkBaselines(o, dataDir, clients, baselines);
  finished = true;
  watchdog.join();
  if (!o.keep) {
    std::error_code ec;
    std::filesystem::remove_all(work, ec);
  }
  const double duration = secondsSince(start);

  std::map<Outcome, int> outcomes;
  std::map<std::string, int> errors;
  std::map<std::string, int> wrongs;
  int unansweredCheckpoints = 0;
  int testsWithUnanswered = 0;
  int tests = 0;
  for (const auto& client : clients) {
    for (const TestRecord& r : client->records()) {
      ++tests;
      ++outcomes[r.outcome];
      if (r.outcome == Outcome::Error) {
        ++errors[r.error.empty() ? std::string("(no message)") : r.error];
      }
      if (!r.wrong.empty()) {
        ++wrongs[r.wrong];
      }
      unansweredCheckpoints += r.unanswered;
      testsWithUnanswered += r.unanswered > 0;
    }
  }
  const auto unclear = errors.find("(no message)");
  const int clearErrors =
      outcomes[Outcome::Error] - (unclear == errors.end() ? 0 : unclear->second);
  const int ended = outcomes[Outcome::Passed] + outcomes[Outcome::New] +
                    outcomes[Outcome::Differences] + outcomes[Outcome::Failed] + clearErrors;
  int wrongCount = 0;
  for (const auto& [why, n] : wrongs) {
    wrongCount += n;
  }
  const long peakMb = std::max(firstPeakKb, secondPeakKb) / 1024;

  std::printf("soak: %d clients x %d tests x %d checkpoints of %dx%d px against %s\n", o.clients,
              o.tests, o.checkpoints, o.width, o.height, url.c_str());
  std::printf("server killed (SIGKILL) after %d of %d checkpoints, accepting again %.2f s later\n",
              atKill, total, outage);
  std::printf("verdicts: %d passed, %d new, %d differences, %d failed; %d errors\n",
              outcomes[Outcome::Passed], outcomes[Outcome::New], outcomes[Outcome::Differences],
              outcomes[Outcome::Failed], outcomes[Outcome::Error]);
  for (const auto& [message, n] : errors) {
    std::printf("  error x%d: %s\n", n, message.c_str());
  }
  std::printf("checkpoints without an answer: %d, in %d tests\n", unansweredCheckpoints,
              testsWithUnanswered);
  for (const auto& [message, n] : failures.counts()) {
    std::printf("  client log x%d: %s\n", n, message.c_str());
  }
  std::printf("wrong verdicts: %d\n", wrongCount);
  for (const auto& [why, n] : wrongs) {
    std::printf("  wrong x%d: %s\n", n, why.c_str());
  }
  std::printf(
      "baselines: %d checked (%d as the clients saw them committed, %d uncertain after the "
      "kill): %d lost, %d corrupted\n",
      baselines.checked, baselines.exact, baselines.uncertain, baselines.lost, baselines.corrupted);
  for (const std::string& p : baselines.problems) {
    std::printf("  %s\n", p.c_str());
  }
  std::printf("server peak memory (VmHWM): %ld MB before the kill, %ld MB after (bound %ld MB)\n",
              firstPeakKb / 1024, secondPeakKb / 1024, o.maxServerMb);
  std::printf("duration: %.1f s\n", duration);

  const bool ok = ended == tests && wrongCount == 0 && baselines.lost == 0 &&
                  baselines.corrupted == 0 && peakMb < o.maxServerMb && firstPeakKb > 0 &&
                  secondPeakKb > 0;
  if (o.keep) {
    std::printf("data and server log kept in %s\n", work.c_str());
  }
  std::printf(
      "soak: %d tests, %d with a verdict or a clear error, %d wrong verdicts, %d baselines lost, "
      "%d corrupted, server peak %ld MB: %s\n",
      tests, ended, wrongCount, baselines.lost, baselines.corrupted, peakMb, ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  // A write to a connection the killed server reset must not end the soak.
  signal(SIGPIPE, SIG_IGN);
  try {
    return soak(parse(argc, argv));
  } catch (const std::exception& e) {
    std::printf("soak: cannot run: %s\n", e.what());
    return 1;
  }
}
