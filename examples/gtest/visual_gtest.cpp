// Visual checkpoints in GoogleTest tests: each test is a visual test named after it
// ("Checkout.ShowsTheCart"), closed after the test body; differences fail the test with the
// link to the results page.
//   export LUMO_SERVER_URL=http://127.0.0.1:8088 BRIXTEL_API_KEY=lumo-demo-key
//   LUMO_CAPTURE="adb exec-out screencap -p" build/visual_gtest
#include <cstdlib>
#include <memory>
#include <string>

#include "lumo/gtest.h"

namespace {

std::string environment(const char* name, const char* fallback = "") {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

class Checkout : public lumo::gtest::VisualTestFixture {
 protected:
  void SetUp() override {
    if (environment("LUMO_SERVER_URL").empty()) {
      GTEST_SKIP() << "set LUMO_SERVER_URL to the visual-testing server";
    }
    VisualTestFixture::SetUp();
  }

  lumo::gtest::VisualTestConfig visualTestConfig() override {
    auto source = std::make_shared<lumo::CommandScreenshotSource>(
        environment("LUMO_CAPTURE", "adb exec-out screencap -p"));
    source->setScaleRatio(3);  // pixels per point
    source->setStatusBarHeight(24);
    return {.serverUrl = environment("LUMO_SERVER_URL"),
            .apiKey = environment("BRIXTEL_API_KEY", "lumo-demo-key"),
            .appName = "Shop",
            .viewport = {360, 640},
            .source = source,
            .batch = batch()};
  }

  // One batch for the whole run, so that its tests appear together.
  static std::shared_ptr<lumo::BatchInfo> batch() {
    static auto batch = std::make_shared<lumo::BatchInfo>("Checkout tests");
    return batch;
  }
};

TEST_F(Checkout, ShowsTheCart) {
  // The clock in the status bar changes every minute: leave it out.
  check("Cart", lumo::CheckSettings().ignore({lumo::Region(0, 0, 360, 24)}));
}

TEST_F(Checkout, ShowsThePaymentForm) { check("Payment"); }

}  // namespace
