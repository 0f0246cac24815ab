#include "lumo/server/baseline_store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "temp_dir.h"

namespace lumo::server {
namespace {

using testing::TempDir;

const BaselineKey kKey{"Shop", "Checkout", "iOS 17;iPhone;390x844", "default"};

SessionRecord session(const std::string& id, const std::string& batch, std::int64_t startedMs) {
  SessionRecord s;
  s.id = id;
  s.batchId = batch;
  s.key = kKey;
  s.startInfo = "{}";
  s.startedAt = "2026-01-01T00:00:00Z";
  s.startedMs = startedMs;
  s.isNew = true;
  return s;
}

TEST(BaselineStore, ImagesAreFilesNamedByTheirSha256) {
  TempDir dir;
  BaselineStore store(dir.path());
  const std::string hash = store.putImage("abc");
  EXPECT_EQ(hash, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(store.putImage("abc"), hash);
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "images" / "ba" / (hash + ".png")));
  EXPECT_EQ(store.readImage(hash), "abc");
  EXPECT_FALSE(store.readImage(std::string(64, '0')));
  EXPECT_FALSE(store.readImage("../lumo.db"));
  EXPECT_FALSE(store.readImage("BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"));
}

TEST(BaselineStore, SavingReplacesTheBaselineOfItsKeyOnly) {
  TempDir dir;
  BaselineStore store(dir.path());
  const std::string a = store.putImage("a"), b = store.putImage("b"), c = store.putImage("c");
  EXPECT_FALSE(store.findBaseline(kKey));

  store.saveBaseline(kKey, {{"one", a}, {"two", b}}, "s1");
  BaselineKey feature = kKey;
  feature.branch = "feature";
  store.saveBaseline(feature, {{"one", c}}, "s2");
  EXPECT_EQ(store.findBaseline(kKey), (std::vector<StoredStep>{{"one", a}, {"two", b}}));

  store.saveBaseline(kKey, {{"only", c}}, "s3");
  EXPECT_EQ(store.findBaseline(kKey), (std::vector<StoredStep>{{"only", c}}));
  EXPECT_EQ(store.findBaseline(feature), (std::vector<StoredStep>{{"one", c}}));
  BaselineKey otherEnvironment = kKey;
  otherEnvironment.environment = "Android";
  EXPECT_FALSE(store.findBaseline(otherEnvironment));
}

TEST(BaselineStore, ABaselineNamingAMissingImageIsRefusedWhole) {
  TempDir dir;
  BaselineStore store(dir.path());
  store.addSession(session("s1", "b", 1));
  const std::string a = store.putImage("a");
  store.saveBaseline(kKey, {{"one", a}}, "s1");
  EXPECT_THROW(store.saveBaseline(kKey, {{"one", a}, {"two", std::string(64, 'f')}}, "s2"),
               StoreError);
  EXPECT_THROW(store.saveBaseline(kKey, {{"one", "not-a-hash"}}, "s2"), StoreError);
  EXPECT_EQ(store.findBaseline(kKey), (std::vector<StoredStep>{{"one", a}}));
  EXPECT_TRUE(store.findSession("s1")->saved);
}

TEST(BaselineStore, SessionsStepsAndBatchesSurviveReopening) {
  TempDir dir;
  {
    BaselineStore store(dir.path());
    store.addBatch({"b1", "Nightly", "2026-01-01T10:00:00Z", 1000});
    store.addBatch({"b1", "Renamed", "later", 5000});
    store.addBatch({"b2", "", "2026-01-02T10:00:00Z", 2000});
    store.addSession(session("s2", "b1", 20));
    store.addSession(session("s1", "b1", 10));
    store.addStep("s1", {0, "home", "new", "Strict", "", "c0", "d0", ""});
    store.addStep("s1", {1, "cart", "different", "Layout", "b1", "c1", "d1", R"([{"left":1}])"});
    store.finishSession("s1", "stopped", "Unresolved", 1234);
    store.saveBaseline(kKey, {}, "s1");
    EXPECT_THROW(store.addStep("s1", {1, "again", "new", "Strict", "", "", "", ""}), StoreError);
  }
  BaselineStore store(dir.path());
  const auto batches = store.recentBatches(10);
  ASSERT_EQ(batches.size(), 2u);
  EXPECT_EQ(batches[0].id, "b2");
  EXPECT_EQ(batches[1].name, "Nightly");
  EXPECT_EQ(store.recentBatches(1).size(), 1u);

  const auto sessions = store.sessionsOfBatch("b1");
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[0].id, "s1");
  const SessionRecord s1 = *store.findSession("s1");
  EXPECT_EQ(s1.key, kKey);
  EXPECT_EQ(s1.state, "stopped");
  EXPECT_EQ(s1.status, "Unresolved");
  EXPECT_EQ(s1.durationMs, 1234);
  EXPECT_TRUE(s1.isNew);
  EXPECT_TRUE(s1.saved);
  EXPECT_FALSE(store.findSession("nope"));
  EXPECT_EQ(store.findBaseline(kKey), std::vector<StoredStep>{});

