#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

#include "lumo/json.h"
#include "lumo/server/baseline_store.h"
#include "lumo/server/image_comparer.h"

namespace lumo::server {

// A request the server refuses: the HTTP status to answer with and a message for the client.
// Nothing was changed by the request that raised it.
class ApiError : public std::runtime_error {
 public:
  ApiError(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// Largest screenshot accepted, in pixels: well above any phone or tablet screen.
inline constexpr std::uint64_t kDefaultMaxImagePixels = 50'000'000;

// The branch of sessions that name none; other branches fall back to its baselines.
inline constexpr std::string_view kDefaultBranch = "default";

// The protocol's logic: running sessions, matching windows against baselines, verdicts,
// saving and approving baselines. Thread-safe: sessions are independent of one another, and
// the calls of one session are taken one at a time. Failures are ApiError (bad input, unknown
// or stopped session) or StoreError (disk).
class SessionManager {
 public:
  // `store` must outlive the manager.
  explicit SessionManager(BaselineStore& store, ImageComparer comparer = ImageComparer(),
                          std::uint64_t maxImagePixels = kDefaultMaxImagePixels);
  ~SessionManager();
  SessionManager(const SessionManager&) = delete;
  SessionManager& operator=(const SessionManager&) = delete;

  struct Started {
    std::string id;
    bool isNew = false;  // no baseline was found, not even on the default branch
  };

  // Opens a running session for the start record (the object under "startInfo").
  Started start(const Json& startInfo);

  // Compares the match-window record's screenshot with the baseline step at the session's
  // position; true when the window is as expected. A mismatch is recorded (and the position
  // moves on) only when the record's options do not ask to ignore mismatches.
  bool match(const std::string& sessionId, const Json& matchData);

  // Ends the session and answers its test results, with links under `baseUrl` (scheme, host
  // and port, no trailing slash). With `updateBaseline` a new or differing test's images
  // become its baseline; an aborted session saves nothing.
  Json stop(const std::string& sessionId, bool aborted, bool updateBaseline,
            std::string_view baseUrl);

  // Makes a stopped session's images the baseline of its test and clears its rejections.
  void approve(const std::string& sessionId);

  // Rejects one step of a stopped session (by position) or, with nullopt, the whole test.
  // The session stays unresolved and the baseline unchanged, so the next run is compared
  // with the same baseline. Throws ApiError for a running, aborted or unknown session or a
  // position it does not have.
  void reject(const std::string& sessionId, std::optional<int> position);

  // The test results of a stopped session, as stop answered them (with later approval).
  Json results(const std::string& sessionId, std::string_view baseUrl) const;

  // The store given at construction.
  BaselineStore& store() const { return store_; }

 private:
  struct Running;

  std::shared_ptr<Running> running(const std::string& sessionId) const;
  [[noreturn]] void notRunning(const std::string& sessionId) const;

  BaselineStore& store_;
  ImageComparer comparer_;
  std::uint64_t maxImagePixels_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<Running>> running_;
};

}  // namespace lumo::server
