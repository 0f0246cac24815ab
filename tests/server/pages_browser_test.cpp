#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <thread>

#include "server_fixture.h"
#include "support/headless_browser.h"

namespace lumo::test {
namespace {

// The results pages as a reviewer sees them: one real headless Chromium for the whole suite
// (CI starts one per run), against a fresh server for each test.
class PagesInBrowser : public ServerTest {
 protected:
  static void SetUpTestSuite() {
    try {
      sharedBrowser.emplace();
    } catch (const BrowserUnavailable& e) {
      unavailableReason = e.what();
    }
  }
  static void TearDownTestSuite() { sharedBrowser.reset(); }

  void SetUp() override {
    if (!sharedBrowser) {
      GTEST_SKIP() << "Chromium cannot start here, page tests skipped: " << unavailableReason;
    }
    ServerTest::SetUp();
  }

  std::string page(const std::string& path) const { return server_->baseUrl() + path; }

  // Like waitFor, but also across a navigation the page starts itself (a form it submits).
  static bool eventually(const std::string& expression) {
    for (int attempt = 0; attempt < 400; ++attempt) {
      try {
        if (sharedBrowser->waitFor(expression)) {
          return true;
        }
      } catch (const std::runtime_error&) {
        // The old document went away mid-evaluation.
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return false;
  }

  static inline std::optional<HeadlessBrowser> sharedBrowser;
  static inline std::string unavailableReason;
};

constexpr const char* kAllImagesLoaded =
    "[...document.images].length > 0 && "
    "[...document.images].every(i => i.complete && i.naturalWidth > 0)";

TEST_F(PagesInBrowser, AReviewerFindsTheChangeOverlaysItAndApprovesWithTheKeyboard) {
  const Json info = startInfo("Checkout");
  const std::string first = start(info, 201);
  check(first, screen(1), "home");
  stop(first, true);
  const std::string second = start(info, 200);
  EXPECT_FALSE(check(second, screen(2), "home"));
  stop(second, false);

  // The changed line's box and a dot, in both shapes a store may hold them.
  execSql(dir_.path(),
          "UPDATE steps SET boxes = "
          "'[{\"left\":20,\"top\":60,\"width\":160,\"height\":12},[1,2,3,4]]'");
  sharedBrowser->navigate(page("/sessions/" + second));
  ASSERT_TRUE(sharedBrowser->waitFor(kAllImagesLoaded));
  // Each action (a key when it is one character, else a script) and what the page then shows.
  const std::pair<const char*, const char*> steps[] = {
      // Each box is drawn over every frame (three side by side, one overlay).
      {"", "document.querySelectorAll('.step.on .box').length === 8"},
      // n selects it at 100 %.
      {"n",
       "document.querySelectorAll('.step.on .box.selected').length === 4 && "
       "document.querySelector('button[data-zoom=\"100\"]').getAttribute('aria-pressed') === "
       "'true'"},
      // Wipe overlay, then the one-key toggle shows the baseline and the current in turn.
      {"document.querySelector('button[data-mode=wipe]').click()",
       "document.querySelector('.step.on .pane.overlay').offsetParent !== null && "
       "document.querySelector('.step.on .pane.side').offsetParent === null"},
      {"t", "document.querySelector('.step.on img.top').style.opacity === '0'"},
      {"t", "document.querySelector('.step.on img.top').style.opacity === '1'"},
  };
  for (const auto& [action, shown] : steps) {
    if (std::strlen(action) == 1) {
      sharedBrowser->pressKey(action);
    } else if (*action) {
      sharedBrowser->evaluate(action);
    }
    EXPECT_TRUE(sharedBrowser->waitFor(shown)) << action << " => " << shown;
  }
  sharedBrowser->pressKey("a");
  ASSERT_TRUE(eventually("document.body.innerText.includes('saved as baseline')"));

  // The API sees the approval: the changed screen is now the baseline.
  const std::string third = start(info, 200);
  EXPECT_TRUE(check(third, screen(2), "home"));
  EXPECT_EQ(stop(third, false)["status"], "Passed");
}

}  // namespace
}  // namespace lumo::test
