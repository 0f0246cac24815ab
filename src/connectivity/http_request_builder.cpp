#include "connectivity/http_request_builder.h"

#include <utility>

#include "common/compact_json.h"

namespace lumo {

namespace {

HttpRequest makeRequest(std::string url, std::optional<std::string> body, std::string httpMethod,
                        std::chrono::milliseconds timeoutInterval) {
  HttpRequest request;
  request.url = std::move(url);
  request.httpMethod = std::move(httpMethod);
  request.timeoutInterval = timeoutInterval;
  if (body) {
    request.setValue(std::to_string(body->size()), "Content-Length");
    request.body = std::move(body);
  }
  request.setValue("application/json", "Content-Type");
  return request;
}

}  // namespace

HttpRequest HTTPRequestBuilder::requestWithURL(std::string url, const std::optional<Json>& params,
                                               std::string httpMethod,
                                               std::chrono::milliseconds timeoutInterval) {
  std::optional<std::string> body;
  if (params) {
    body.emplace();
    try {
      *body = detail::compactJson(*params);
    } catch (const Json::type_error&) {
      // Text that is not UTF-8 cannot be JSON; the request then goes out with an empty body.
      body->clear();
    }
  }
  return makeRequest(std::move(url), std::move(body), std::move(httpMethod), timeoutInterval);
}

HttpRequest HTTPRequestBuilder::requestWithJsonText(std::string url, std::string jsonText,
                                                    std::string httpMethod,
                                                    std::chrono::milliseconds timeoutInterval) {
  return makeRequest(std::move(url), std::move(jsonText), std::move(httpMethod), timeoutInterval);
}

}  // namespace lumo
