#include "lumo/server/server.h"

#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include "lumo/server/open_store.h"
#include "pages.h"
#include "review_access.h"
#include "review_pages.h"

namespace lumo::server {
namespace {

using httplib::Request;
using httplib::Response;

// Idle keep-alive connections are closed after this long, which also bounds how long stop()
// waits for a client that keeps its connection open.
constexpr time_t kKeepAliveSeconds = 2;

constexpr int kListenBacklog = 512;

void sendError(Response& res, int status, std::string_view message) {
  res.status = status;
  res.set_content(Json{{"error", message}, {"status", status}}.dump(), "application/json");
}

void sendJson(Response& res, int status, const Json& body) {
  res.status = status;
  res.set_content(body.dump(), "application/json");
}

Json parseBody(const Request& req) {
  Json body = Json::parse(req.body, nullptr, false);
  if (body.is_discarded()) {
    throw ApiError(400, "the request body is not valid JSON");
  }
  return body;
}

bool flag(const Request& req, const char* name) {
  const std::string value = req.get_param_value(name);
  if (value.empty() || value == "0" || value == "false") {
    return false;
  }
  if (value == "1" || value == "true") {
    return true;
  }
  throw ApiError(400, fmt::format("query parameter {} must be 0 or 1, not \"{}\"", name, value));
}

std::string apiKey(const Request& req) { return req.get_param_value("apiKey"); }

bool isFormPost(const Request& req) {
  return req.get_header_value("Content-Type").starts_with("application/x-www-form-urlencoded");
}

// A Host header is echoed into links only when it looks like one.
bool plausibleHost(std::string_view host) {
  return !host.empty() && host.size() < 256 &&
         host.find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
             "0123456789.-:[]") == std::string_view::npos;
}

detail::Fields fields(const Request& req) {
  detail::Fields out;
  for (const auto& [name, value] : req.params) {
    out.emplace(name, value);
  }
  return out;
}

std::string cookie(const Request& req) { return req.get_header_value("Cookie"); }

void send(Response& res, detail::PageReply reply) {
  res.status = reply.status;
  std::string type = "text/plain; charset=utf-8";
  for (auto& [name, value] : reply.headers) {
    if (name == "Content-Type") {
      type = value;
    } else {
      res.set_header(name.c_str(), value);
    }
  }
  if (!reply.body.empty()) {
    res.set_content(reply.body, type.c_str());
  }
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

  // Links point back the way the client came, so they work behind the name it used.
  std::string baseUrlFor(const Request& req) const {
    const std::string host = req.get_header_value("Host");
    if (plausibleHost(host)) {
      return fmt::format("{}://{}", scheme(), host);
    }
    return fmt::format("{}://{}:{}", scheme(), config.host, port);
  }

  bool authorised(const Request& req) const {
    const std::string key = req.get_param_value("apiKey");
    return std::find(config.apiKeys.begin(), config.apiKeys.end(), key) != config.apiKeys.end();
  }

  // Wraps an API handler: checks the key and turns failures into JSON errors.
  httplib::Server::Handler api(std::function<void(const Request&, Response&)> handler) {
    return [this, handler = std::move(handler)](const Request& req, Response& res) {
      if (!authorised(req)) {
        sendError(res, 401, "a valid apiKey query parameter is required");
        return;
      }
      guarded(req, res, handler);
    };
  }

  static void guarded(const Request& req, Response& res,
                      const std::function<void(const Request&, Response&)>& handler) {
    try {
      handler(req, res);
    } catch (const ApiError& e) {
      sendError(res, e.status(), e.what());
    } catch (const StoreError& e) {
      sendError(res, 500, fmt::format("the server could not store the data: {}", e.what()));
    } catch (const std::exception& e) {
      sendError(res, 500, e.what());
    }
  }

  void routes() {
    http->Post(R"(/api/sessions/running\.json)", api([this](const Request& req, Response& res) {
                 const Json body = parseBody(req);
                 if (!body.is_object() || !body.contains("startInfo")) {
                   throw ApiError(400, "the body must be an object with startInfo");
                 }
                 const auto started = sessions->start(body["startInfo"], apiKey(req));
                 sendJson(res, started.isNew ? 201 : 200,
                          {{"id", started.id},
                           {"url", fmt::format("{}/sessions/{}", baseUrlFor(req), started.id)}});
               }));
    http->Post(
        R"(/api/sessions/running/([^/]+)\.json)", api([this](const Request& req, Response& res) {
          const Json body = parseBody(req);
          sendJson(res, 200, {{"asExpected", sessions->match(req.matches[1], body, apiKey(req))}});
        }));
    http->Delete(
        R"(/api/sessions/running/([^/]+)\.json)", api([this](const Request& req, Response& res) {
          const bool aborted = flag(req, "aborted");
          const bool update = flag(req, "updateBaseline");
          sendJson(res, 200,
                   sessions->stop(req.matches[1], aborted, update, baseUrlFor(req), apiKey(req)));
        }));
    http->Get(R"(/api/sessions/([^/]+)\.json)", api([this](const Request& req, Response& res) {
                sendJson(res, 200, sessions->results(req.matches[1], baseUrlFor(req), apiKey(req)));
              }));
    // The results page's approve form posts here too, with the key as a form field.
    http->Post(R"(/api/sessions/([^/]+)/approve)", api([this](const Request& req, Response& res) {
                 const std::string id = req.matches[1];
                 sessions->approve(id, apiKey(req));
                 if (isFormPost(req)) {
                   res.set_redirect(fmt::format("/sessions/{}", id), 303);
                 } else {
                   sendJson(res, 200, {{"id", id}, {"approved", true}});
                 }
               }));

    http->Post(R"(/api/sessions/([^/]+)/reject)", api([this](const Request& req, Response& res) {
                 const std::string id = req.matches[1];
                 std::optional<int> position;
                 if (req.has_param("step")) {
                   const std::string step = req.get_param_value("step");
                   position = std::atoi(step.c_str()) - 1;
                 }
                 sessions->reject(id, position);
                 sendJson(res, 200, {{"id", id}, {"rejected", true}});
               }));

    // The results pages: each route hands the request's parts to ReviewPages.
    http->Get("/", [this](const Request& req, Response& res) {
      send(res, pages->index(fields(req), cookie(req)));
    });
    http->Get(R"(/batches/([^/]+))", [this](const Request& req, Response& res) {
      send(res, pages->batch(req.matches[1], fields(req), cookie(req)));
    });
    http->Get(R"(/sessions/([^/]+))", [this](const Request& req, Response& res) {
      send(res, pages->session(req.matches[1], cookie(req)));
    });
    http->Get(R"(/images/([0-9a-f]{64})\.png)", [this](const Request& req, Response& res) {
      send(res, pages->image(req.matches[1], cookie(req)));
    });
    http->Get(R"(/static/([a-z]+\.[a-z]+))", [](const Request& req, Response& res) {
      send(res, detail::ReviewPages::asset(req.matches[1].str()));
    });
    http->Get("/signin", [this](const Request& req, Response& res) {
      send(res, pages->signInForm(fields(req)));
    });
    http->Post("/signin", [this](const Request& req, Response& res) {
      send(res, pages->signIn(fields(req)));
    });
    http->Post("/signout", [this](const Request& req, Response& res) {
      send(res, pages->signOut(fields(req), cookie(req)));
    });
    http->Post(R"(/sessions/([^/]+)/approve)", [this](const Request& req, Response& res) {
      send(res, pages->approve(req.matches[1], fields(req), cookie(req)));
    });
    http->Post(R"(/sessions/([^/]+)/reject)", [this](const Request& req, Response& res) {
      send(res, pages->reject(req.matches[1], fields(req), cookie(req)));
    });
    http->Post(R"(/batches/([^/]+)/approve)", [this](const Request& req, Response& res) {
      send(res, pages->approveAll(req.matches[1], fields(req), cookie(req)));
    });

    http->set_error_handler([this](const Request& req, Response& res) {
      if (!res.body.empty() || res.status == 303) {
        return;
      }
      if (res.status == 413) {
        sendError(
            res, 413,
            fmt::format("the request body is over the limit of {} bytes", config.maxBodyBytes));
      } else if (req.path.starts_with("/api/")) {
        sendError(res, res.status, res.status == 404 ? "no such resource" : "bad request");
      } else {
        detail::PageReply reply = detail::ReviewPages::notFound();
        reply.status = res.status;
        send(res, std::move(reply));
      }
    });
    http->set_exception_handler([](const Request&, Response& res, std::exception_ptr) {
      sendError(res, 500, "internal server error");
    });
  }

  ServerConfig config;
  std::unique_ptr<Store> store;
  std::unique_ptr<SessionManager> sessions;
  std::unique_ptr<detail::ReviewAccess> access;
  std::unique_ptr<detail::ReviewPages> pages;
  std::unique_ptr<httplib::Server> http;
  int port = -1;

  std::mutex control;  // serialises start and stop
  std::mutex stateMutex;
  std::condition_variable stateChanged;
  bool listening = false;  // the accept loop has not returned yet
  std::thread listener;
};

Server::Server(ServerConfig config) : impl_(std::make_unique<Impl>(std::move(config))) {}

Server::~Server() { stop(); }

void Server::start() {
  Impl& s = *impl_;
  std::lock_guard control(s.control);
  if (s.http) {
    throw std::logic_error("the server was already started");
  }
  std::unique_ptr<Store> store = openStore(s.config);
  std::unique_ptr<httplib::Server> http;
  if (s.https()) {
    http =
        std::make_unique<httplib::SSLServer>(s.config.certFile.c_str(), s.config.keyFile.c_str());
    if (!http->is_valid()) {
      throw std::runtime_error(fmt::format("cannot use certificate {} with key {}",
                                           s.config.certFile.string(), s.config.keyFile.string()));
    }
  } else {
    http = std::make_unique<httplib::Server>();
  }
  const int threads = std::max(s.config.threads, 1);
  http->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  http->set_payload_max_length(s.config.maxBodyBytes);
  http->set_keep_alive_timeout(kKeepAliveSeconds);
  // The library's default adds SO_REUSEPORT, which would let a second server share a port
  // that is already taken instead of failing to start.
  auto listening = std::make_shared<socket_t>(INVALID_SOCKET);
  http->set_socket_options([listening](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    *listening = sock;
  });
  int port = s.config.port;
  if (port == 0) {
    port = http->bind_to_any_port(s.config.host);
  } else if (!http->bind_to_port(s.config.host, port)) {
    port = -1;
  }
  if (port < 0) {
    throw std::runtime_error(fmt::format("cannot listen on {}:{}", s.config.host, s.config.port));
  }
  // The library listens with a backlog of 5: a burst of connections (a load balancer, parallel
  // tests) overflows it and some are reset. Listening again only enlarges the queue.
  ::listen(*listening, kListenBacklog);
  s.store = std::move(store);
  SessionOptions sessionOptions;
  sessionOptions.maxStepsPerSession = s.config.maxStepsPerSession;
  sessionOptions.maxSessionsPerBatch = s.config.maxSessionsPerBatch;
  sessionOptions.idleTimeout = s.config.sessionIdleTimeout;
  sessionOptions.baselineCacheBytes = s.config.baselineCacheBytes;
  s.sessions = std::make_unique<SessionManager>(*s.store, ImageComparer(), s.config.maxImagePixels,
                                                std::move(sessionOptions));
  s.access = std::make_unique<detail::ReviewAccess>(s.config.apiKeys, pagesOpen(s.config.apiKeys));
  s.pages = std::make_unique<detail::ReviewPages>(*s.sessions, *s.access, s.https());
  s.http = std::move(http);
  s.port = port;
  s.routes();
  s.listening = true;
  s.listener = std::thread([&s] {
    s.http->listen_after_bind();
    std::lock_guard lock(s.stateMutex);
    s.listening = false;
    s.stateChanged.notify_all();
  });
  // stop() must not run before the accept loop is up, or that loop would never see it. The
  // socket already listens, so clients may connect meanwhile.
  while (!s.http->is_running()) {
    std::unique_lock lock(s.stateMutex);
    if (!s.listening) {
      lock.unlock();
      s.listener.join();
      throw std::runtime_error(fmt::format("cannot serve on {}:{}", s.config.host, port));
    }
    s.stateChanged.wait_for(lock, std::chrono::milliseconds(1));
  }
}

int Server::port() const { return impl_->port; }

std::string Server::baseUrl() const {
  const std::string& host = impl_->config.host;
  const bool ipv6 = host.find(':') != std::string::npos;
  return fmt::format("{}://{}{}{}:{}", impl_->scheme(), ipv6 ? "[" : "", host, ipv6 ? "]" : "",
                     impl_->port);
}

void Server::wait() {
  std::unique_lock lock(impl_->stateMutex);
  impl_->stateChanged.wait(lock, [this] { return !impl_->listening; });
}

void Server::stop() {
  Impl& s = *impl_;
  std::lock_guard control(s.control);
  if (!s.listener.joinable()) {
    return;
  }
  s.http->stop();
  s.listener.join();
}

}  // namespace lumo::server
