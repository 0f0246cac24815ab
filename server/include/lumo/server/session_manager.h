#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "lumo/detail/json.h"
#include "lumo/server/image_comparer.h"
#include "lumo/server/store.h"

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

inline constexpr int kDefaultMaxStepsPerSession = 1'000;
inline constexpr int kDefaultMaxSessionsPerBatch = 10'000;
inline constexpr std::chrono::minutes kDefaultSessionIdleTimeout{30};
inline constexpr std::size_t kDefaultBaselineCacheBytes = std::size_t{256} << 20;

// Bounds and clock of a SessionManager.
struct SessionOptions {
  int maxStepsPerSession = kDefaultMaxStepsPerSession;
  int maxSessionsPerBatch = kDefaultMaxSessionsPerBatch;
  // A running session without a request for this long is aborted as expired.
  std::chrono::milliseconds idleTimeout = kDefaultSessionIdleTimeout;
  // Decoded baselines kept in memory, shared by all sessions; 0 keeps none.
  std::size_t baselineCacheBytes = kDefaultBaselineCacheBytes;
  // The wall clock: sessions outlive the process, so their times are Unix times.
  std::function<std::chrono::system_clock::time_point()> clock = std::chrono::system_clock::now;
};

namespace detail {
class BaselineCache;
class StepFinisher;
}  // namespace detail

// The protocol's logic: matching windows against baselines, verdicts, saving and approving
// baselines. Every session's state lives in the store, so a manager keeps nothing but caches:
// a restarted server, or another manager on the same store, carries on any running session.
// Thread-safe. Failures are ApiError (bad input, unknown, foreign, stopped or expired
// session, a limit) or StoreError (disk).
//
// The `apiKey` of each call is the key the request came with: a session started with a key
// answers only to that key (403 to others). An empty key skips the check, for callers that
// authorise otherwise.
class SessionManager {
 public:
  // `store` must outlive the manager.
  explicit SessionManager(Store& store, ImageComparer comparer = ImageComparer(),
                          std::uint64_t maxImagePixels = kDefaultMaxImagePixels,
                          SessionOptions options = {});
  ~SessionManager();
  SessionManager(const SessionManager&) = delete;
  SessionManager& operator=(const SessionManager&) = delete;

  struct Started {
    std::string id;
    bool isNew = false;  // no baseline was found, not even on the default branch
  };

  // Opens a running session for the start record (the object under "startInfo").
  Started start(const Json& startInfo, std::string_view apiKey = {});

  // Compares the match-window record's screenshot with the baseline step at the session's
  // position; true when the window is as expected. A mismatch is recorded (and the position
  // moves on) only when the record's options do not ask to ignore mismatches. The record is
  // taken whole so that its screenshot is decoded where it lies, not copied.
  bool match(const std::string& sessionId, Json matchData, std::string_view apiKey = {});

  // Ends the session and answers its test results, with links under `baseUrl` (scheme, host
  // and port, no trailing slash). With `updateBaseline` a new or differing test's images
  // become its baseline; an aborted session saves nothing.
  Json stop(const std::string& sessionId, bool aborted, bool updateBaseline,
            std::string_view baseUrl, std::string_view apiKey = {});

  // Makes a stopped session's images the baseline of its test. Only a stopped session that
  // neither failed nor was aborted, and has images, can be approved: anything else is a 409
  // that changes nothing.
  void approve(const std::string& sessionId, std::string_view apiKey = {});

  // Rejects one step of a stopped session (by position) or, with nullopt, the whole test.
  // The session stays unresolved and the baseline unchanged, so the next run is compared
  // with the same baseline. Throws ApiError for a running, aborted or unknown session or a
  // position it does not have.
  void reject(const std::string& sessionId, std::optional<int> position,
              std::string_view apiKey = {});

  // The test results of a stopped session, as stop answered them (with later approval).
  Json results(const std::string& sessionId, std::string_view baseUrl,
               std::string_view apiKey = {}) const;

  // The store given at construction.
  Store& store() const { return store_; }

  // The decoded baselines kept; what one more cache hit or miss changed (for benchmarks).
  std::size_t cachedBaselineBytes() const;
  std::uint64_t baselineCacheHits() const;

 private:
  // The session `sessionId` as the store has it, checked against the caller's key.
  SessionRecord session(const std::string& sessionId, std::string_view apiKey) const;
  // The running session `sessionId`; a session idle past the bound is aborted here.
  SessionRecord runningSession(const std::string& sessionId, std::string_view apiKey);
  [[noreturn]] void notRunning(const SessionRecord& session) const;
  bool idleTooLong(const SessionRecord& session, std::int64_t nowMs) const;
  std::int64_t nowMs() const;
  std::mutex& lockOf(const std::string& sessionId) const;
  // Runs `work` (the diff image and boxes of a step already answered) in the background, or
  // here when too much is waiting. Its failure loses only those details, and is logged.
  void finishLater(const std::string& sessionId, std::function<void()> work);

  Store& store_;
  ImageComparer comparer_;
  std::uint64_t maxImagePixels_;
  SessionOptions options_;
  std::unique_ptr<detail::BaselineCache> cache_;
  // The calls of one session are taken one at a time within this manager (those reaching
  // another manager are ordered by the store). Striped: a fixed set, however many sessions.
  mutable std::array<std::mutex, 64> sessionLocks_;
  std::atomic<std::int64_t> lastSweepMs_{0};
  // Last: its destructor finishes work that uses the members above.
  std::unique_ptr<detail::StepFinisher> finisher_;
};

}  // namespace lumo::server
