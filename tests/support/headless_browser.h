#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include "lumo/detail/json.h"

namespace lumo::test {

// Chromium could not be started here (not installed, or it failed to come up). Page tests
// skip with the message instead of failing.
class BrowserUnavailable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A real headless Chromium with one page, driven over its DevTools protocol on a pipe
// (--remote-debugging-pipe: no port, no websocket, nothing downloaded). One thread only.
// Every call waits at most the browser's time-out and throws std::runtime_error past it or
// when the page reports an exception.
class HeadlessBrowser {
 public:
  // Starts `chromium` (or $LUMO_CHROMIUM) with an empty profile in a temporary directory and a
  // window of the given size. Throws BrowserUnavailable.
  explicit HeadlessBrowser(int width = 1280, int height = 900,
                           std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Closes the browser, kills it if it lingers, and removes its profile.
  ~HeadlessBrowser();
  HeadlessBrowser(const HeadlessBrowser&) = delete;
  HeadlessBrowser& operator=(const HeadlessBrowser&) = delete;

  // Loads `url` and returns once its load event fired.
  void navigate(const std::string& url);
  // The value of a JavaScript expression (promises awaited), as JSON.
  Json evaluate(const std::string& expression);
  // Waits until `expression` is truthy; false when the time-out passes first.
  bool waitFor(const std::string& expression);
  // Types one key (a printable character such as "j") into the focused page.
  void pressKey(std::string_view key);

 private:
  Json call(const std::string& method, Json params, bool onPage = true);
  Json readMessage();

  std::filesystem::path profile_;
  pid_t pid_ = -1;
  int toBrowser_ = -1;
  int fromBrowser_ = -1;
  std::string buffer_;
  std::string sessionId_;
  int nextId_ = 1;
  bool loaded_ = false;
  std::chrono::milliseconds timeout_;
};

}  // namespace lumo::test
