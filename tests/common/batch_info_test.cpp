#include "lumo/batch_info.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "lumo/app_environment.h"
#include "lumo/internal_inconsistency_exception.h"
#include "support/scoped_env.h"

namespace lumo::test {
namespace {

// Canonical 8-4-4-4-12 upper-case hex with the random-UUID version and variant.
bool isUpperCaseUuid(const std::string& id) {
  static const std::regex uuid(
      "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  return std::regex_match(id, uuid);
}

// 2026-11-22 11:21:53 UTC.
const auto kStart = std::chrono::system_clock::from_time_t(1795346513);

TEST(BatchInfo, StartedAtDoublesTheTimeInLocalZone) {
  for (const auto& [zone, text] : {std::pair{"UTC0", "2026-11-22T11:21:53+0000T11:21:53Z"},
                                   std::pair{"IST-5:30", "2026-11-22T16:51:53+0530T16:51:53Z"}}) {
    ScopedEnv tz("TZ", zone);
    ::tzset();
    EXPECT_EQ(BatchInfo::stringFromStartedAt(kStart), text);
  }
  ::tzset();  // the zone the scopes put back
}

// Every id draws fresh bytes: a forked process (a test runner's worker) must not repeat the
// ids of its parent, as it would with a generator state copied by the fork.
TEST(BatchInfo, IdIsAFreshUpperCaseUuidEvenInAForkedProcess) {
  ScopedEnv id("BRIXTEL_BATCH_ID", nullptr);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string childId = BatchInfo("a", kStart).batchId();
    _exit(::write(fds[1], childId.data(), childId.size()) == 36 ? 0 : 1);
  }
  close(fds[1]);
  const std::string parentId = BatchInfo("a", kStart).batchId();
  std::string childId(36, '\0');
  EXPECT_EQ(::read(fds[0], childId.data(), childId.size()), 36);
  close(fds[0]);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(isUpperCaseUuid(parentId)) << parentId;
  EXPECT_NE(parentId, childId);
}

TEST(BatchInfo, IdAndNameComeFromTheEnvironment) {
  {
    ScopedEnv id("BRIXTEL_BATCH_ID", "abc");
    ScopedEnv name("BRIXTEL_BATCH_NAME", "nightly");
    EXPECT_EQ(BatchInfo(std::nullopt).batchId(), "abc");
    EXPECT_EQ(BatchInfo("", kStart).name(), "nightly");
    EXPECT_EQ(BatchInfo("mine", kStart).name(), "mine");
  }
  // An empty id is still the environment's; a name found nowhere is not written.
  ScopedEnv id("BRIXTEL_BATCH_ID", "");
  ScopedEnv name("BRIXTEL_BATCH_NAME", nullptr);
  const BatchInfo nameless("", kStart);
  EXPECT_EQ(nameless.name(), std::nullopt);
  EXPECT_EQ(nameless.dictionary(),
            (Json{{"startedAt", BatchInfo::stringFromStartedAt(kStart)}, {"id", ""}}));
}

TEST(BatchInfo, SetBatchIdRefusesNilAndEmpty) {
  BatchInfo batch("b", kStart);
  batch.setBatchId("new");
  EXPECT_THROW(batch.setBatchId(std::string()), InternalInconsistencyException);
  EXPECT_THROW(batch.setBatchId(std::nullopt), InternalInconsistencyException);
  EXPECT_EQ(batch.batchId(), "new");
}

TEST(AppEnvironment, WritesDisplaySizeAlwaysAndOnlyNonEmptyStrings) {
  const AppEnvironment viewportOnly(std::nullopt, "", std::nullopt, Size{320, 568});
  EXPECT_EQ(viewportOnly.dictionary(),
            Json::parse(R"({"displaySize":{"width":320,"height":568}})"));
  EXPECT_EQ(viewportOnly.description(),
            "[osInfo = ? hostingAppInfo = ? deviceInfo = ? displaySize = 320.000000x568.000000]");

  AppEnvironment full("iOS 17.2", "Shop 1.0", "iPhone 15", Size{375.5, 667});
  full.setInferred("never written");
  EXPECT_EQ(full.dictionary(), Json::parse(R"({"displaySize":{"width":375.5,"height":667},
      "OSInfo":"iOS 17.2","HostingAppInfo":"Shop 1.0","DeviceInfo":"iPhone 15"})"));
}

}  // namespace
}  // namespace lumo::test
