#include "connectivity/server_connector.h"

#include <fmt/format.h>

#include <type_traits>
#include <utility>

#include "common/argument_guard.h"
#include "common/environment_helper.h"
#include "common/logger.h"
#include "connectivity/http_client.h"
#include "connectivity/http_request_builder.h"

namespace lumo {
namespace {

// The record of a JSON answer, or null when the body is not a JSON object (the parse error is
// dropped on purpose: callers treat a missing record as no verdict). An array, a string or a
// number is no record either: read as one it would hold nothing but defaults, and a stop
// answered with [] would then read as a passed test.
template <typename Record>
std::shared_ptr<Record> recordFromResponse(const HttpResponse& response) {
  const Json json = Json::parse(response.body, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded() || !json.is_object()) {
    return nullptr;
  }
  auto record = std::make_shared<Record>(json);
  if constexpr (std::is_same_v<Record, RunningSession>) {
    // The only status the connector looks at: 201 means the server made a new session.
    record->setIsNewSession(response.statusCode == 201);
  }
  return record;
}

// Holds only the caller's handler, never the connector, so an answer cannot outlive it badly.
template <typename Record>
HttpClient::CompletionHandler answerTo(ServerConnector::CompletionHandler<Record> handler) {
  return [handler = std::move(handler)](std::optional<HttpResponse> response,
                                        std::optional<Error> error) {
    if (!handler) {
      return;
    }
    if (error) {
      handler(nullptr, std::move(error));
    } else {
      handler(recordFromResponse<Record>(*response), std::nullopt);
    }
  };
}

const char* flag(bool value) { return value ? "1" : "0"; }

}  // namespace

std::shared_ptr<ServerConnector> ServerConnector::connectorWithServerURL(
    std::optional<std::string> serverURL, std::optional<std::string> apiKey) {
  return std::make_shared<ServerConnector>(std::move(serverURL), std::move(apiKey), 60);
}

ServerConnector::ServerConnector(std::optional<std::string> serverURL,
                                 std::optional<std::string> apiKey, long timeout)
    : timeout_(timeout) {
  setServerURL(std::move(serverURL));
  setApiKey(std::move(apiKey));
  urlSession_ = std::make_unique<HttpClient>();
}

ServerConnector::~ServerConnector() = default;

void ServerConnector::setServerURL(std::optional<std::string> serverURL) {
  ArgumentGuard::notNil(serverURL, "serverUrl");
  if (serverURL) {
    serverURL_ = std::move(*serverURL);
  }
}

std::optional<std::string> ServerConnector::apiKey() const {
  if (!apiKey_.empty()) {
    return apiKey_;
  }
  return EnvironmentHelper::environmentVariableForKey("BRIXTEL_API_KEY");
}

void ServerConnector::setApiKey(std::optional<std::string> apiKey) {
  ArgumentGuard::notNil(apiKey, "apiKey");
  if (apiKey) {
    apiKey_ = std::move(*apiKey);
  }
}

void ServerConnector::setShutdownGrace(std::chrono::milliseconds grace) {
  urlSession_->setShutdownGrace(grace);
}

void ServerConnector::startSessionWithInfo(const SessionStartInfo& sessionStartInfo,
                                           CompletionHandler<RunningSession> completionHandler) {
  const std::string url =
      fmt::format("{}{}.json?apiKey={}", serverURL_, kSessionsPath, textOrNull(apiKey()));
  const Json body{{"startInfo", sessionStartInfo.dictionary()}};
  urlSession_->send(HTTPRequestBuilder::requestWithURL(url, body, "POST", requestTimeoutInterval_),
                    answerTo(std::move(completionHandler)));
}

void ServerConnector::matchWindowForSession(const std::shared_ptr<RunningSession>& runningSession,
                                            const std::shared_ptr<MatchWindowData>& matchData,
                                            CompletionHandler<MatchResult> completionHandler) {
  ArgumentGuard::notNil(runningSession, "runningSession");
  ArgumentGuard::notNil(matchData, "matchData");
  // A guard handler that returns lets the call go on; there is still nothing to send.
  if (!runningSession || !matchData) {
    return;
  }
  const std::string url =
      fmt::format("{}{}/{}.json?apiKey={}", serverURL_, kSessionsPath,
                  textOrNull(runningSession->sessionId()), textOrNull(apiKey()));
  Logger::logWithFormat("Match window URL: {}", url);
  // The record writes its own JSON text: the same bytes as its dictionary, without a copy of
  // the screenshot in between.
  std::string body;
  try {
    body = matchData->compactJson();
  } catch (const Json::type_error&) {
    // Text that is not UTF-8 cannot be JSON; the request goes out with an empty body, as the
    // builder sends any dictionary that cannot be serialised.
  }
  urlSession_->send(HTTPRequestBuilder::requestWithJsonText(url, std::move(body), "POST",
                                                            requestTimeoutInterval_),
                    answerTo(std::move(completionHandler)));
}

void ServerConnector::stopSession(const RunningSession& runningSession, bool isAborted, bool save,
                                  CompletionHandler<TestResults> completionHandler) {
  const std::string url = fmt::format(
      "{}{}/{}.json?apiKey={}&aborted={}&updateBaseline={}", serverURL_, kSessionsPath,
      textOrNull(runningSession.sessionId()), textOrNull(apiKey()), flag(isAborted), flag(save));
  urlSession_->send(
      HTTPRequestBuilder::requestWithURL(url, std::nullopt, "DELETE", requestTimeoutInterval_),
      answerTo(std::move(completionHandler)));
}

}  // namespace lumo
