#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Who may see the results pages. A server that accepts only the demo key keeps them open; any
// other set of keys asks a person for one key once, on a sign-in page, and then knows them by
// a random session token in a cookie. The token's session and its anti-forgery token live only
// here, in memory: a restart signs everyone out.
namespace lumo::server::detail {

class ReviewAccess {
 public:
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  static constexpr std::string_view kCookieName = "lumo_session";
  static constexpr std::chrono::hours kDefaultLifetime{12};
  // Sessions kept at most; signing in beyond it drops the oldest.
  static constexpr std::size_t kMaxSessions = 10'000;

  // `open`: pages need no sign-in. `lifetime` bounds each sign-in; `clock` is for tests.
  ReviewAccess(std::vector<std::string> apiKeys, bool open,
               std::chrono::seconds lifetime = kDefaultLifetime,
               Clock clock = std::chrono::system_clock::now);

  bool open() const { return open_; }

  // Starts a session when `key` is one of the server's keys; its token, else nullopt.
  std::optional<std::string> signIn(std::string_view key);
  // Ends the session the cookie names, if any.
  void signOut(std::string_view cookieHeader);

  // The anti-forgery token pages embed in their forms: the session's when the Cookie header
  // names a live one, the server's own when pages are open; nullopt when a sign-in is needed.
  std::optional<std::string> formToken(std::string_view cookieHeader);
  // Whether a POST from a page may change anything: a live session (or open pages) and the
  // matching anti-forgery token.
  bool mayPost(std::string_view cookieHeader, std::string_view formToken);

  // The Set-Cookie value that hands `token` to the browser, or (empty token) removes it.
  std::string cookie(std::string_view token, bool secure) const;

 private:
  struct Session {
    std::string formToken;
    std::chrono::system_clock::time_point expires;
  };

  Session* live(std::string_view cookieHeader);

  std::vector<std::string> keys_;
  bool open_;
  std::chrono::seconds lifetime_;
  Clock clock_;
  std::string openFormToken_;
  std::mutex mutex_;
  std::map<std::string, Session, std::less<>> sessions_;
};

// The value of cookie `name` in a Cookie header; empty when absent.
std::string cookieValue(std::string_view header, std::string_view name);

}  // namespace lumo::server::detail
