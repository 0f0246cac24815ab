#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The server's own view of HTTP: a request, a response and the routes that turn one into the
// other. The routes never see the transport; the front (http_front.h) reads and writes the
// wire and asks the router, from a request's head alone, whether its body is worth reading.
namespace lumo::server::detail {

struct HttpRequest {
  std::string method;  // "GET", "POST", ...; a HEAD request is routed as GET
  std::string path;    // percent-decoded, without the query
  // Query parameters, then the fields of a form body once it is read; decoded.
  std::vector<std::pair<std::string, std::string>> params;
  std::vector<std::pair<std::string, std::string>> headers;  // as received
  std::optional<std::uint64_t> contentLength;                // nullopt: none or chunked
  std::string body;
  std::vector<std::string> matches;  // the route's captures; [0] is the whole path

  // The first value of parameter `name`, "" when absent.
  std::string param(std::string_view name) const;
  // The value of header `name` (case-insensitive), "" when absent.
  std::string header(std::string_view name) const;
};

struct HttpResponse {
  int status = 200;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  // Content-Type among them

  void setContent(std::string content, std::string_view contentType);
  // Replaces any header of that name (case-insensitive).
  void setHeader(std::string_view name, std::string value);
  void redirect(std::string_view location, int redirectStatus = 303);
  // The value of header `name` (case-insensitive), "" when absent.
  std::string header(std::string_view name) const;
};

// Who may use a route: anyone, or only a request the authoriser accepts. A keyed route's
// request is authorised from its head before its body is read, except a small form post,
// whose key may be one of its fields.
enum class Access { Open, Keyed };

// Routes by method and whole-path regular expression. Configure before serving; const calls
// are then safe from any thread.
class HttpRouter {
 public:
  using Handler = std::function<void(const HttpRequest&, HttpResponse&)>;
  // Gives an error answer its body. `status` is set; `message` is "" for the usual text.
  using ErrorWriter =
      std::function<void(const HttpRequest&, HttpResponse&, std::string_view message)>;

  // Largest form body read before its key is checked.
  static constexpr std::size_t kMaxUnauthorisedFormBytes = 16 * 1024;

  void add(std::string_view method, const std::string& pattern, Access access, Handler handler);
  // `authorised` decides keyed routes; a refused request is answered 401 through `refuse`.
  void setAuthoriser(std::function<bool(const HttpRequest&)> authorised, Handler refuse);
  // Called for every answer of status 400 or more that has no body.
  void setErrorWriter(ErrorWriter writer);

  struct Admission {
    std::optional<HttpResponse> answer;  // set: answer this without reading the body
    std::size_t bodyLimit = 0;           // otherwise: read at most this many body bytes
  };
  // Decides on a request from its head (no body yet): unknown routes, compressed or
  // oversized bodies and missing keys are answered at once.
  Admission admit(HttpRequest& head, std::size_t maxBodyBytes) const;
  // Runs the request's route; exceptions from a handler become a 500.
  HttpResponse handle(HttpRequest& request) const;
  // The answer for a request the front could not read: `status` with the usual body.
  HttpResponse error(const HttpRequest& request, int status, std::string_view message = {}) const;

 private:
  struct Route {
    std::string method;
    std::regex pattern;
    Access access;
    Handler handler;
  };

  const Route* find(HttpRequest& request) const;
  bool isSmallForm(const HttpRequest& head) const;
  void finish(const HttpRequest& request, HttpResponse& response) const;

  std::vector<Route> routes_;
  std::function<bool(const HttpRequest&)> authorised_;
  Handler refuse_;
  ErrorWriter errorWriter_;
};

// Decodes %XX escapes (and '+' as a space when `plusIsSpace`); malformed escapes stay as
// they are.
std::string percentDecode(std::string_view text, bool plusIsSpace);

// The parameters of "a=1&b=two", decoded.
std::vector<std::pair<std::string, std::string>> parseParams(std::string_view text);

}  // namespace lumo::server::detail
