#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "connectivity/http_client.h"
#include "lumo/detail/json.h"

namespace lumo {

// Makes the JSON requests the server connector sends. Stateless.
class HTTPRequestBuilder {
 public:
  // A request for `url` with the method and timeout given. With `params`, the body is their
  // compact JSON and "Content-Length" its byte count (a value that cannot be serialised, such
  // as text that is not UTF-8, gives an empty body and "0"). "Content-Type: application/json"
  // is always set, last, with or without a body.
  static HttpRequest requestWithURL(std::string url, const std::optional<Json>& params,
                                    std::string httpMethod,
                                    std::chrono::milliseconds timeoutInterval);
  // The same with the body already written as JSON text, which is sent as it stands.
  static HttpRequest requestWithJsonText(std::string url, std::string jsonText,
                                         std::string httpMethod,
                                         std::chrono::milliseconds timeoutInterval);
};

}  // namespace lumo
