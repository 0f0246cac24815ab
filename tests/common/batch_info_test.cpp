#include "lumo/batch_info.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "lumo/app_environment.h"
#include "lumo/internal_inconsistency_exception.h"

namespace lumo {
namespace {

// Sets (or, with nullopt, unsets) an environment variable for the scope and restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = ::getenv(name)) {
      old_ = old;
    }
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    if (name_ == "TZ") {
      ::tzset();
    }
  }
  ~ScopedEnv() {
    old_ ? ::setenv(name_.c_str(), old_->c_str(), 1) : ::unsetenv(name_.c_str());
    if (name_ == "TZ") {
      ::tzset();
    }
  }

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// Canonical 8-4-4-4-12 upper-case hex with the random-UUID version and variant.
bool isUpperCaseUuid(const std::string& id) {
  if (id.size() != 36) {
    return false;
  }
  for (std::size_t i = 0; i < id.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = id[i];
    if (dash ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
      return false;
    }
  }
  return id[14] == '4' && std::string("89AB").find(id[19]) != std::string::npos;
}

// 2026-11-22 11:21:53 UTC.
const auto kStart = std::chrono::system_clock::from_time_t(1795346513);

TEST(BatchInfo, StartedAtDoublesTheTimeInLocalZone) {
  {
    ScopedEnv tz("TZ", "UTC0");
    EXPECT_EQ(BatchInfo::stringFromStartedAt(kStart), "2026-11-22T11:21:53+0000T11:21:53Z");
  }
  {
    ScopedEnv tz("TZ", "IST-5:30");
    EXPECT_EQ(BatchInfo::stringFromStartedAt(kStart), "2026-11-22T16:51:53+0530T16:51:53Z");
  }
}

TEST(BatchInfo, IdIsAFreshUpperCaseUuidWhenTheVariableIsUnset) {
  ScopedEnv id("BRIXTEL_BATCH_ID", std::nullopt);
  const BatchInfo a("a", kStart);
  const BatchInfo b("a", kStart);
  EXPECT_TRUE(isUpperCaseUuid(a.batchId())) << a.batchId();
  EXPECT_NE(a.batchId(), b.batchId());
}

// Every id draws fresh bytes: a forked process (a test runner's worker) must not repeat the
// ids of its parent, as it would with a generator state copied by the fork.
TEST(BatchInfo, ForkedProcessesMakeDifferentIds) {
  ScopedEnv id("BRIXTEL_BATCH_ID", std::nullopt);
  (void)BatchInfo("warm-up", kStart);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string childId = BatchInfo("a", kStart).batchId();
    const ssize_t written = write(fds[1], childId.data(), childId.size());
    _exit(written == static_cast<ssize_t>(childId.size()) ? 0 : 1);
  }
  close(fds[1]);
  const std::string parentId = BatchInfo("a", kStart).batchId();
  std::string childId(36, '\0');
  EXPECT_EQ(read(fds[0], childId.data(), childId.size()), 36);
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(isUpperCaseUuid(childId)) << childId;
  EXPECT_NE(parentId, childId);
}

TEST(BatchInfo, IdComesFromTheEnvironmentEvenWhenEmpty) {
  {
    ScopedEnv id("BRIXTEL_BATCH_ID", "abc");
    EXPECT_EQ(BatchInfo(std::nullopt).batchId(), "abc");
  }
  ScopedEnv id("BRIXTEL_BATCH_ID", "");
  const BatchInfo batch("name", kStart);
  EXPECT_EQ(batch.batchId(), "");
  EXPECT_EQ(batch.dictionary()["id"], "");
}

TEST(BatchInfo, EmptyOrMissingNameFallsBackToTheEnvironment) {
  ScopedEnv id("BRIXTEL_BATCH_ID", "id");
  {
    ScopedEnv name("BRIXTEL_BATCH_NAME", "nightly");
    EXPECT_EQ(BatchInfo("", kStart).name(), "nightly");
    EXPECT_EQ(BatchInfo(std::nullopt, kStart).name(), "nightly");
    EXPECT_EQ(BatchInfo("mine", kStart).name(), "mine");
  }
  ScopedEnv name("BRIXTEL_BATCH_NAME", std::nullopt);
  const BatchInfo nameless("", kStart);
  EXPECT_EQ(nameless.name(), std::nullopt);
  EXPECT_EQ(nameless.dictionary(),
            (Json{{"startedAt", BatchInfo::stringFromStartedAt(kStart)}, {"id", "id"}}));
}

TEST(BatchInfo, SetBatchIdRefusesNilAndEmpty) {
  ScopedEnv id("BRIXTEL_BATCH_ID", "old");
  BatchInfo batch("b", kStart);
  batch.setBatchId("new");
  EXPECT_EQ(
      batch.dictionary(),
      (Json{{"name", "b"}, {"startedAt", BatchInfo::stringFromStartedAt(kStart)}, {"id", "new"}}));
  try {
    batch.setBatchId(std::string());
    FAIL() << "empty id accepted";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_EQ(e.reason(), "batchId is empty");
  }
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
  EXPECT_EQ(full.description(),
            "[osInfo = iOS 17.2 hostingAppInfo = Shop 1.0 deviceInfo = iPhone 15 "
            "displaySize = 375.500000x667.000000]");
  EXPECT_EQ(AppEnvironment("inferred").dictionary(),
            Json::parse(R"({"displaySize":{"width":0,"height":0}})"));
}

}  // namespace
}  // namespace lumo