  const auto steps = store.steps("s1");
  ASSERT_EQ(steps.size(), 2u);
  EXPECT_EQ(steps[1].name, "cart");
  EXPECT_EQ(steps[1].outcome, "different");
  EXPECT_EQ(steps[1].matchLevel, "Layout");
  EXPECT_EQ(steps[1].baselineImage, "b1");
  EXPECT_EQ(steps[1].diffImage, "d1");
  EXPECT_EQ(steps[0].boxes, "[]");
  EXPECT_EQ(steps[1].boxes, R"([{"left":1}])");
}

TEST(BaselineStore, AStoreFromBeforeDifferenceBoxesGainsTheirColumn) {
  TempDir dir;
  {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((dir.path() / "lumo.db").c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db,
                           "CREATE TABLE steps(session_id TEXT NOT NULL, position INTEGER NOT NULL,"
                           " name TEXT NOT NULL, outcome TEXT NOT NULL, match_level TEXT NOT NULL,"
                           " baseline_image TEXT NOT NULL, current_image TEXT NOT NULL,"
                           " diff_image TEXT NOT NULL, PRIMARY KEY(session_id, position));"
                           "INSERT INTO steps VALUES('s0', 0, 'old', 'new', 'Strict', '', '', '');",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
  }
  BaselineStore store(dir.path());
  store.addSession(session("s1", "b1", 10));
  store.addStep("s1", {0, "home", "different", "Strict", "", "c0", "d0", R"([{"left":2}])"});
  EXPECT_EQ(store.steps("s0").at(0).boxes, "[]");
  EXPECT_EQ(store.steps("s1").at(0).boxes, R"([{"left":2}])");
}

TEST(BaselineStore, ConcurrentWritersKeepEveryBaseline) {
  TempDir dir;
  BaselineStore store(dir.path());
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&store, t] {
      for (int i = 0; i < 20; ++i) {
        BaselineKey key = kKey;
        key.test = "test " + std::to_string(t) + "/" + std::to_string(i);
        const std::string image = store.putImage("shared image");
        store.saveBaseline(key, {{"step", image}, {"own", store.putImage(key.test)}}, "s");
      }
    });
  }
  for (auto& writer : writers) {
    writer.join();
  }
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 20; ++i) {
      BaselineKey key = kKey;
      key.test = "test " + std::to_string(t) + "/" + std::to_string(i);
      const auto steps = store.findBaseline(key);
      ASSERT_TRUE(steps);
      EXPECT_EQ(store.readImage((*steps)[1].image), key.test);
    }
  }
}

// A writer process saves baselines in a loop and reports each committed one; it is killed
// without warning, and a new store must find every reported baseline with its images.
TEST(BaselineStore, AProcessKilledMidWriteLeavesEveryCommittedBaselineIntact) {
  TempDir dir;
  { BaselineStore schema(dir.path()); }  // the schema exists before the writer starts
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipeFds[0]);
    BaselineStore store(dir.path());
    for (int i = 0;; ++i) {
      BaselineKey key = kKey;
      key.test = "test " + std::to_string(i % 7);
      const std::string content(4096 + i, static_cast<char>('a' + i % 26));
      const std::string image = store.putImage(content + std::to_string(i));
      store.saveBaseline(key, {{"step " + std::to_string(i), image}}, "s");
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

  BaselineStore store(dir.path());
  // Each of the seven tests holds its latest committed write, or one still later whose
  // report the kill cut off.
  for (int i = std::max(last - 6, 0); i <= last; ++i) {
    BaselineKey key = kKey;
    key.test = "test " + std::to_string(i % 7);
    const auto steps = store.findBaseline(key);
    ASSERT_TRUE(steps) << key.test;
    ASSERT_EQ(steps->size(), 1u);
    const int saved = std::stoi((*steps)[0].name.substr(5));
    EXPECT_GE(saved, i);
    const auto bytes = store.readImage((*steps)[0].image);
    ASSERT_TRUE(bytes) << saved;
    EXPECT_EQ(*bytes, std::string(4096 + saved, static_cast<char>('a' + saved % 26)) +
                          std::to_string(saved));
  }
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path() / "images")) {
    EXPECT_FALSE(entry.path().string().ends_with(".tmp")) << entry.path();
  }
}

}  // namespace
}  // namespace lumo::server
