#include "lumo/server/store.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>

#include "lumo/server/postgres_store.h"
#include "lumo/server/sqlite_store.h"
#include "server_fixture.h"
#include "support/postgres_cluster.h"

namespace lumo::test {
namespace {

using namespace lumo::server;
using lumo::test::PostgresCluster;

// One backend under test: opens (or reopens) the store whose data is under a directory (for
// PostgreSQL: in a database named after it, on the test program's cluster, when there is one).
struct Backend {
  std::string name;
  std::function<std::unique_ptr<Store>(const std::filesystem::path&)> open;
  bool needsCluster = false;
};

// ctest lists each case by its backend's name rather than its bytes (GoogleTest's spelling).
// NOLINTNEXTLINE(readability-identifier-naming)
void PrintTo(const Backend& backend, std::ostream* out) { *out << backend.name; }

const Backend kSqlite{
    "Sqlite", [](const std::filesystem::path& dir) { return std::make_unique<SqliteStore>(dir); }};
const Backend kPostgres{"Postgres",
                        [](const std::filesystem::path& dir) {
                          return std::make_unique<PostgresStore>(
                              PostgresCluster::shared()->database(dir.filename().string()));
                        },
                        true};

const BaselineKey kKey{"Shop", "Checkout", "iOS 17;iPhone;390x844", "default"};

BaselineKey keyOf(const std::string& test) {
  BaselineKey key = kKey;
  key.test = test;
  return key;
}

SessionRecord session(const std::string& id, const std::string& batch, std::int64_t startedMs) {
  SessionRecord s;
  s.id = id;
  s.batchId = batch;
  s.key = kKey;
  s.startInfo = "{}";
  s.startedAt = "2026-01-01T00:00:00Z";
  s.startedMs = s.lastActiveMs = startedMs;
  s.isNew = true;
  return s;
}

StepRecord step(int position, const std::string& name, const std::string& image = "") {
  return {position, name, StepOutcome::New, "Strict", "", image, ""};
}

Store::SessionEnd stopped(const std::string& status, int steps = 0,
                          std::optional<std::vector<StoredStep>> baseline = std::nullopt) {
  return {SessionState::Stopped, status, 1, false, steps, {}, std::move(baseline)};
}

class StoreTest : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    if (GetParam().needsCluster && !PostgresCluster::shared()) {
      GTEST_SKIP() << PostgresCluster::skipReason();
    }
  }
  std::unique_ptr<Store> open() const { return GetParam().open(dir_.path()); }

  TempDir dir_;
};

