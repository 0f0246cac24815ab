#include "support/headless_browser.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

namespace lumo::test {
namespace {

using Clock = std::chrono::steady_clock;

// The flags a sandboxed CI machine needs: no network of Chromium's own (its connections are
// refused here, many at a time), no sandbox when run as root, no GPU.
std::vector<std::string> chromiumArguments(const std::filesystem::path& profile, int width,
                                           int height) {
  const char* binary = getenv("LUMO_CHROMIUM");
  return {binary ? binary : "chromium",
          "--headless",
          "--no-sandbox",
          "--disable-gpu",
          "--disable-quic",
          "--no-first-run",
          "--disable-background-networking",
          "--disable-component-update",
          "--disable-sync",
          "--disable-extensions",
          "--hide-scrollbars",
          "--remote-debugging-pipe",
          "--user-data-dir=" + profile.string(),
          "--window-size=" + std::to_string(width) + "," + std::to_string(height),
          "about:blank"};
}

void writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      throw std::runtime_error("the browser closed its pipe");
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace

HeadlessBrowser::HeadlessBrowser(int width, int height, std::chrono::milliseconds timeout)
    : timeout_(timeout) {
  std::string pattern = (std::filesystem::temp_directory_path() / "lumo-browser-XXXXXX").string();
  if (!mkdtemp(pattern.data())) {
    throw BrowserUnavailable("cannot create a browser profile directory");
  }
  profile_ = pattern;
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
    throw BrowserUnavailable("cannot create the browser's pipes");
  }
  const auto arguments = chromiumArguments(profile_, width, height);
  std::vector<char*> argv;
  for (const auto& a : arguments) {
    argv.push_back(const_cast<char*>(a.c_str()));
  }
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    // The protocol pipe is fds 3 (commands in) and 4 (answers out) by Chromium's convention.
    // Moved out of the way first: a pipe end that already is fd 3 would keep its close-on-exec
    // flag through dup2 onto itself, and the browser would find no pipe.
    const int commands = fcntl(in[0], F_DUPFD_CLOEXEC, 10);
    const int answers = fcntl(out[1], F_DUPFD_CLOEXEC, 10);
    dup2(commands, 3);
    dup2(answers, 4);
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, 1);
    dup2(devNull, 2);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  toBrowser_ = in[1];
  fromBrowser_ = out[0];
  if (pid_ < 0) {
    throw BrowserUnavailable("cannot fork the browser");
  }
  try {
    const Json target = call("Target.createTarget", {{"url", "about:blank"}}, false);
    const Json attached = call("Target.attachToTarget",
                               {{"targetId", target.at("targetId")}, {"flatten", true}}, false);
    sessionId_ = attached.at("sessionId").get<std::string>();
    call("Page.enable", Json::object());
  } catch (const std::exception& e) {
    throw BrowserUnavailable(std::string("chromium did not start: ") + e.what());
  }
}

HeadlessBrowser::~HeadlessBrowser() {
  if (pid_ > 0) {
    try {
      const Json close = {{"id", nextId_++}, {"method", "Browser.close"}};
      writeAll(toBrowser_, close.dump() + '\0');
    } catch (const std::exception&) {
    }
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (waitpid(pid_, nullptr, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  close(toBrowser_);
  close(fromBrowser_);
  std::error_code ec;
  std::filesystem::remove_all(profile_, ec);
}

Json HeadlessBrowser::readMessage() {
  const auto deadline = Clock::now() + timeout_;
  for (;;) {
    const auto end = buffer_.find('\0');
    if (end != std::string::npos) {
      Json message = Json::parse(buffer_.substr(0, end));
      buffer_.erase(0, end + 1);
      if (message.value("method", "") == "Page.loadEventFired") {
        loaded_ = true;
      }
      return message;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd fd{fromBrowser_, POLLIN, 0};
    if (left <= 0 || poll(&fd, 1, static_cast<int>(left)) == 0) {
      throw std::runtime_error("the browser did not answer in time");
    }
    char chunk[65536];
    const ssize_t n = ::read(fromBrowser_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      throw std::runtime_error("the browser exited");
    }
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

Json HeadlessBrowser::call(const std::string& method, Json params, bool onPage) {
  const int id = nextId_++;
  Json command = {{"id", id}, {"method", method}, {"params", std::move(params)}};
  if (onPage) {
    command["sessionId"] = sessionId_;
  }
  writeAll(toBrowser_, command.dump() + '\0');
  for (;;) {
    Json message = readMessage();
    if (message.value("id", 0) != id) {
      continue;
    }
    if (message.contains("error")) {
      throw std::runtime_error(method + " failed: " + message["error"].dump());
    }
    return message.value("result", Json::object());
  }
}

void HeadlessBrowser::navigate(const std::string& url) {
  loaded_ = false;
  const Json result = call("Page.navigate", {{"url", url}});
  if (result.contains("errorText")) {
    throw std::runtime_error("cannot load " + url + ": " + result["errorText"].dump());
  }
  while (!loaded_) {
    readMessage();
  }
}

Json HeadlessBrowser::evaluate(const std::string& expression) {
  const Json result =
      call("Runtime.evaluate",
           {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
  if (result.contains("exceptionDetails")) {
    throw std::runtime_error("script failed: " + result["exceptionDetails"].dump());
  }
  return result.at("result").value("value", Json());
}

bool HeadlessBrowser::waitFor(const std::string& expression) {
  const auto deadline = Clock::now() + timeout_;
  while (Clock::now() < deadline) {
    const Json value = evaluate("!!(" + expression + ")");
    if (value.is_boolean() && value.get<bool>()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return false;
}

void HeadlessBrowser::pressKey(std::string_view key) {
  const std::string text(key);
  call("Input.dispatchKeyEvent", {{"type", "keyDown"}, {"key", text}, {"text", text}});
  call("Input.dispatchKeyEvent", {{"type", "keyUp"}, {"key", text}});
}

}  // namespace lumo::test
