#include "lumo/server/server.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "http_front.h"
#include "http_router.h"
#include "json_limits.h"
#include "lumo/server/open_store.h"
#include "review_access.h"
#include "review_pages.h"

namespace lumo::server {

void keepFreedMemoryForReuse() {
#ifdef __GLIBC__
  // Buffers up to 32 MB (a decoded screen of 8 megapixels) come from the heap, and up to
  // 256 MB of free heap stays mapped.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
#endif
}
namespace {

using detail::Access;
using detail::HttpRequest;
using detail::HttpResponse;

// A client may read any answer to a stop as test results, whatever the HTTP status, and
// count a results object without a status text as passed: every error says "Failed" where
// results say their status, and keeps its code under another name.
void sendError(HttpResponse& res, int status, std::string_view message) {
  res.status = status;
  res.setContent(Json{{"error", message}, {"status", "Failed"}, {"httpStatus", status}}.dump(),
                 "application/json");
}

void sendJson(HttpResponse& res, int status, const Json& body) {
  res.status = status;
  res.setContent(body.dump(), "application/json");
}

Json parseBody(const HttpRequest& req) {
  // The parser recurses per nesting level: a deep enough body would overflow the stack.
  if (!detail::checkJsonDepth(req.body)) {
    throw ApiError(400, fmt::format("the request body nests JSON deeper than {} levels",
                                    detail::kMaxJsonDepth));
  }
  Json body = Json::parse(req.body, nullptr, false);
  if (body.is_discarded()) {
    throw ApiError(400, "the request body is not valid JSON");
  }
  return body;
}

bool flag(const HttpRequest& req, const char* name) {
  const std::string value = req.param(name);
  if (value.empty() || value == "0" || value == "false") {
    return false;
  }
  if (value == "1" || value == "true") {
    return true;
  }
  throw ApiError(400, fmt::format("query parameter {} must be 0 or 1, not \"{}\"", name, value));
}

bool isFormPost(const HttpRequest& req) {
  return req.header("Content-Type").starts_with("application/x-www-form-urlencoded");
}

std::string apiKey(const HttpRequest& req) { return req.param("apiKey"); }

detail::Fields fields(const HttpRequest& req) {
  detail::Fields out;
  for (const auto& [name, value] : req.params) {
    out.emplace(name, value);
  }
  return out;
}

std::string cookie(const HttpRequest& req) { return req.header("Cookie"); }

void send(HttpResponse& res, detail::PageReply reply) {
  res.status = reply.status;
  res.headers = std::move(reply.headers);
  res.body = std::move(reply.body);
}

// Pages stay open for a server on the demo key alone; any real key means a sign-in.
bool pagesOpen(const std::vector<std::string>& keys) {
  return std::all_of(keys.begin(), keys.end(),
                     [](const std::string& k) { return k == kDemoApiKey; });
}

}  // namespace

struct Server::Impl {
  explicit Impl(ServerConfig c) : config(std::move(c)) {
    if (config.apiKeys.empty()) {
      config.apiKeys.emplace_back(kDemoApiKey);
    }
  }

  bool https() const { return !config.certFile.empty() && !config.keyFile.empty(); }

  std::string scheme() const { return https() ? "https" : "http"; }

  std::string baseUrl() const {
    const std::string& host = config.host;
    const bool ipv6 = host.find(':') != std::string::npos;
    return fmt::format("{}://{}{}{}:{}", scheme(), ipv6 ? "[" : "", host, ipv6 ? "]" : "",
                       port.load());
  }

  // Links come from the configuration only: a Host header is the client's to choose, and
  // echoing it would let one client plant links to elsewhere in answers and pages.
  std::string publicUrl() const {
    if (config.publicUrl.empty()) {
      return baseUrl();
    }
    std::string url = config.publicUrl;
    while (url.ends_with('/')) {
      url.pop_back();
    }
    return url;
  }

  bool authorised(const HttpRequest& req) const {
    const std::string key = req.param("apiKey");
    return std::find(config.apiKeys.begin(), config.apiKeys.end(), key) != config.apiKeys.end();
  }

  // Wraps an API handler: turns failures into JSON errors. The key is checked by the router,
  // before the body is read.
  static detail::HttpRouter::Handler api(
      std::function<void(const HttpRequest&, HttpResponse&)> handler) {
    return [handler = std::move(handler)](const HttpRequest& req, HttpResponse& res) {
      try {
        handler(req, res);
      } catch (const ApiError& e) {
        sendError(res, e.status(), e.what());
      } catch (const StoreError& e) {
        sendError(res, 500, fmt::format("the server could not store the data: {}", e.what()));
      } catch (const std::exception& e) {
        sendError(res, 500, e.what());
      }
    };
  }