TEST_P(StoreTest, ImagesAreNamedByTheirSha256) {
  auto store = open();
  const std::string hash = store->putImage("abc");
  EXPECT_EQ(hash, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(store->putImage("abc"), hash);
  EXPECT_EQ(store->readImage(hash), "abc");
  for (const std::string& bad : {std::string(64, '0'), std::string("../lumo.db"),
                                 std::string("BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB4"
                                             "10FF61F20015AD")}) {
    EXPECT_FALSE(store->readImage(bad)) << bad;
  }
}

// A running session, its steps and its end survive reopening, with every field. A baseline is
// kept per key, and never with an image the store lacks.
TEST_P(StoreTest, SessionsStepsAndBatchesSurviveReopening) {
  const std::string image = open()->putImage("img");
  {
    auto store = open();
    store->addBatch({"b1", "Nightly", "2026-01-01T10:00:00Z", 1000});
    store->addBatch({"b1", "Renamed", "later", 5000});
    store->addBatch({"b2", "", "2026-01-02T10:00:00Z", 2000});
    SessionRecord s1 = session("s1", "b1", 10);
    s1.owner = "digest";
    store->addSession(session("s2", "b1", 20), {});
    store->addSession(s1, {{"home", image}, {"cart", image}});
    EXPECT_EQ(store->appendStep("s1", step(0, "home", image), 50), Store::Append::Appended);
    store->completeStep("s1", 0, image, {{1, 2, 3, 4}});
  }
  auto store = open();
  const auto batches = store->recentBatches(10);
  ASSERT_EQ(batches.size(), 2u);
  EXPECT_EQ(std::tie(batches[0].id, batches[1].name), std::tuple("b2", "Nightly"));
  SessionRecord s1 = *store->findSession("s1");
  EXPECT_EQ(std::tie(s1.key, s1.state, s1.owner, s1.stepCount, s1.lastActiveMs),
            std::tuple(kKey, SessionState::Running, "digest", 1, 50));

  Store::SessionEnd end{SessionState::Stopped, "Unresolved", 1234, false, 1, {}, std::nullopt};
  end.addedSteps.push_back({1, "cart", StepOutcome::Missing, "", image, "", ""});
  end.baseline = std::vector<StoredStep>{{"home", image}};
  EXPECT_TRUE(store->finishSession("s1", end));
  EXPECT_FALSE(store->finishSession("s1", end));  // already stopped
  store = open();
  s1 = *store->findSession("s1");
  EXPECT_EQ(std::tie(s1.state, s1.status, s1.durationMs, s1.stepCount, s1.saved),
            std::tuple(SessionState::Stopped, "Unresolved", 1234, 2, true));
  EXPECT_EQ(store->findBaseline(kKey), (std::vector<StoredStep>{{"home", image}}));
  BaselineKey feature = kKey;
  feature.branch = "feature";
  EXPECT_FALSE(store->findBaseline(feature));
  EXPECT_THROW(store->saveBaseline(feature, {{"x", std::string(64, 'f')}}, "s1"), StoreError);
  const auto steps = store->steps("s1");
  ASSERT_EQ(steps.size(), 2u);
  EXPECT_EQ(std::tie(steps[0].currentImage, steps[0].diffImage, steps[1].name, steps[1].outcome,
                     steps[1].baselineImage),
            std::tuple(image, image, "cart", StepOutcome::Missing, image));
  EXPECT_EQ(steps[0].boxes, (std::vector<Rect>{{1, 2, 3, 4}}));
}

// Each multi-row change checks its precondition inside its transaction and, when it fails,
// changes nothing.
TEST_P(StoreTest, ChangesWhosePreconditionFailedChangeNothing) {
  auto store = open();
  const std::string image = store->putImage("img");
  store->addSession(session("run", "b", 0), {});
  store->addSession(session("done", "b", 0), {});
  EXPECT_TRUE(store->finishSession("done", stopped("Passed")));

  EXPECT_EQ(store->appendStep("run", step(1, "gap"), 5), Store::Append::PositionTaken);
  EXPECT_EQ(store->appendStep("run", step(0, "a", image), 5), Store::Append::Appended);
  EXPECT_EQ(store->appendStep("run", step(0, "again"), 5), Store::Append::PositionTaken);
  EXPECT_EQ(store->appendStep("done", step(0, "late"), 5), Store::Append::NotRunning);
  EXPECT_EQ(store->appendStep("nope", step(0, "x"), 5), Store::Append::NotRunning);
  // A stale step count, an approval of a running session, a rejection of one.
  EXPECT_FALSE(store->finishSession("run", stopped("Passed")));
  EXPECT_FALSE(store->approveSession("run", {{"a", image}}));
  EXPECT_FALSE(store->rejectSession("run", std::nullopt));
  EXPECT_FALSE(store->rejectSession("done", 3));
  EXPECT_FALSE(store->findBaseline(kKey));
  EXPECT_EQ(std::tuple(store->findSession("run")->state, store->steps("run").size(),
                       store->findSession("done")->rejected),
            std::tuple(SessionState::Running, 1u, false));

  EXPECT_TRUE(store->rejectSession("done", std::nullopt));
  EXPECT_TRUE(store->findSession("done")->rejected);
  EXPECT_TRUE(store->approveSession("done", {{"a", image}}));
  EXPECT_FALSE(store->findSession("done")->rejected);
  EXPECT_EQ(store->findBaseline(kKey), (std::vector<StoredStep>{{"a", image}}));
}

TEST_P(StoreTest, OnlySessionsIdleSinceTheBoundExpire) {
  auto store = open();
  for (const auto& [id, lastActive] : {std::pair{"old", 100}, {"touched", 100}, {"fresh", 900}}) {
    store->addSession(session(id, "b", 0), {});
    store->touchSession(id, lastActive);
  }
  store->touchSession("touched", 950);
  store->touchSession("touched", 10);  // an older time never moves activity back
  EXPECT_EQ(store->expireIdleSessions(500), 1);
  const SessionRecord old = *store->findSession("old");
  EXPECT_EQ(std::tie(old.state, old.expired, old.durationMs),
            std::tuple(SessionState::Aborted, true, 100));
  EXPECT_EQ(store->findSession("touched")->state, SessionState::Running);
  EXPECT_EQ(store->findSession("fresh")->state, SessionState::Running);
  EXPECT_EQ(store->expireIdleSessions(500), 0);
}

// Approvals of several stopped sessions of one test, through separate stores (as separate
// server instances would), race with each other and with a stop of a running session that
// saves. The baseline ends up as exactly one of the lists written, never a mix.
TEST_P(StoreTest, RacingApprovalsAndAStopLeaveOneWholeBaseline) {
  auto setup = open();
  const std::string a = setup->putImage("a"), b = setup->putImage("b");
  constexpr int kSessions = 6;
  for (int round = 0; round < 3; ++round) {
    const std::string prefix = "r" + std::to_string(round) + "-", racer = prefix + "racer";
    std::vector<std::vector<StoredStep>> written;
    for (int i = 0; i < kSessions; ++i) {
      const std::string id = prefix + std::to_string(i);
      setup->addSession(session(id, "b", 0), {});
      ASSERT_TRUE(setup->finishSession(id, stopped("Unresolved")));
      written.push_back({{id + "/0", a}, {id + "/1", b}, {id + "/2", a}});
    }
    setup->addSession(session(racer, "b", 0), {});
    const std::vector<StoredStep> saved{{racer + "/stop", b}};
    written.push_back(saved);
    std::vector<std::thread> threads;
    for (int i = 0; i < kSessions; ++i) {
      threads.emplace_back(
          [&, i] { EXPECT_TRUE(open()->approveSession(prefix + std::to_string(i), written[i])); });
    }
    threads.emplace_back(
        [&] { EXPECT_TRUE(open()->finishSession(racer, stopped("Unresolved", 0, saved))); });
    for (auto& thread : threads) {
      thread.join();
    }
    const auto baseline = setup->findBaseline(kKey);
    ASSERT_TRUE(baseline);
    EXPECT_NE(std::find(written.begin(), written.end(), *baseline), written.end())
        << "a baseline mixed from several writes, " << baseline->size() << " steps";
  }
}

// A writer process saves baselines in a loop and reports each committed one; it is killed
// without warning, and a reopened store must find every reported baseline with its images.
TEST_P(StoreTest, AProcessKilledMidWriteLeavesEveryCommittedBaselineIntact) {
  open();  // the schema exists before the writer starts
  const auto content = [](int i) {
    return std::string(4096 + i, static_cast<char>('a' + i % 26)) + std::to_string(i);
  };
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipeFds[0]);
    auto store = open();
    for (int i = 0;; ++i) {
      const std::string image = store->putImage(content(i));
      store->saveBaseline(keyOf("test " + std::to_string(i % 7)),
                          {{"step " + std::to_string(i), image}}, "s");
      const std::string line = std::to_string(i) + "\n";
      if (write(pipeFds[1], line.data(), line.size()) < 0) {
        _exit(1);
      }
    }
  }
  close(pipeFds[1]);
  FILE* reports = fdopen(pipeFds[0], "r");
  int last = -1;
  char line[32];
  while (last < 40 && fgets(line, sizeof line, reports)) {
    last = std::atoi(line);
  }
  kill(child, SIGKILL);
  while (fgets(line, sizeof line, reports)) {
    last = std::atoi(line);
  }
  fclose(reports);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));

  auto store = open();
  // Each of the seven tests holds its latest committed write, or one still later whose
  // report the kill cut off.
  for (int i = std::max(last - 6, 0); i <= last; ++i) {
    const auto steps = store->findBaseline(keyOf("test " + std::to_string(i % 7)));
    ASSERT_TRUE(steps && steps->size() == 1u) << i;
    const int saved = std::stoi((*steps)[0].name.substr(5));
    EXPECT_GE(saved, i);
    EXPECT_EQ(store->readImage((*steps)[0].image), content(saved));
  }
}

