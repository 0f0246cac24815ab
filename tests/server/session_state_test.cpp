#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "baseline_cache.h"
#include "lumo/server/session_manager.h"
#include "lumo/server/sqlite_store.h"
#include "server_fixture.h"

namespace lumo::server::testing {
namespace {

// Sessions that outlive their manager: restarts, several managers on one store, approvals,
// keys, idle expiry and limits. Every manager here is a fresh one on a real SQLite file.
class SessionState : public ::testing::Test {
 protected:
  struct Instance {
    std::unique_ptr<SqliteStore> store;
    std::unique_ptr<SessionManager> manager;
  };

  Instance open(SessionOptions options = {}) {
    options.clock = [this] {
      return std::chrono::system_clock::now() + std::chrono::milliseconds(clockOffsetMs_.load());
    };
    Instance instance;
    instance.store = std::make_unique<SqliteStore>(dir_.path());
    instance.manager = std::make_unique<SessionManager>(*instance.store, ImageComparer(),
                                                        kDefaultMaxImagePixels, options);
    return instance;
  }

  static bool check(SessionManager& m, const std::string& id, const Image& image,
                    const std::string& tag, std::string_view key = {}) {
    return m.match(id, matchData(screenshot64(image), tag), key);
  }

  // A stopped and saved test "Checkout" of the given screens.
  static void saveBaseline(SessionManager& m, const std::vector<Image>& screens) {
    const std::string id = m.start(startInfo("Checkout")).id;
    for (const Image& image : screens) {
      check(m, id, image, "step");
    }
    m.stop(id, false, true, "");
  }

  // The status of an ApiError thrown by `call`, 0 when it threw none.
  template <typename Call>
  static int statusOf(Call&& call) {
    try {
      call();
      return 0;
    } catch (const ApiError& e) {
      return e.status();
    }
  }