  void routes() {
    auto& r = router;
    r.setAuthoriser([this](const HttpRequest& req) { return authorised(req); },
                    [](const HttpRequest&, HttpResponse& res) {
                      sendError(res, 401, "a valid apiKey query parameter is required");
                    });
    r.add("POST", R"(/api/sessions/running\.json)", Access::Keyed,
          api([this](const HttpRequest& req, HttpResponse& res) {
            const Json body = parseBody(req);
            if (!body.is_object() || !body.contains("startInfo")) {
              throw ApiError(400, "the body must be an object with startInfo");
            }
            // Every text of the record reaches the pages and the store: a long one would
            // make every page that lists it as long.
            if (const auto field = detail::findLongText(body["startInfo"], "startInfo")) {
              throw ApiError(400, fmt::format("{} is longer than {} characters", *field,
                                              detail::kMaxStartTextBytes));
            }
            const auto started = sessions->start(body["startInfo"], apiKey(req));
            sendJson(res, started.isNew ? 201 : 200,
                     {{"id", started.id},
                      {"url", fmt::format("{}/sessions/{}", publicUrl(), started.id)}});
          }));
    r.add("POST", R"(/api/sessions/running/([^/]+)\.json)", Access::Keyed,
          api([this](const HttpRequest& req, HttpResponse& res) {
            auto body = detail::parseMatchBody(req.body);
            const bool asExpected = sessions->match(
                req.matches[1], body ? std::move(*body) : parseBody(req), apiKey(req));
            sendJson(res, 200, {{"asExpected", asExpected}});
          }));
    r.add("DELETE", R"(/api/sessions/running/([^/]+)\.json)", Access::Keyed,
          api([this](const HttpRequest& req, HttpResponse& res) {
            const bool aborted = flag(req, "aborted");
            const bool update = flag(req, "updateBaseline");
            sendJson(res, 200,
                     sessions->stop(req.matches[1], aborted, update, publicUrl(), apiKey(req)));
          }));
    r.add("GET", R"(/api/sessions/([^/]+)\.json)", Access::Keyed,
          api([this](const HttpRequest& req, HttpResponse& res) {
            sendJson(res, 200, sessions->results(req.matches[1], publicUrl(), apiKey(req)));
          }));
    // The results page's approve form posts here too, with the key as a form field.
    r.add("POST", R"(/api/sessions/([^/]+)/approve)", Access::Keyed,
          api([this](const HttpRequest& req, HttpResponse& res) {
            const std::string id = req.matches[1];
            sessions->approve(id, apiKey(req));
            if (isFormPost(req)) {
              res.redirect(fmt::format("/sessions/{}", id), 303);
            } else {
              sendJson(res, 200, {{"id", id}, {"approved", true}});
            }
          }));

    r.add("POST", R"(/api/sessions/([^/]+)/reject)", Access::Keyed,
          api([this](const HttpRequest& req, HttpResponse& res) {
            const std::string id = req.matches[1];
            std::optional<int> position;
            if (const std::string step = req.param("step"); !step.empty()) {
              position = std::atoi(step.c_str()) - 1;
            }
            sessions->reject(id, position, apiKey(req));
            sendJson(res, 200, {{"id", id}, {"rejected", true}});
          }));

    // The results pages: each route hands the request's parts to ReviewPages, which signs
    // people in by cookie rather than by key.
    auto page = [this](std::string_view method, const std::string& pattern, auto render) {
      router.add(method, pattern, Access::Open,
                 [render](const HttpRequest& req, HttpResponse& res) { send(res, render(req)); });
    };
    page("GET", "/",
         [this](const HttpRequest& req) { return pages->index(fields(req), cookie(req)); });
    page("GET", R"(/batches/([^/]+))", [this](const HttpRequest& req) {
      return pages->batch(req.matches[1], fields(req), cookie(req));
    });
    page("GET", R"(/sessions/([^/]+))",
         [this](const HttpRequest& req) { return pages->session(req.matches[1], cookie(req)); });
    page("GET", R"(/images/([0-9a-f]{64})\.png)",
         [this](const HttpRequest& req) { return pages->image(req.matches[1], cookie(req)); });
    page("GET", R"(/static/([a-z]+\.[a-z]+))",
         [](const HttpRequest& req) { return detail::ReviewPages::asset(req.matches[1]); });
    page("GET", "/signin",
         [this](const HttpRequest& req) { return pages->signInForm(fields(req)); });
    page("POST", "/signin", [this](const HttpRequest& req) { return pages->signIn(fields(req)); });
    page("POST", "/signout",
         [this](const HttpRequest& req) { return pages->signOut(fields(req), cookie(req)); });
    page("POST", R"(/sessions/([^/]+)/approve)", [this](const HttpRequest& req) {
      return pages->approve(req.matches[1], fields(req), cookie(req));
    });
    page("POST", R"(/sessions/([^/]+)/reject)", [this](const HttpRequest& req) {
      return pages->reject(req.matches[1], fields(req), cookie(req));
    });
    page("POST", R"(/batches/([^/]+)/approve)", [this](const HttpRequest& req) {
      return pages->approveAll(req.matches[1], fields(req), cookie(req));
    });

    r.setErrorWriter([this](const HttpRequest& req, HttpResponse& res, std::string_view message) {
      if (res.status == 413) {
        sendError(
            res, 413,
            fmt::format("the request body is over the limit of {} bytes", config.maxBodyBytes));
      } else if (!message.empty() || req.path.starts_with("/api/")) {
        sendError(res, res.status,
                  !message.empty()    ? message
                  : res.status == 404 ? "no such resource"
                                      : "bad request");
      } else {
        const int status = res.status;
        send(res, detail::ReviewPages::notFound());
        res.status = status;
      }
    });
  }

