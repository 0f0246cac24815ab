#include <gtest/gtest.h>

#include <optional>

#include "server_fixture.h"
#include "support/headless_browser.h"

namespace lumo::server::testing {
namespace {

using test::BrowserUnavailable;
using test::HeadlessBrowser;

// The results pages as a reviewer sees them: one real headless Chromium for the whole suite,
// against a fresh server for each test.
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

  static inline std::optional<HeadlessBrowser> browser_;
  static inline std::string unavailable_;
};

TEST_F(PagesInBrowser, ASessionPageShowsItsImagesLoaded) {
  const std::string id = start(startInfo("Login"), 201);
  check(id, screen(), "home");
  stop(id, false);

  browser_->navigate(page("/"));
  EXPECT_TRUE(browser_->evaluate("document.body.innerText").get<std::string>().find("Login") !=
              std::string::npos);
  browser_->navigate(page("/sessions/" + id));
  EXPECT_TRUE(browser_->waitFor(
      "[...document.images].length > 0 && "
      "[...document.images].every(i => i.complete && i.naturalWidth > 0)"));
}

}  // namespace
}  // namespace lumo::server::testing