  TempDir dir_;
  std::atomic<std::int64_t> clockOffsetMs_{0};
};

// Both stops of the server between two checkpoints: the manager destroyed, and the whole
// process killed. The test then finishes with the verdict its screens deserve.
TEST_F(SessionState, ARestartBetweenTwoCheckpointsKeepsTheVerdict) {
  struct Case {
    bool sigkill;
    unsigned secondWord;
    const char* status;
  };
  for (const Case& c : {Case{false, 2, "Passed"}, Case{true, 2, "Passed"},
                        Case{false, 9, "Unresolved"}, Case{true, 9, "Unresolved"}}) {
    SCOPED_TRACE(::testing::Message() << "sigkill " << c.sigkill << " word " << c.secondWord);
    clockOffsetMs_ += 1;  // a fresh batch of sessions each round
    { saveBaseline(*open().manager, {screen(1), screen(2)}); }
    std::string id;
    if (!c.sigkill) {
      Instance before = open();
      id = before.manager->start(startInfo("Checkout")).id;
      EXPECT_TRUE(check(*before.manager, id, screen(1), "one"));
    } else {
      int fds[2];
      ASSERT_EQ(pipe(fds), 0);
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        Instance before = open();
        const std::string started = before.manager->start(startInfo("Checkout")).id;
        check(*before.manager, started, screen(1), "one");
        if (write(fds[1], started.data(), started.size()) < 0) {
          _exit(1);
        }
        pause();
      }
      close(fds[1]);
      char buffer[64] = {};
      ASSERT_EQ(read(fds[0], buffer, 32), 32);
      close(fds[0]);
      id.assign(buffer, 32);
      kill(child, SIGKILL);
      int status = 0;
      waitpid(child, &status, 0);
    }
    Instance after = open();
    EXPECT_EQ(check(*after.manager, id, screen(c.secondWord), "two"), c.secondWord == 2);
    const Json results = after.manager->stop(id, false, false, "");
    EXPECT_EQ(results["status"], c.status);
    EXPECT_EQ(results["steps"], 2);
    EXPECT_EQ(results["matches"], c.secondWord == 2 ? 2 : 1);
  }
}

TEST_F(SessionState, TwoManagersOnOneStoreServeOneSessionAlternately) {
  Instance a = open(), b = open();
  // New test, started on one and saved through the other.
  std::string id = a.manager->start(startInfo("Checkout")).id;
  EXPECT_TRUE(check(*b.manager, id, screen(1), "home"));
  EXPECT_TRUE(check(*a.manager, id, screen(2), "cart"));
  EXPECT_EQ(b.manager->stop(id, false, true, "")["status"], "Unresolved");
  // A passing rerun, then a difference approved through the other manager.
  id = b.manager->start(startInfo("Checkout")).id;
  EXPECT_TRUE(check(*a.manager, id, screen(1), "home"));
  EXPECT_TRUE(check(*b.manager, id, screen(2), "cart"));
  EXPECT_EQ(a.manager->stop(id, false, false, "")["status"], "Passed");
  id = a.manager->start(startInfo("Checkout")).id;
  EXPECT_FALSE(check(*b.manager, id, screen(7), "home"));
  EXPECT_TRUE(check(*a.manager, id, screen(2), "cart"));
  EXPECT_EQ(b.manager->stop(id, false, false, "")["status"], "Unresolved");
  b.manager->approve(id);
  id = b.manager->start(startInfo("Checkout")).id;
  EXPECT_TRUE(check(*a.manager, id, screen(7), "home"));
  EXPECT_TRUE(check(*b.manager, id, screen(2), "cart"));
  EXPECT_EQ(a.manager->stop(id, false, false, "")["status"], "Passed");

  // Checkpoints of one session arriving at both at once all land, each at its own position.
  id = a.manager->start(startInfo("Burst")).id;
  std::vector<std::thread> senders;
  for (SessionManager* m : {a.manager.get(), b.manager.get()}) {
    senders.emplace_back([m, &id] {
      for (unsigned i = 0; i < 6; ++i) {
        check(*m, id, screen(i), "burst");
      }
    });
  }
  for (auto& sender : senders) {
    sender.join();
  }
  const Json results = a.manager->stop(id, false, false, "");
  EXPECT_EQ(results["steps"], 12);
}

// Only a stopped session with its steps is approved; every other approval is a 409 that
// leaves the baseline as it was.
TEST_F(SessionState, OnlyAStoppedSessionWithItsStepsCanBeApproved) {
  SessionOptions options;
  options.idleTimeout = std::chrono::minutes(1);
  Instance instance = open(options);
  SessionManager& m = *instance.manager;
  saveBaseline(m, {screen(1), screen(2)});
  const BaselineKey key = instance.store->sessionsOfBatch("B1")[0].key;
  const auto baseline = instance.store->findBaseline(key);
  ASSERT_TRUE(baseline);
  struct Case {
    const char* what;
    std::function<std::string()> session;
  };
  const std::vector<Case> cases = {
      {"cut off by a restart",
       [&] {
         std::string id;
         {
           Instance killed = open(options);
           id = killed.manager->start(startInfo("Checkout")).id;
           check(*killed.manager, id, screen(5), "one");
         }
         return id;
       }},
      {"aborted",
       [&] {
         const std::string id = m.start(startInfo("Checkout")).id;
         check(m, id, screen(5), "one");
         m.stop(id, true, false, "");
         return id;
       }},
      {"expired",
       [&] {
         const std::string id = m.start(startInfo("Checkout")).id;
         check(m, id, screen(5), "one");
         clockOffsetMs_ += 2 * 60'000;
         EXPECT_EQ(statusOf([&] { check(m, id, screen(5), "two"); }), 409);
         return id;
       }},
      {"failed",
       [&] {
         const std::string id = m.start(startInfo("Checkout")).id;
         m.match(id, matchData("", "empty"));
         m.stop(id, false, false, "");
         return id;
       }},
      {"without images",
       [&] {
         const std::string id = m.start(startInfo("Checkout")).id;
         m.stop(id, false, false, "");
         return id;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string id = c.session();
    EXPECT_EQ(statusOf([&] { m.approve(id); }), 409);
    EXPECT_EQ(instance.store->findBaseline(key), baseline);
  }
  // A stopped differing session is approved, and rejecting one keeps the baseline.
  const std::string rejected = m.start(startInfo("Checkout")).id;
  check(m, rejected, screen(8), "one");
  EXPECT_EQ(statusOf([&] { m.reject(rejected, std::nullopt); }), 409);  // still running
  m.stop(rejected, false, false, "");
  m.reject(rejected, 0);
  EXPECT_TRUE(instance.store->steps(rejected)[0].rejected);
  EXPECT_EQ(instance.store->findSession(rejected)->status, "Unresolved");
  EXPECT_EQ(instance.store->findBaseline(key), baseline);
  m.approve(rejected);
  EXPECT_NE(instance.store->findBaseline(key), baseline);
}

TEST_F(SessionState, ASessionAnswersOnlyToTheKeyThatStartedIt) {
  Instance instance = open();
  SessionManager& m = *instance.manager;
  const std::string running = m.start(startInfo("Keys"), "first").id;
  const std::string stopped = m.start(startInfo("Keys"), "first").id;
  check(m, stopped, screen(1), "one", "first");
  m.stop(stopped, false, false, "", "first");
  const std::vector<std::pair<const char*, std::function<void(std::string_view)>>> calls = {
      {"match", [&](std::string_view key) { check(m, running, screen(1), "one", key); }},
      {"results", [&](std::string_view key) { m.results(stopped, "", key); }},
      {"approve", [&](std::string_view key) { m.approve(stopped, key); }},
      {"stop", [&](std::string_view key) { m.stop(running, false, false, "", key); }},
  };
  for (const auto& [what, call] : calls) {
    SCOPED_TRACE(what);
    EXPECT_EQ(statusOf([&] { call("second"); }), 403);
    EXPECT_EQ(statusOf([&] { call("first"); }), 0);
  }
}

TEST_F(SessionState, AnIdleSessionIsAbortedAndSaysItExpired) {
  SessionOptions options;
  options.idleTimeout = std::chrono::minutes(30);
  Instance instance = open(options);
  SessionManager& m = *instance.manager;
  const std::string busy = m.start(startInfo("Busy")).id;
  const std::string idle = m.start(startInfo("Idle")).id;
  for (int round = 0; round < 3; ++round) {  // active every 20 minutes: never expires
    clockOffsetMs_ += 20 * 60'000;
    EXPECT_TRUE(check(m, busy, screen(round), "step"));
  }
  try {
    check(m, idle, screen(1), "late");
    ADD_FAILURE() << "an idle session took a checkpoint";
  } catch (const ApiError& e) {
    EXPECT_EQ(e.status(), 409);
    EXPECT_NE(std::string(e.what()).find("expired"), std::string::npos) << e.what();
  }
  EXPECT_EQ(statusOf([&] { m.stop(idle, false, true, ""); }), 409);
  EXPECT_EQ(m.results(idle, "")["isAborted"], true);
  EXPECT_EQ(m.stop(busy, false, false, "")["steps"], 3);

  // Sessions nobody uses again are swept by a later start.
  const std::string abandoned = m.start(startInfo("Abandoned")).id;
  clockOffsetMs_ += 31 * 60'000;
  m.start(startInfo("Next"));
  EXPECT_TRUE(instance.store->findSession(abandoned)->expired);
}

TEST_F(SessionState, StepsPerSessionAndSessionsPerBatchAreBounded) {
  SessionOptions options;
  options.maxStepsPerSession = 2;
  options.maxSessionsPerBatch = 3;
  Instance instance = open(options);
  SessionManager& m = *instance.manager;
  const std::string id = m.start(startInfo("Long")).id;
  EXPECT_TRUE(check(m, id, screen(1), "one"));
  EXPECT_TRUE(check(m, id, screen(2), "two"));
  EXPECT_EQ(statusOf([&] { check(m, id, screen(3), "three"); }), 409);
  EXPECT_EQ(m.stop(id, false, false, "")["steps"], 2);
  m.start(startInfo("Second"));
  m.start(startInfo("Third"));
  EXPECT_EQ(statusOf([&] { m.start(startInfo("Fourth")); }), 409);
  Json otherBatch = startInfo("Fourth");
  otherBatch["batchInfo"]["id"] = "B2";
  EXPECT_EQ(statusOf([&] { m.start(otherBatch); }), 0);
}

// Records nested far deeper than the server ever writes, put straight into the file: each
// read of them is refused with a clear error, without parsing, and changes nothing.
TEST_F(SessionState, AnOverDeepStoredRecordIsRefusedUnread) {
  Instance instance = open();
  SessionManager& m = *instance.manager;
  const std::string id = m.start(startInfo("Deep")).id;
  EXPECT_TRUE(check(m, id, screen(1), "one"));
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_.path() / "lumo.db").c_str(), &db), SQLITE_OK);
  const auto set = [&](const char* sql, const std::string& value) {
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, sql, -1, &statement, nullptr), SQLITE_OK);
    sqlite3_bind_text(statement, 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, id.data(), static_cast<int>(id.size()), SQLITE_STATIC);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    sqlite3_finalize(statement);
  };
  set("UPDATE sessions SET start_info = '{\"x\":' || ? || '}' WHERE id = ?", deep);
  set("UPDATE steps SET boxes = ? WHERE session_id = ?", deep);
  sqlite3_close(db);

  const auto refusal = [](auto&& call) -> std::string {
    try {
      call();
    } catch (const std::exception& e) {
      return e.what();
    }
    return "no error";
  };
  EXPECT_THAT(refusal([&] { check(m, id, screen(1), "two"); }),
              ::testing::HasSubstr("start record of session " + id + " nests deeper than 64"));
  EXPECT_THAT(refusal([&] { m.stop(id, false, true, ""); }),
              ::testing::HasSubstr("nests deeper than 64"));
  EXPECT_EQ(statusOf([&] { m.stop(id, false, true, ""); }), 500);
  EXPECT_THAT(refusal([&] { instance.store->steps(id); }),
              ::testing::HasSubstr("difference boxes of step 1 nest deeper than 64"));
  const auto after = instance.store->findSession(id);
  EXPECT_EQ(after->state, server::SessionState::Running);
  EXPECT_EQ(after->stepCount, 1);
}