INSTANTIATE_TEST_SUITE_P(Backends, StoreTest, ::testing::Values(kSqlite, kPostgres),
                         [](const auto& p) { return p.param.name; });

// SQLite's own layout: images as files, no temporary file left after a kill.
TEST(SqliteStore, ImagesAreFilesAndHalfWrittenOnesAreClearedAtOpen) {
  TempDir dir;
  const std::string hash = SqliteStore(dir.path()).putImage("abc");
  const auto file = dir.path() / "images" / "ba" / (hash + ".png");
  EXPECT_TRUE(std::filesystem::exists(file));
  const auto temp = std::filesystem::path(file.string() + ".123.tmp");
  std::filesystem::copy_file(file, temp);
  SqliteStore store(dir.path());
  EXPECT_FALSE(std::filesystem::exists(temp));
}

// Instances starting together on an empty database create the schema once between them; a
// database a newer server migrated is refused rather than written in the old layout.
TEST(PostgresStore, InstancesStartingTogetherMigrateOnceAndANewerSchemaIsRefused) {
  auto* cluster = PostgresCluster::shared();
  if (!cluster) {
    GTEST_SKIP() << PostgresCluster::skipReason();
  }
  const std::string url = cluster->database("migrate-together");
  std::vector<std::thread> starting;
  std::atomic<int> failures{0};
  for (int i = 0; i < 6; ++i) {
    starting.emplace_back([&] {
      try {
        PostgresStore(url, 1).addBatch({"b", "", "", 1});
      } catch (const StoreError&) {
        ++failures;
      }
    });
  }
  for (auto& thread : starting) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);

  PGconn* conn = PQconnectdb(url.c_str());
  ASSERT_EQ(PQstatus(conn), CONNECTION_OK);
  PQclear(PQexec(conn, "UPDATE lumo_schema SET version = version + 1"));
  PQfinish(conn);
  EXPECT_THROW(PostgresStore store(url), StoreError);
}

}  // namespace
}  // namespace lumo::test
