#pragma once

// Visual checkpoints inside GoogleTest tests. Header-only: only a test that includes it needs
// GoogleTest, the library itself does not.
//
//   class LoginTest : public lumo::gtest::VisualTestFixture {
//    protected:
//     lumo::gtest::VisualTestConfig visualTestConfig() override {
//       return {.serverUrl = "http://127.0.0.1:8088", .apiKey = "lumo-demo-key",
//               .appName = "Shop", .viewport = {390, 844}, .source = mySource()};
//     }
//   };
//   TEST_F(LoginTest, ShowsTheForm) { check("Login"); }  // closed and judged after the test

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "lumo/batch_info.h"
#include "lumo/check_settings.h"
#include "lumo/error.h"
#include "lumo/exception.h"
#include "lumo/geometry.h"
#include "lumo/lumo.h"
#include "lumo/match_result.h"
#include "lumo/region.h"
#include "lumo/running_session.h"
#include "lumo/screenshot_source.h"
#include "lumo/test_results.h"

namespace lumo::gtest {

// How the GoogleTest helpers open a visual test.
// Every member has a default, so designated initializers may leave any out.
struct VisualTestConfig {
  std::string serverUrl{};  // the visual-testing server, e.g. "https://lumo.example:8088"
  std::string apiKey{};
  std::string appName{};  // empty: the test suite's name
  Size viewport{};        // in points
  std::shared_ptr<ScreenshotSource> source{};
  // Whether a new baseline (the first run of a test) fails the GoogleTest test. Off: the
  // test passes and the link to approve the baseline is printed and recorded.
  bool newBaselineFails = false;
  // Shared by the tests that should appear together on the results pages; null: each test
  // gets a batch of its own.
  std::shared_ptr<BatchInfo> batch{};
  // Any further setting (branch, match level, match timeout, ...), applied before opening.
  std::function<void(Lumo&)> configure{};
};

// The verdict of a finished visual test, as the helpers reported it.
enum class Verdict { Passed, NewBaseline, Differences, Failed, NotJudged };

// One visual test for the GoogleTest test running on this thread, named
// "<TestSuite>.<Test>". finish() closes it and reports the verdict through GoogleTest:
// differences or a failed test add a failure with the results link, a new baseline does when
// newBaselineFails is on. The link is recorded as the test property "lumo_results" (it shows
// in --gtest_output=xml). Use it on the test's thread, within the test.
class VisualTest {
 public:
  // Opens the test (no request is sent until the first check). Throws std::logic_error
  // outside a running test, std::invalid_argument without a source and lumo::Exception
  // without an API key.
  explicit VisualTest(VisualTestConfig config) : config_(std::move(config)) {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    if (info == nullptr) {
      throw std::logic_error("lumo::gtest::VisualTest must be made inside a running test");
    }
    if (!config_.source) {
      throw std::invalid_argument("lumo::gtest::VisualTestConfig: no screenshot source");
    }
    testName_ = std::string(info->test_suite_name()) + "." + info->name();
    lumo_ = std::make_unique<Lumo>(config_.serverUrl, config_.source);
    lumo_->setApiKey(config_.apiKey);
    if (config_.batch) {
      lumo_->setBatch(config_.batch);
    }
    if (config_.configure) {
      config_.configure(*lumo_);
    }
    lumo_->open(config_.appName.empty() ? info->test_suite_name() : config_.appName, testName_,
                config_.viewport);
  }
  // Finishes the test if finish() was not called.
  ~VisualTest() { finish(); }
  VisualTest(const VisualTest&) = delete;
  VisualTest& operator=(const VisualTest&) = delete;

  // Checkpoints, as Lumo::check and Lumo::checkRegion (mismatches surface at finish()). A
  // server that cannot be reached or does not answer adds a failure and returns null; the
  // test's later checkpoints then do nothing and finish() aborts the test.
  std::shared_ptr<MatchResult> check(const std::string& tag,
                                     const CheckSettings& settings = CheckSettings()) {
    return guarded([&] { return lumo_->check(tag, settings); });
  }
  std::shared_ptr<MatchResult> checkRegion(const Region& region, const std::string& tag,
                                           const CheckSettings& settings = CheckSettings()) {
    return guarded([&] { return lumo_->checkRegion(region, tag, settings); });
  }