// Approvals of two sessions of one test race each other and a stop: the baseline ends as
// one session's images, whole, never a mix or a partial write.
TEST_F(SessionState, RacingApprovalsAndStopsLoseNoUpdate) {
  Instance a = open(), b = open();
  saveBaseline(*a.manager, {screen(1), screen(2)});
  std::vector<std::string> sessions;
  for (unsigned word : {5u, 6u}) {
    const std::string id = a.manager->start(startInfo("Checkout")).id;
    check(*a.manager, id, screen(word), "one");
    check(*a.manager, id, screen(word + 10), "two");
    a.manager->stop(id, false, false, "");
    sessions.push_back(id);
  }
  const std::string racing = a.manager->start(startInfo("Checkout")).id;
  check(*a.manager, racing, screen(7), "one");
  check(*a.manager, racing, screen(17), "two");
  std::atomic<int> approvedRacing{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    SessionManager& m = t == 0 ? *a.manager : *b.manager;
    threads.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) {
        m.approve(sessions[(i + t) % 2]);
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 50 && approvedRacing == 0; ++i) {
      approvedRacing += statusOf([&] { b.manager->approve(racing); }) == 0;
    }
  });
  threads.emplace_back([&] { a.manager->stop(racing, false, false, ""); });
  for (auto& thread : threads) {
    thread.join();
  }
  const auto baseline = a.store->findBaseline(a.store->findSession(racing)->key);
  ASSERT_TRUE(baseline);
  ASSERT_EQ(baseline->size(), 2u);
  bool whole = false;
  for (const std::string& id : {sessions[0], sessions[1], racing}) {
    const auto steps = a.store->steps(id);
    whole = whole || ((*baseline)[0].image == steps[0].currentImage &&
                      (*baseline)[1].image == steps[1].currentImage);
  }
  EXPECT_TRUE(whole);
  EXPECT_EQ(a.store->findSession(racing)->state, server::SessionState::Stopped);
}

