#include "review_access.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace lumo::server::detail {
namespace {

// 256 bits from the system's cryptographic generator, as hex.
std::string randomToken() {
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("no random bytes for a session token");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string token;
  for (unsigned char b : bytes) {
    token += kHex[b >> 4];
    token += kHex[b & 15];
  }
  return token;
}

// Compares in time independent of where the texts differ, so a guess learns nothing.
bool sameSecret(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::string cookieValue(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    const auto end = header.find(';');
    const std::string_view pair = trim(header.substr(0, end));
    const auto equals = pair.find('=');
    if (equals != std::string_view::npos && trim(pair.substr(0, equals)) == name) {
      return std::string(trim(pair.substr(equals + 1)));
    }
    header.remove_prefix(end == std::string_view::npos ? header.size() : end + 1);
  }
  return {};
}

ReviewAccess::ReviewAccess(std::vector<std::string> apiKeys, bool open,
                           std::chrono::seconds lifetime, Clock clock)
    : keys_(std::move(apiKeys)),
      open_(open),
      lifetime_(lifetime),
      clock_(std::move(clock)),
      openFormToken_(randomToken()) {}

std::optional<std::string> ReviewAccess::signIn(std::string_view key) {
  const bool known = std::any_of(keys_.begin(), keys_.end(),
                                 [&](const std::string& k) { return sameSecret(k, key); });
  if (!known || key.empty()) {
    return std::nullopt;
  }
  const auto now = clock_();
  std::lock_guard lock(mutex_);
  std::erase_if(sessions_, [&](const auto& entry) { return entry.second.expires <= now; });
  if (sessions_.size() >= kMaxSessions) {
    const auto oldest = std::min_element(
        sessions_.begin(), sessions_.end(),
        [](const auto& a, const auto& b) { return a.second.expires < b.second.expires; });
    sessions_.erase(oldest);
  }
  std::string token = randomToken();
  sessions_.emplace(token, Session{randomToken(), now + lifetime_});
  return token;
}

void ReviewAccess::signOut(std::string_view cookieHeader) {
  std::lock_guard lock(mutex_);
  sessions_.erase(cookieValue(cookieHeader, kCookieName));
}

ReviewAccess::Session* ReviewAccess::live(std::string_view cookieHeader) {
  const std::string token = cookieValue(cookieHeader, kCookieName);
  const auto it = sessions_.find(token);
  if (it == sessions_.end()) {
    return nullptr;
  }
  if (it->second.expires <= clock_()) {
    sessions_.erase(it);
    return nullptr;
  }
  return &it->second;
}

std::optional<std::string> ReviewAccess::formToken(std::string_view cookieHeader) {
  if (open_) {
    return openFormToken_;
  }
  std::lock_guard lock(mutex_);
  const Session* session = live(cookieHeader);
  return session ? std::optional(session->formToken) : std::nullopt;
}

bool ReviewAccess::mayPost(std::string_view cookieHeader, std::string_view formToken) {
  const auto expected = this->formToken(cookieHeader);
  return expected && sameSecret(*expected, formToken);
}

std::string ReviewAccess::cookie(std::string_view token, bool secure) const {
  const auto maxAge = token.empty() ? std::chrono::seconds(0) : lifetime_;
  return fmt::format("{}={}; Path=/; Max-Age={}; HttpOnly; SameSite=Strict{}", kCookieName, token,
                     maxAge.count(), secure ? "; Secure" : "");
}

}  // namespace lumo::server::detail