  ServerConfig config;
  std::unique_ptr<Store> store;
  std::unique_ptr<SessionManager> sessions;
  std::unique_ptr<detail::ReviewAccess> access;
  std::unique_ptr<detail::ReviewPages> pages;
  detail::HttpRouter router;
  std::unique_ptr<detail::HttpFront> front;
  // Set once the front is bound, which is after its workers may already answer requests.
  std::atomic<int> port{-1};

  std::mutex control;  // serialises start and stop
  std::mutex stateMutex;
  std::condition_variable stateChanged;
  bool serving = false;
};

Server::Server(ServerConfig config) : impl_(std::make_unique<Impl>(std::move(config))) {}

Server::~Server() { stop(); }

void Server::start() {
  Impl& s = *impl_;
  std::lock_guard control(s.control);
  if (s.front) {
    throw std::logic_error("the server was already started");
  }
  s.store = openStore(s.config);
  SessionOptions sessionOptions;
  sessionOptions.maxStepsPerSession = s.config.maxStepsPerSession;
  sessionOptions.maxSessionsPerBatch = s.config.maxSessionsPerBatch;
  sessionOptions.idleTimeout = s.config.sessionIdleTimeout;
  sessionOptions.baselineCacheBytes = s.config.baselineCacheBytes;
  s.sessions = std::make_unique<SessionManager>(*s.store, ImageComparer(), s.config.maxImagePixels,
                                                std::move(sessionOptions));
  s.access = std::make_unique<detail::ReviewAccess>(s.config.apiKeys, pagesOpen(s.config.apiKeys));
  s.pages = std::make_unique<detail::ReviewPages>(*s.sessions, *s.access, s.https());
  s.routes();
  detail::HttpFrontOptions options;
  options.host = s.config.host;
  options.port = s.config.port;
  options.certFile = s.config.certFile;
  options.keyFile = s.config.keyFile;
  options.maxBodyBytes = s.config.maxBodyBytes;
  options.headerTimeout = s.config.headerTimeout;
  options.bodyTimeout = s.config.bodyTimeout;
  options.maxConnections = s.config.maxConnections;
  options.maxConnectionsPerAddress = s.config.maxConnectionsPerAddress;
  options.workers = std::max(s.config.threads, 1);
  auto front = std::make_unique<detail::HttpFront>(s.router, options);
  try {
    s.port = front->start();
  } catch (...) {
    s.pages.reset();
    s.access.reset();
    s.sessions.reset();
    s.store.reset();
    s.router = detail::HttpRouter();
    throw;
  }
  s.front = std::move(front);
  std::lock_guard lock(s.stateMutex);
  s.serving = true;
}

int Server::port() const { return impl_->port; }

std::string Server::baseUrl() const { return impl_->baseUrl(); }

std::string Server::publicUrl() const { return impl_->publicUrl(); }

void Server::wait() {
  std::unique_lock lock(impl_->stateMutex);
  impl_->stateChanged.wait(lock, [this] { return !impl_->serving; });
}

void Server::stop() {
  Impl& s = *impl_;
  std::lock_guard control(s.control);
  if (!s.front || !s.serving) {
    return;
  }
  s.front->stop();
  std::lock_guard lock(s.stateMutex);
  s.serving = false;
  s.stateChanged.notify_all();
}

}  // namespace lumo::server