// The same bytes as the baseline match without a decode; other bytes are compared with the
// decoded baseline all sessions share, and their differences are complete once stopped.
TEST_F(SessionState, DecodedBaselinesAreSharedByEverySession) {
  Instance instance = open();
  SessionManager& m = *instance.manager;
  saveBaseline(m, {screen(1)});
  const std::string same = m.start(startInfo("Checkout")).id;
  EXPECT_TRUE(check(m, same, screen(1), "one"));
  m.stop(same, false, false, "");
  EXPECT_EQ(m.cachedBaselineBytes(), 0u);
  for (int run = 0; run < 3; ++run) {
    const std::string id = m.start(startInfo("Checkout")).id;
    EXPECT_FALSE(check(m, id, screen(2), "one"));
    m.stop(id, false, false, "");
    const auto steps = m.store().steps(id);
    EXPECT_FALSE(steps.at(0).diffImage.empty());
    EXPECT_FALSE(steps.at(0).boxes.empty());
  }
  EXPECT_EQ(m.baselineCacheHits(), 2u);
  EXPECT_EQ(m.cachedBaselineBytes(), screen(1).pixels().size());
}

TEST(BaselineCache, DropsTheLeastRecentlyUsedPastItsBudget) {
  const auto image = [](int width) { return std::make_shared<const Image>(width, 1); };
  detail::BaselineCache cache(100);  // bytes: room for 25 pixels
  int loads = 0;
  const auto get = [&](const std::string& hash, int width) {
    return cache.get(hash, [&] {
      ++loads;
      return width > 0 ? image(width) : nullptr;
    });
  };
  struct Step {
    const char* hash;
    int width;  // of the image a load would give; 0: none
    int loadsAfter;
    std::size_t bytesAfter;
  };
  for (const Step& s : {Step{"a", 10, 1, 40}, Step{"b", 10, 2, 80}, Step{"a", 10, 2, 80},
                        Step{"c", 10, 3, 80},     // drops b, the least recently used
                        Step{"a", 10, 3, 80},     // a stayed
                        Step{"b", 10, 4, 80},     // b is loaded again
                        Step{"huge", 30, 5, 80},  // larger than the budget: not kept
                        Step{"none", 0, 6, 80}, Step{"none", 0, 7, 80}}) {
    SCOPED_TRACE(s.hash);
    EXPECT_EQ(get(s.hash, s.width) != nullptr, s.width > 0);
    EXPECT_EQ(loads, s.loadsAfter);
    EXPECT_EQ(cache.bytes(), s.bytesAfter);
  }
}

}  // namespace
}  // namespace lumo::server::testing
