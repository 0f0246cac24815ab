#include "http_router.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <exception>

namespace lumo::server::detail {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

std::string headerIn(const std::vector<std::pair<std::string, std::string>>& headers,
                     std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringCase(key, name)) {
      return value;
    }
  }
  return {};
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

bool isFormPost(const HttpRequest& request) {
  return request.header("Content-Type").starts_with("application/x-www-form-urlencoded");
}

}  // namespace

std::string percentDecode(std::string_view text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size()) {
      const int high = hexValue(text[i + 1]), low = hexValue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    out += plusIsSpace && c == '+' ? ' ' : c;
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> parseParams(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> params;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('&'), text.size());
    const std::string_view pair = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (pair.empty()) {
      continue;
    }
    const std::size_t equals = std::min(pair.find('='), pair.size());
    params.emplace_back(percentDecode(pair.substr(0, equals), true),
                        percentDecode(pair.substr(std::min(equals + 1, pair.size())), true));
  }
  return params;
}

std::string HttpRequest::param(std::string_view name) const {
  for (const auto& [key, value] : params) {
    if (key == name) {
      return value;
    }
  }
  return {};
}

std::string HttpRequest::header(std::string_view name) const { return headerIn(headers, name); }

void HttpResponse::setContent(std::string content, std::string_view contentType) {
  body = std::move(content);
  setHeader("Content-Type", std::string(contentType));
}

void HttpResponse::setHeader(std::string_view name, std::string value) {
  std::erase_if(headers,
                [&](const auto& header) { return equalsIgnoringCase(header.first, name); });
  headers.emplace_back(std::string(name), std::move(value));
}

void HttpResponse::redirect(std::string_view location, int redirectStatus) {
  status = redirectStatus;
  setHeader("Location", std::string(location));
}

std::string HttpResponse::header(std::string_view name) const { return headerIn(headers, name); }

void HttpRouter::add(std::string_view method, const std::string& pattern, Access access,
                     Handler handler) {
  routes_.push_back({std::string(method), std::regex(pattern), access, std::move(handler)});
}

void HttpRouter::setAuthoriser(std::function<bool(const HttpRequest&)> authorised, Handler refuse) {
  authorised_ = std::move(authorised);
  refuse_ = std::move(refuse);
}

void HttpRouter::setErrorWriter(ErrorWriter writer) { errorWriter_ = std::move(writer); }

const HttpRouter::Route* HttpRouter::find(HttpRequest& request) const {
  // Both arms views: a mixed conditional would make a temporary string for the view to
  // outlive (a POST was then routed by freed memory in optimised builds).
  const std::string_view method =
      request.method == "HEAD" ? std::string_view("GET") : std::string_view(request.method);
  for (const Route& route : routes_) {
    std::smatch match;
    if (route.method == method && std::regex_match(request.path, match, route.pattern)) {
      request.matches.assign(match.begin(), match.end());
      return &route;
    }
  }
  return nullptr;
}

bool HttpRouter::isSmallForm(const HttpRequest& head) const {
  return isFormPost(head) && head.contentLength && *head.contentLength <= kMaxUnauthorisedFormBytes;
}

HttpRouter::Admission HttpRouter::admit(HttpRequest& head, std::size_t maxBodyBytes) const {
  // A compressed body would be inflated to many times its size before any limit applied;
  // no client of this server compresses, so none is read.
  if (const std::string encoding = head.header("Content-Encoding");
      !encoding.empty() && !equalsIgnoringCase(encoding, "identity")) {
    return {error(head, 415,
                  fmt::format("compressed request bodies are not accepted (Content-Encoding: {})",
                              encoding.substr(0, 40))),
            0};
  }
  const Route* route = find(head);
  if (route == nullptr) {
    return {error(head, 404), 0};
  }
  if (head.contentLength && *head.contentLength > maxBodyBytes) {
    return {error(head, 413), 0};
  }
  if (route->access == Access::Keyed && authorised_ && !authorised_(head)) {
    // The approve form of the results pages sends its key as a field of a small body.
    if (isSmallForm(head)) {
      return {std::nullopt, kMaxUnauthorisedFormBytes};
    }
    HttpResponse refused;
    refuse_(head, refused);
    finish(head, refused);
    return {std::move(refused), 0};
  }
  return {std::nullopt, maxBodyBytes};
}

HttpResponse HttpRouter::handle(HttpRequest& request) const {
  HttpResponse response;
  if (isFormPost(request)) {
    auto fields = parseParams(request.body);
    request.params.insert(request.params.end(), fields.begin(), fields.end());
  }
  const Route* route = find(request);
  try {
    if (route == nullptr) {
      response.status = 404;
    } else if (route->access == Access::Keyed && authorised_ && !authorised_(request)) {
      refuse_(request, response);
    } else {
      route->handler(request, response);
    }
  } catch (const std::exception&) {
    response = HttpResponse();
    response.status = 500;
    if (errorWriter_) {
      errorWriter_(request, response, "internal server error");
    }
  }
  finish(request, response);
  return response;
}

HttpResponse HttpRouter::error(const HttpRequest& request, int status,
                               std::string_view message) const {
  HttpResponse response;
  response.status = status;
  if (errorWriter_) {
    errorWriter_(request, response, message);
  }
  return response;
}

void HttpRouter::finish(const HttpRequest& request, HttpResponse& response) const {
  if (response.status >= 400 && response.body.empty() && errorWriter_) {
    errorWriter_(request, response, {});
  }
}

}  // namespace lumo::server::detail
