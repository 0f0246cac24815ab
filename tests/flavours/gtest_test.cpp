#include "lumo/gtest.h"

#include <gtest/gtest-spi.h>

#include <memory>
#include <string>

#include "lumo/server/server.h"
#include "server/temp_dir.h"
#include "support/test_images.h"

namespace lumo::test {
namespace {

using gtest::Verdict;
using gtest::VisualTest;
using gtest::VisualTestConfig;

ImagePtr screen(std::uint8_t shade, int mark = 0) {
  return std::make_shared<const Image>(markedScreen(60, 80, shade, mark));
}

// The reference server on a loopback port, started once for the program; each test is its own
// visual test, so the tests do not see each other's baselines.
class EmbeddedServer : public ::testing::Environment {
 public:
  void SetUp() override {
    data = std::make_unique<TempDir>();
    server::ServerConfig config;
    config.dataDir = data->path();
    instance = std::make_unique<server::Server>(config);
    instance->start();
  }
  void TearDown() override {
    instance->stop();
    instance.reset();
    data.reset();
  }
  static inline std::unique_ptr<TempDir> data;
  static inline std::unique_ptr<server::Server> instance;
};
const auto* const kEmbeddedServer = ::testing::AddGlobalTestEnvironment(new EmbeddedServer);

VisualTestConfig config(ImagePtr image, bool newBaselineFails = false) {
  return {.serverUrl = EmbeddedServer::instance->baseUrl(),
          .apiKey = std::string(server::kDemoApiKey),
          .appName = "Shop",
          .viewport = {60, 80},
          .source = std::make_shared<MemoryScreenshotSource>(std::vector<ImagePtr>{image}),
          .newBaselineFails = newBaselineFails,
          .configure = [](Lumo& lumo) { lumo.setMatchTimeout(0); }};
}

// One run of the current test's visual test: a checkpoint of `image`, then finish().
Verdict run(ImagePtr image, bool newBaselineFails = false) {
  VisualTest visual(config(std::move(image), newBaselineFails));
  visual.check("Home");
  return visual.finish();
}

using VisualTestTest = ::testing::Test;

TEST_F(VisualTestTest, IsNamedAfterTheTestAndReportsOnce) {
  VisualTest visual(config(screen(90)));
  visual.check("Home");
  EXPECT_EQ(visual.finish(), Verdict::NewBaseline);
  ASSERT_TRUE(visual.results());
  EXPECT_EQ(visual.results()->name(), "VisualTestTest.IsNamedAfterTheTestAndReportsOnce");
  EXPECT_EQ(visual.finish(), Verdict::NewBaseline);
}

TEST_F(VisualTestTest, EachVerdictBecomesTheRightGoogleTestOutcome) {
  // The same visual test run again: a new baseline (failing, as asked), the same screen,
  // then a changed one.
  EXPECT_NONFATAL_FAILURE(EXPECT_EQ(run(screen(90), true), Verdict::NewBaseline),
                          "Please approve the new baseline at http://127.0.0.1:");
  EXPECT_EQ(run(screen(90), true), Verdict::Passed);
  EXPECT_NONFATAL_FAILURE(EXPECT_EQ(run(screen(90, 20)), Verdict::Differences),
                          "detected differences! See details at: http://127.0.0.1:");
}

TEST_F(VisualTestTest, AnUnreachableServerFailsTheTest) {
  auto unreachable = config(screen(90));
  unreachable.serverUrl = "http://127.0.0.1:1";  // nothing listens there
  EXPECT_NONFATAL_FAILURE(
      {
        VisualTest visual(unreachable);
        EXPECT_FALSE(visual.check("Home"));
        EXPECT_EQ(visual.finish(), Verdict::NotJudged);
      },
      "the server at http://127.0.0.1:1 did not answer");
}

// The fixture opens the visual test before the body and judges it after; TearDown checks
// the verdict it reached.
class Checkout : public gtest::VisualTestFixture {
 protected:
  VisualTestConfig visualTestConfig() override { return config(screen(120)); }
  void TearDown() override {
    VisualTestFixture::TearDown();
    EXPECT_EQ(visualTest().finish(), expected_);
  }

  Verdict expected_ = Verdict::NewBaseline;
};

TEST_F(Checkout, ChecksInTheBodyAreJudgedAfterIt) { ASSERT_TRUE(check("Cart")); }

TEST_F(Checkout, ASkippedTestIsAbortedNotJudged) {
  check("Cart");
  expected_ = Verdict::NotJudged;
  GTEST_SKIP() << "skipped after a checkpoint on purpose";
}

}  // namespace
}  // namespace lumo::test
