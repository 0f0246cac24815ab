#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "lumo/error.h"

namespace lumo {

// One request as the client sends it: a plain value, built by HTTPRequestBuilder or by hand.
struct HttpRequest {
  using Header = std::pair<std::string, std::string>;

  std::string url;
  std::string httpMethod = "GET";
  // Sent in this order after the client's own Host and Accept lines; a header named here
  // replaces the client's default of the same name.
  std::vector<Header> headers;
  // nullopt: the request has no body at all (and no Content-Length unless set here).
  std::optional<std::string> body;
  // The whole transfer, connection included, must end within this bound.
  std::chrono::milliseconds timeoutInterval = std::chrono::seconds(60);

  // Replaces the value of the header `field` (compared case-insensitively, keeping its place)
  // or appends the header when the request has none of that name.
  void setValue(std::string value, std::string_view field);
  // The value of the header `field` (case-insensitive), or nullopt.
  std::optional<std::string> valueForHttpHeaderField(std::string_view field) const;
};

// What the server answered: any status, with the raw body.
struct HttpResponse {
  long statusCode = 0;
  std::string body;
};

// An asynchronous HTTP(S) client. One worker thread per client drives every transfer (several
// may be in flight) and runs every completion handler, one at a time and never on the caller's
// thread. Connections to a server are reused between requests. The server's TLS certificate is
// accepted whatever it is (neither peer nor host name is verified).
class HttpClient {
 public:
  // Exactly one of the two is set: the response for any HTTP status, or a transport error
  // (domain kErrorDomain, code the libcurl error number, a description of what failed).
  using CompletionHandler =
      std::function<void(std::optional<HttpResponse> response, std::optional<Error> error)>;

  static constexpr const char* kErrorDomain = "lumo.http";

  // How long the destructor lets queued and in-flight requests finish.
  static constexpr std::chrono::milliseconds kDefaultShutdownGrace{5000};

  explicit HttpClient(std::chrono::milliseconds shutdownGrace = kDefaultShutdownGrace);
  // Sends what is still queued and lets it and every transfer in flight finish, their handlers
  // running as usual, for at most the shutdown grace; then aborts what is left without calling
  // its handler. Returns once the worker has stopped, so no handler runs after it. May be
  // called from inside a handler: that handler finishes normally and the worker then stops on
  // its own, at once and without calling any other handler.
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Starts the transfer at once and returns. `handler` (may be empty) is called on the worker
  // thread. A URL that is not a well-formed http(s) URL, or a header with a line break, fails
  // through the handler without anything being sent.
  void send(HttpRequest request, CompletionHandler handler);

  // Changes the bound the destructor waits for unfinished requests (tests shorten it).
  void setShutdownGrace(std::chrono::milliseconds grace);

 private:
  struct State;
  static void run(const std::shared_ptr<State>& state);

  std::shared_ptr<State> state_;
  std::thread worker_;
};

}  // namespace lumo
