#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "baseline_cache.h"
#include "lumo/server/session_manager.h"
#include "lumo/server/sqlite_store.h"
#include "server_fixture.h"

namespace lumo::test {
namespace {

using ::testing::HasSubstr;

// How a call was refused: an ApiError's status (-1 for any other exception) and its text.
struct Refusal {
  int status = 0;
  std::string message = "no error";
};
template <typename Call>
Refusal refusal(Call&& call) {
  try {
    call();
  } catch (const ApiError& e) {
    return {e.status(), e.what()};
  } catch (const std::exception& e) {
    return {-1, e.what()};
  }
  return {};
}

// Sessions that outlive their manager: restarts, several managers on one store, approvals,
// idle expiry and limits. Every manager here is a fresh one on a real SQLite file.
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

// Checkpoints of one session arriving at two managers on one store at once all land, each at
// its own position.
TEST_F(SessionState, TwoManagersOnOneStoreServeOneSessionAtOnce) {
  Instance a = open(), b = open();
  const std::string id = start(*a.manager, "Burst");
  std::vector<std::thread> senders;
  for (SessionManager* m : {a.manager.get(), b.manager.get()}) {
    senders.emplace_back([m, &id] {
      for (unsigned i = 0; i < 6; ++i) {
        check(*m, id, screen(i));
      }
    });
  }
  for (auto& sender : senders) {
    sender.join();
  }
  EXPECT_EQ(stop(*a.manager, id)["steps"], 12);
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
         EXPECT_EQ(refusal([&] { m.reject(id, std::nullopt); }).status, 409);
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
    EXPECT_EQ(refusal([&] { m.approve(id); }).status, 409);
  }
  EXPECT_EQ(instance.store->findBaseline(key), baseline);
}

TEST_F(SessionState, AnIdleSessionIsAbortedAndSaysItExpired) {
  SessionOptions options;
  options.idleTimeout = std::chrono::minutes(30);
  Instance instance = open(options);
  SessionManager& m = *instance.manager;
  const std::string busy = start(m, "Busy"), idle = start(m, "Idle");
  for (int round = 0; round < 3; ++round) {  // active every 20 minutes: never expires
    clockOffsetMs_ += 20 * 60'000;
    EXPECT_TRUE(check(m, busy, screen(round)));
  }
  const Refusal late = refusal([&] { check(m, idle, screen(1)); });
  EXPECT_EQ(late.status, 409);
  EXPECT_THAT(late.message, HasSubstr("expired"));
  EXPECT_EQ(refusal([&] { stop(m, idle, true); }).status, 409);
  EXPECT_EQ(m.results(idle, "")["isAborted"], true);
  EXPECT_EQ(stop(m, busy)["steps"], 3);

  // Sessions nobody uses again are swept by a later start.
  const std::string abandoned = start(m, "Abandoned");
  clockOffsetMs_ += 31 * 60'000;
  start(m, "Next");
  EXPECT_TRUE(instance.store->findSession(abandoned)->expired);
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
  EXPECT_EQ(refusal([&] { check(m, id, screen(3), "three"); }).status, 409);
  EXPECT_EQ(stop(m, id)["steps"], 2);
  start(m, "Second");
  start(m, "Third");
  EXPECT_EQ(refusal([&] { start(m, "Fourth"); }).status, 409);
  Json otherBatch = startInfo("Fourth");
  otherBatch["batchInfo"]["id"] = "B2";
  EXPECT_EQ(refusal([&] { m.start(otherBatch); }).status, 0);
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
