#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <thread>

#include "server_fixture.h"
#include "support/headless_browser.h"

namespace lumo::test {
namespace {

// A phone-sized screen: a list of rows, one price line varied by `price`.
Image phone(unsigned price) {
  Image image = solid(390, 844);
  fill(image, 0, 0, 390, 90, kBlue);
  text(image, 20, 40, 200, 20, 100, kWhite);
  for (int row = 0; row < 6; ++row) {
    text(image, 20, 130 + row * 90, 240, 14, 10 + row);
    text(image, 20, 154 + row * 90, 140, 10, 30 + row);
  }
  text(image, 280, 310, 80, 14, price);
  button(image, 40, 740, 310, 56, kRed, 7);
  return image;
}

// The results pages as a reviewer sees them: one real headless Chromium for the whole suite
// (CI starts one per run), against a fresh server for each test.
class PagesInBrowser : public ServerTest {
 protected:
  static void SetUpTestSuite() {
    try {
      browser_.emplace();
    } catch (const BrowserUnavailable& e) {
      unavailable_ = e.what();
    }
  }
  static void TearDownTestSuite() { browser_.reset(); }

  void SetUp() override {
    if (!browser_) {
      GTEST_SKIP() << "Chromium cannot start here, page tests skipped: " << unavailable_;
    }
    ServerTest::SetUp();
  }

  std::string page(const std::string& path) const { return server_->baseUrl() + path; }

  // Like waitFor, but also across a navigation the page starts itself (a form it submits).
  static bool eventually(const std::string& expression) {
    for (int attempt = 0; attempt < 400; ++attempt) {
      try {
        if (browser_->waitFor(expression)) {
          return true;
        }
      } catch (const std::runtime_error&) {
        // The old document went away mid-evaluation.
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return false;
  }

  static inline std::optional<HeadlessBrowser> browser_;
  static inline std::string unavailable_;
};

constexpr const char* kAllImagesLoaded =
    "[...document.images].length > 0 && "
    "[...document.images].every(i => i.complete && i.naturalWidth > 0)";

TEST_F(PagesInBrowser, AReviewerFindsTheChangeOverlaysItAndApprovesWithTheKeyboard) {
  const Json info = startInfo("Checkout");
  const std::string first = start(info, 201);
  check(first, phone(1), "cart");
  stop(first, true);
  const std::string second = start(info, 200);
  EXPECT_FALSE(check(second, phone(2), "cart"));
  stop(second, false);

  // The price's box and a dot, in both shapes a store may hold them.
  execSql(dir_.path(),
          "UPDATE steps SET boxes = "
          "'[{\"left\":276,\"top\":306,\"width\":88,\"height\":22},[1,2,3,4]]'");
  browser_->navigate(page("/sessions/" + second));
  ASSERT_TRUE(browser_->waitFor(kAllImagesLoaded));
  // Each action (a key when it is one character, else a script) and what the page then shows.
  const std::pair<const char*, const char*> steps[] = {
      // Each box is drawn over every frame (three side by side, one overlay).
      {"", "document.querySelectorAll('.step.on .box').length === 8"},
      // n selects it at 100 %.
      {"n",
       "document.querySelectorAll('.step.on .box.selected').length === 4 && "
       "document.querySelector('button[data-zoom=\"100\"]').getAttribute('aria-pressed') === "
       "'true'"},
      {"document.querySelector('button[data-zoom=fit]').click()", "location.hash === '#step-1'"},
      // Wipe overlay, then the one-key toggle shows the baseline and the current in turn.
      {"document.querySelector('button[data-mode=wipe]').click()",
       "document.querySelector('.step.on .pane.overlay').offsetParent !== null && "
       "document.querySelector('.step.on .pane.side').offsetParent === null"},
      {"t", "document.querySelector('.step.on img.top').style.opacity === '0'"},
      {"t", "document.querySelector('.step.on img.top').style.opacity === '1'"},
      {"document.querySelector('button[data-zoom=\"200\"]').click()",
       "document.querySelector('.step.on img.top').offsetWidth === 780"},
  };
  for (const auto& [action, shown] : steps) {
    if (std::strlen(action) == 1) {
      browser_->pressKey(action);
    } else if (*action) {
      browser_->evaluate(action);
    }
    EXPECT_TRUE(browser_->waitFor(shown)) << action << " => " << shown;
  }
  browser_->pressKey("a");
  ASSERT_TRUE(eventually("document.body.innerText.includes('saved as baseline')"));

  // The API sees the approval: the changed screen is now the baseline.
  const std::string third = start(info, 200);
  EXPECT_TRUE(check(third, phone(2), "cart"));
  EXPECT_EQ(stop(third, false)["status"], "Passed");
}

}  // namespace
}  // namespace lumo::test
