#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "baseline_cache.h"
#include "lumo/server/session_manager.h"
#include "lumo/server/sqlite_store.h"
#include "server_fixture.h"

namespace lumo::test {
namespace {

// The status of the ApiError a call throws; 0 when it throws none.
template <typename Call>
int refusal(Call&& call) {
  try {
    call();
  } catch (const ApiError& e) {
    return e.status();
  }
  return 0;
}

// Sessions that outlive their manager: restarts, approvals, limits and the baselines sessions
// share. Every manager here is a fresh one on a real SQLite file.
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
    Instance instance{std::make_unique<SqliteStore>(dir_.path()), nullptr};
    instance.manager = std::make_unique<SessionManager>(*instance.store, ImageComparer(),
                                                        kDefaultMaxImagePixels, options);
    return instance;
  }

  static bool check(SessionManager& m, const std::string& id, const Image& image,
                    const std::string& tag = "step") {
    return m.match(id, matchData(screenshot64(image), tag));
  }
  static std::string start(SessionManager& m, const std::string& test = "Checkout") {
    return m.start(startInfo(test)).id;
  }
  static Json stop(SessionManager& m, const std::string& id, bool update = false) {
    return m.stop(id, false, update, "");
  }

  // A stopped and saved test "Checkout" of the given screens.
  static void saveBaseline(SessionManager& m, const std::vector<Image>& screens) {
    const std::string id = start(m);
    for (const Image& image : screens) {
      check(m, id, image);
    }
    stop(m, id, true);
  }

  TempDir dir_;
  std::atomic<std::int64_t> clockOffsetMs_{0};
};

// The server process killed between two checkpoints: the test then finishes with the verdict
// its screens deserve.
TEST_F(SessionState, AKillBetweenTwoCheckpointsKeepsTheVerdict) {
  for (const unsigned secondWord : {2u, 9u}) {
    SCOPED_TRACE(secondWord);
    clockOffsetMs_ += 1;  // a fresh batch of sessions each round
    saveBaseline(*open().manager, {screen(1), screen(2)});
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      Instance before = open();
      const std::string started = start(*before.manager);
      check(*before.manager, started, screen(1));
      if (write(fds[1], started.data(), started.size()) < 0) {
        _exit(1);
      }
      pause();
    }
    close(fds[1]);
    char id[32];
    ASSERT_EQ(read(fds[0], id, sizeof id), 32);
    close(fds[0]);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    Instance after = open();
    const std::string session(id, sizeof id);
    EXPECT_EQ(check(*after.manager, session, screen(secondWord)), secondWord == 2);
    expectFields(stop(*after.manager, session),
                 {{"/status", secondWord == 2 ? "Passed" : "Unresolved"},
                  {"/steps", 2},
                  {"/matches", secondWord == 2 ? 2 : 1}});
  }
}

// Only a stopped session with its steps is approved; every other approval is a 409 that
// leaves the baseline as it was.
TEST_F(SessionState, OnlyAStoppedSessionWithItsStepsCanBeApproved) {
  Instance instance = open();
  SessionManager& m = *instance.manager;
  saveBaseline(m, {screen(1), screen(2)});
  const BaselineKey key = instance.store->sessionsOfBatch("B1")[0].key;
  const auto baseline = instance.store->findBaseline(key);
  ASSERT_TRUE(baseline);
  const std::vector<std::pair<const char*, std::function<void(const std::string&)>>> cases = {
      {"running",
       [&](const std::string& id) {
         check(m, id, screen(5));
         EXPECT_EQ(refusal([&] { m.reject(id, std::nullopt); }), 409);
       }},
      {"aborted",
       [&](const std::string& id) {
         check(m, id, screen(5));
         m.stop(id, true, false, "");
       }},
      {"failed",
       [&](const std::string& id) {
         check(m, id, screen(5));
         m.match(id, matchData("", "empty"));
         stop(m, id);
       }},
      {"without images", [&](const std::string& id) { stop(m, id); }},
  };
  for (const auto& [what, end] : cases) {
    SCOPED_TRACE(what);
    const std::string id = start(m);
    end(id);
    EXPECT_EQ(refusal([&] { m.approve(id); }), 409);
  }
  EXPECT_EQ(instance.store->findBaseline(key), baseline);
}

TEST_F(SessionState, StepsPerSessionAndSessionsPerBatchAreBounded) {
  SessionOptions options;
  options.maxStepsPerSession = 2;
  options.maxSessionsPerBatch = 3;
  Instance instance = open(options);
  SessionManager& m = *instance.manager;
  const std::string id = start(m, "Long");
  EXPECT_TRUE(check(m, id, screen(1), "one"));
  EXPECT_TRUE(check(m, id, screen(2), "two"));
  EXPECT_EQ(refusal([&] { check(m, id, screen(3), "three"); }), 409);
  EXPECT_EQ(stop(m, id)["steps"], 2);
  start(m, "Second");
  start(m, "Third");
  EXPECT_EQ(refusal([&] { start(m, "Fourth"); }), 409);
  Json otherBatch = startInfo("Fourth");
  otherBatch["batchInfo"]["id"] = "B2";
  EXPECT_EQ(refusal([&] { m.start(otherBatch); }), 0);
}

// The same bytes as the baseline match without a decode; other bytes are compared with the
// decoded baseline all sessions share, and their differences are complete once stopped.
TEST_F(SessionState, DecodedBaselinesAreSharedByEverySession) {
  Instance instance = open();
  SessionManager& m = *instance.manager;
  saveBaseline(m, {screen(1)});
  EXPECT_TRUE(check(m, start(m), screen(1), "one"));
  EXPECT_EQ(m.cachedBaselineBytes(), 0u);
  for (int run = 0; run < 3; ++run) {
    const std::string id = start(m);
    EXPECT_FALSE(check(m, id, screen(2), "one"));
    stop(m, id);
    const auto step = m.store().steps(id).at(0);
    EXPECT_FALSE(step.diffImage.empty() || step.boxes.empty());
  }
  EXPECT_EQ(m.baselineCacheHits(), 2u);
  EXPECT_EQ(m.cachedBaselineBytes(), screen(1).pixels().size());
}

// A record written too deep straight into the database is refused before it is parsed again,
// and the refusal changes nothing.
TEST_F(SessionState, AnOverDeepStoredRecordIsRefusedUnread) {
  Instance instance = open();
  SessionManager& m = *instance.manager;
  const std::string id = start(m, "Deep");
  EXPECT_TRUE(check(m, id, screen(1)));
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  execSql(dir_.path(), "UPDATE sessions SET start_info = '{\"x\":" + deep +
                           "}'; UPDATE steps SET boxes = '" + deep + "'");
  EXPECT_EQ(refusal([&] { check(m, id, screen(1)); }), 500);
  EXPECT_EQ(refusal([&] { stop(m, id, true); }), 500);
  EXPECT_THROW(instance.store->steps(id), StoreError);
  EXPECT_EQ(instance.store->findSession(id)->stepCount, 1);
}

TEST(BaselineCache, DropsTheLeastRecentlyUsedPastItsBudget) {
  server::detail::BaselineCache cache(100);  // bytes: room for 25 pixels
  int loads = 0;
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
    const auto image = cache.get(s.hash, [&] {
      ++loads;
      return s.width > 0 ? std::make_shared<const Image>(s.width, 1) : nullptr;
    });
    EXPECT_EQ(image != nullptr, s.width > 0);
    EXPECT_EQ(loads, s.loadsAfter);
    EXPECT_EQ(cache.bytes(), s.bytesAfter);
  }
}

}  // namespace
}  // namespace lumo::test