  // Closes the test and reports its verdict; later calls only return it. A test that failed
  // fatally (an ASSERT or an exception) or was skipped is aborted instead: its checkpoints
  // are incomplete and must not become a baseline.
  Verdict finish() {
    if (verdict_) {
      return *verdict_;
    }
    verdict_ = Verdict::NotJudged;
    if (!lumo_->isOpen()) {
      return *verdict_;
    }
    if (broken_ || ::testing::Test::HasFatalFailure() || ::testing::Test::IsSkipped()) {
      lumo_->abortIfNotClosed();
      return *verdict_;
    }
    Error error;
    try {
      results_ = lumo_->closeWithThrow(false, &error);
    } catch (const Exception& e) {
      // Only a server that stays silent raises here.
      lumo_->abortIfNotClosed();
      ADD_FAILURE() << testName_ << ": " << e.reason();
      return *verdict_;
    }
    verdict_ = report(error);
    return *verdict_;
  }

  // The server's results once finished (null before, or when none came).
  const std::shared_ptr<TestResults>& results() const { return results_; }
  const std::string& testName() const { return testName_; }
  // The controller, for what the helpers do not cover.
  Lumo& lumo() { return *lumo_; }

 private:
  template <typename Check>
  std::shared_ptr<MatchResult> guarded(Check check) {
    if (broken_) {
      return nullptr;
    }
    try {
      auto result = check();
      // Closing a test whose session never started would give empty results that read
      // as passed.
      const auto session = lumo_->runningSession();
      if (!session || !session->sessionId()) {
        fail("did not start a session (is the API key right?)");
      }
      return result;
    } catch (const Exception& e) {
      // Only a server that cannot be reached or stays silent raises here.
      fail("did not answer: " + e.reason());
      return nullptr;
    }
  }
  void fail(const std::string& what) {
    broken_ = true;
    ADD_FAILURE() << testName_ << ": the server at " << config_.serverUrl << " " << what;
  }

  Verdict report(const Error& error) {
    if (!results_) {
      ADD_FAILURE() << testName_ << ": the server gave no verdict";
      return Verdict::NotJudged;
    }
    if (results_->url()) {
      ::testing::Test::RecordProperty("lumo_results", *results_->url());
    }
    if (results_->status() == TestResultsStatusPassed) {
      return Verdict::Passed;
    }
    const std::string& message = error.localizedDescription();
    if (results_->status() == TestResultsStatusUnresolved && results_->isNew()) {
      if (config_.newBaselineFails) {
        ADD_FAILURE() << message;
      } else {
        std::cout << "[   LUMO   ] " << message << std::endl;
      }
      return Verdict::NewBaseline;
    }
    ADD_FAILURE() << message;
    return results_->status() == TestResultsStatusFailed ? Verdict::Failed : Verdict::Differences;
  }

  VisualTestConfig config_;
  std::unique_ptr<Lumo> lumo_;
  std::string testName_;
  bool broken_ = false;
  std::optional<Verdict> verdict_;
  std::shared_ptr<TestResults> results_;
};

// A fixture that opens a VisualTest before each test and finishes it after: derive, return
// the configuration from visualTestConfig() and call check() in the test body. A subclass
// overriding SetUp or TearDown calls the fixture's first (SetUp) or last (TearDown).
class VisualTestFixture : public ::testing::Test {
 protected:
  // Called once per test, before it runs.
  virtual VisualTestConfig visualTestConfig() = 0;

  void SetUp() override { visualTest_ = std::make_unique<VisualTest>(visualTestConfig()); }
  void TearDown() override {
    if (visualTest_) {
      visualTest_->finish();
    }
  }

  std::shared_ptr<MatchResult> check(const std::string& tag,
                                     const CheckSettings& settings = CheckSettings()) {
    return visualTest().check(tag, settings);
  }
  std::shared_ptr<MatchResult> checkRegion(const Region& region, const std::string& tag,
                                           const CheckSettings& settings = CheckSettings()) {
    return visualTest().checkRegion(region, tag, settings);
  }
  // Valid from SetUp until the fixture is destroyed.
  VisualTest& visualTest() { return *visualTest_; }

 private:
  std::unique_ptr<VisualTest> visualTest_;
};

}  // namespace lumo::gtest
