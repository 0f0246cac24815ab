#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/match_window_data.h"
#include "lumo/error.h"
#include "lumo/match_result.h"
#include "lumo/running_session.h"
#include "lumo/session_start_info.h"
#include "lumo/test_results.h"

namespace lumo {

class HttpClient;

// The library's client of the visual-testing server: starts a running session, matches a
// window within it and stops it, over JSON REST calls under "/api/sessions/running". Each call
// returns at once; its handler (may be empty) runs later on the connector's HTTP worker thread
// with (record, no error), (no record, the transport error) or, when the answer is not a JSON
// object (an array, a string or a number included), (no record, no error). HTTP statuses are not
// judged. Several calls may be in flight. Destroying the connector lets the calls already made
// finish within the HTTP client's shutdown grace (their handlers run before the destructor
// returns), then abandons the rest.
class ServerConnector {
 public:
  template <typename Record>
  using CompletionHandler = std::function<void(std::shared_ptr<Record>, std::optional<Error>)>;

  static constexpr const char* kSessionsPath = "/api/sessions/running";
  // The bound of every request. Not the `timeout` property, which no request consults.
  static constexpr std::chrono::seconds kRequestTimeoutInterval{60};

  // A connector whose `timeout` is 60.
  static std::shared_ptr<ServerConnector> connectorWithServerURL(
      std::optional<std::string> serverURL, std::optional<std::string> apiKey);
  // Goes through setServerURL and setApiKey, so a nil URL or key fails their guards.
  ServerConnector(std::optional<std::string> serverURL, std::optional<std::string> apiKey,
                  long timeout);
  ~ServerConnector();
  ServerConnector(const ServerConnector&) = delete;
  ServerConnector& operator=(const ServerConnector&) = delete;

  // The base URL; request paths are appended to its text as it stands (no slash is added or
  // removed).
  const std::string& serverURL() const { return serverURL_; }
  // Fails the argument guard with "serverUrl is nil" for a nil URL.
  void setServerURL(std::optional<std::string> serverURL);
  // The stored key, or when that is empty the environment's BRIXTEL_API_KEY, read afresh on
  // every call (nil when that is unset too).
  std::optional<std::string> apiKey() const;
  // Fails the argument guard with "apiKey is nil" for a nil key.
  void setApiKey(std::optional<std::string> apiKey);
  long timeout() const { return timeout_; }
  void setTimeout(long timeout) { timeout_ = timeout; }

  // The bound each new request is built with: kRequestTimeoutInterval unless a test shortens
  // it.
  std::chrono::milliseconds requestTimeoutInterval() const { return requestTimeoutInterval_; }
  void setRequestTimeoutInterval(std::chrono::milliseconds interval) {
    requestTimeoutInterval_ = interval;
  }

  // How long destroying the connector waits for calls still queued or in flight
  // (HttpClient::kDefaultShutdownGrace unless a test shortens it).
  void setShutdownGrace(std::chrono::milliseconds grace);

  // POST {serverURL}/api/sessions/running.json?apiKey={key} with {"startInfo": start record}.
  // The session's isNewSession is true exactly when the server answered 201. Throws as
  // SessionStartInfo::dictionary does, before anything is sent.
  void startSessionWithInfo(const SessionStartInfo& sessionStartInfo,
                            CompletionHandler<RunningSession> completionHandler);

  // POST {serverURL}/api/sessions/running/{sessionId}.json?apiKey={key} with the match data as
  // the whole body; logs "Match window URL: <url>". A nil session or match data fails the
  // argument guard ("runningSession is nil", "matchData is nil"); nothing is sent. Throws as
  // MatchWindowData::dictionary does, before anything is sent.
  void matchWindowForSession(const std::shared_ptr<RunningSession>& runningSession,
                             const std::shared_ptr<MatchWindowData>& matchData,
                             CompletionHandler<MatchResult> completionHandler);

  // DELETE {serverURL}/api/sessions/running/{sessionId}.json?apiKey={key}&aborted={1|0}
  // &updateBaseline={1|0}, without a body.
  void stopSession(const RunningSession& runningSession, bool isAborted, bool save,
                   CompletionHandler<TestResults> completionHandler);

 private:
  std::string serverURL_;
  std::string apiKey_;
  long timeout_ = 0;
  std::chrono::milliseconds requestTimeoutInterval_ = kRequestTimeoutInterval;
  std::unique_ptr<HttpClient> urlSession_;
};

}  // namespace lumo
