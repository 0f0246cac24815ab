#include "http_front.h"

// Beast and Asio stay in this one source: they weigh more than the rest of the server.
#include <fmt/format.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <condition_variable>
#include <deque>
#include <functional>
#include <limits>
#include <list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace lumo::server::detail {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

constexpr std::size_t kMaxHeadBytes = 16 * 1024;
// After answering without reading a body that is still arriving, the rest is read and dropped
// for at most this long (and at most the body limit): closing a socket with unread data
// resets the connection, which can destroy the answer before the client reads it.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr std::size_t kLingerChunkBytes = 16 * 1024;

// A fixed set of threads running jobs in their order of arrival. The queue holds at most one
// job per connection, so the connection cap bounds it.
class WorkerPool {
 public:
  explicit WorkerPool(int threads) {
    for (int i = 0; i < threads; ++i) {
      threads_.emplace_back([this] { run(); });
    }
  }
  ~WorkerPool() { stop(); }

  void post(std::function<void()> job) {
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
  }

  // Runs the jobs already queued, then joins the threads.
  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    for (auto& thread : threads_) {
      if (thread.joinable()) {
        thread.join();
      }
    }
  }

 private:
  void run() {
    for (;;) {
      std::function<void()> job;
      {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty()) {
          return;
        }
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

enum class Phase { Head, Body, Handling, Writing, Closing };

// What the front needs of a connection, whatever its stream. Touched on the I/O thread only.
class ConnectionBase : public std::enable_shared_from_this<ConnectionBase> {
 public:
  virtual ~ConnectionBase() = default;
  virtual void start() = 0;
  // Closes the socket at once; pending operations end with an error. Idempotent.
  virtual void close() = 0;

  std::string address;
  Phase phase = Phase::Head;
};

}  // namespace

struct HttpFront::Impl {
  Impl(const HttpRouter& r, HttpFrontOptions o) : router(r), options(std::move(o)) {}

  void accept();
  void admit(tcp::socket socket);
  bool replaceWaiting(const std::string* address);
  void forget(ConnectionBase* connection);

  // Declared first so that it is destroyed last: everything below holds its executor.
  asio::io_context io{1};
  const HttpRouter& router;
  HttpFrontOptions options;
  std::optional<asio::ssl::context> tls;
  tcp::acceptor acceptor{io};
  asio::steady_timer acceptRetry{io};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
  std::unique_ptr<WorkerPool> pool;
  std::thread ioThread;

  // I/O thread only.
  std::list<std::shared_ptr<ConnectionBase>> connections;  // oldest first
  bool stopping = false;

  std::mutex drainMutex;
  std::condition_variable drainedSignal;
  bool drained = false;
};

namespace {

// One client connection over `Stream` (plain TCP or TLS over TCP): reads a request's head,
// lets the router admit it, reads its body, hands it to a worker and writes the answer.
template <class Stream>
class Connection : public ConnectionBase {
 public:
  static constexpr bool kTls = !std::is_same_v<Stream, beast::tcp_stream>;

  Connection(HttpFront::Impl& front, Stream stream) : front_(front), stream_(std::move(stream)) {}

  void start() override {
    if constexpr (kTls) {
      // The handshake counts against the time allowed for the first head.
      lowest().expires_after(front_.options.headerTimeout);
      stream_.async_handshake(asio::ssl::stream_base::server,
                              [self = self()](beast::error_code ec) {
                                if (ec) {
                                  self->close();
                                } else {
                                  self->readHead(std::nullopt);
                                }
                              });
    } else {
      readHead(front_.options.headerTimeout);
    }
  }

  void close() override {
    if (closed_) {
      return;
    }
    closed_ = true;
    phase = Phase::Closing;
    beast::error_code ignored;
    lowest().socket().shutdown(tcp::socket::shutdown_both, ignored);
    lowest().close();
    front_.forget(this);
  }

 private:
  std::shared_ptr<Connection> self() {
    return std::static_pointer_cast<Connection>(shared_from_this());
  }
  beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }

  // `timeout`: the whole head must arrive within it; nullopt keeps the running deadline.
  void readHead(std::optional<std::chrono::milliseconds> timeout) {
    phase = Phase::Head;
    parser_.emplace();
    parser_->header_limit(kMaxHeadBytes);
    // The parser would check a declared length against its default limit while reading the
    // head; the router sets the limit that applies once it has seen the head.
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
    if (timeout) {
      lowest().expires_after(*timeout);
    }
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = self()](beast::error_code ec, std::size_t) { self->onHead(ec); });
  }

  void onHead(beast::error_code ec) {
    if (closed_) {
      return;
    }
    if (ec) {
      answerReadError(ec);
      return;
    }
    phase = Phase::Body;
    const auto& head = parser_->get();
    request_ = HttpRequest();
    request_.method = std::string(head.method_string());
    const std::string_view target(head.target().data(), head.target().size());
    const std::size_t question = std::min(target.find('?'), target.size());
    request_.path = percentDecode(target.substr(0, question), false);
    if (question < target.size()) {
      request_.params = parseParams(target.substr(question + 1));
    }
    for (const auto& field : head) {
      request_.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    }
    if (const auto length = parser_->content_length()) {
      request_.contentLength = *length;
    }
    isHead_ = head.method() == http::verb::head;
    keepAlive_ = head.keep_alive();

    HttpRouter::Admission admission = front_.router.admit(request_, front_.options.maxBodyBytes);
    if (admission.answer) {
      write(std::move(*admission.answer), keepAlive_ && parser_->is_done());
      return;
    }
    parser_->body_limit(admission.bodyLimit);
    lowest().expires_after(front_.options.bodyTimeout);
    const auto expect = head[http::field::expect];
    if (!parser_->is_done() && beast::iequals(expect, "100-continue")) {
      auto proceed = std::make_shared<http::response<http::empty_body>>(http::status::continue_,
                                                                        head.version());
      http::async_write(stream_, *proceed,
                        [self = self(), proceed](beast::error_code writeError, std::size_t) {
                          if (writeError) {
                            self->close();
                          } else {
                            self->readBody();
                          }
                        });
      return;
    }
    readBody();
  }

  void readBody() {
    http::async_read(stream_, buffer_, *parser_,
                     [self = self()](beast::error_code ec, std::size_t) { self->onBody(ec); });
  }

  void onBody(beast::error_code ec) {
    if (closed_) {
      return;
    }
    if (ec == http::error::body_limit) {
      write(front_.router.error(request_, 413), false);
      return;
    }
    if (ec) {
      answerReadError(ec);
      return;
    }
    phase = Phase::Handling;
    request_.body = parser_->release().body();
    lowest().expires_never();
    front_.pool->post([self = self()]() mutable {
      HttpResponse response = self->front_.router.handle(self->request_);
      auto& io = self->front_.io;
      asio::post(io, [self = std::move(self), response = std::move(response)]() mutable {
        self->write(std::move(response), self->keepAlive_);
      });
    });
  }

  // A client that left or timed out gets no answer; one that sent something that is not
  // HTTP gets a 400.
  void answerReadError(beast::error_code ec) {
    if (ec.category() == http::make_error_code(http::error::bad_target).category() &&
        ec != http::error::end_of_stream && ec != http::error::partial_message) {
      write(front_.router.error(request_, 400), false);
    } else {
      close();
    }
  }

  void write(HttpResponse response, bool keepAlive) {
    if (closed_) {
      return;
    }
    phase = Phase::Writing;
    keepAlive = keepAlive && !front_.stopping;
    auto message = std::make_shared<http::response<http::string_body>>();
    message->version(11);
    message->result(static_cast<unsigned>(response.status));
    for (auto& [name, value] : response.headers) {
      message->set(name, value);
    }
    message->keep_alive(keepAlive);
    if (isHead_) {
      message->content_length(response.body.size());
    } else {
      message->body() = std::move(response.body);
      message->prepare_payload();
    }
    const bool bodyUnread = parser_ && !parser_->is_done();
    lowest().expires_after(front_.options.writeTimeout);
    http::async_write(
        stream_, *message,
        [self = self(), message, keepAlive, bodyUnread](beast::error_code ec, std::size_t) {
          if (ec) {
            self->close();
          } else if (keepAlive && !self->front_.stopping) {
            self->readHead(self->front_.options.keepAliveTimeout);
          } else if (bodyUnread) {
            self->linger();
          } else {
            self->close();
          }
        });
  }

  void linger() {
    phase = Phase::Closing;
    beast::error_code ignored;
    lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
    lowest().expires_after(kLingerTime);
    scratch_ = std::make_unique<char[]>(kLingerChunkBytes);
    discard();
  }

  void discard() {
    lowest().async_read_some(asio::buffer(scratch_.get(), kLingerChunkBytes),
                             [self = self()](beast::error_code ec, std::size_t n) {
                               self->discarded_ += n;
                               if (ec || self->discarded_ > self->front_.options.maxBodyBytes) {
                                 self->close();
                               } else {
                                 self->discard();
                               }
                             });
  }

  HttpFront::Impl& front_;
  Stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  HttpRequest request_;
  bool isHead_ = false;
  bool keepAlive_ = false;
  bool closed_ = false;
  std::unique_ptr<char[]> scratch_;
  std::size_t discarded_ = 0;
};

}  // namespace

void HttpFront::Impl::accept() {
  acceptor.async_accept(io, [this](beast::error_code ec, tcp::socket socket) {
    if (stopping || !acceptor.is_open()) {
      return;
    }
    if (ec) {
      // Out of descriptors, most likely: try again shortly rather than spin.
      acceptRetry.expires_after(std::chrono::milliseconds(50));
      acceptRetry.async_wait([this](beast::error_code) { accept(); });
      return;
    }
    admit(std::move(socket));
    accept();
  });
}

void HttpFront::Impl::admit(tcp::socket socket) {
  beast::error_code ec;
  const auto endpoint = socket.remote_endpoint(ec);
  if (ec) {
    return;
  }
  std::string address = endpoint.address().to_string();
  const auto fromAddress =
      static_cast<std::size_t>(std::count_if(connections.begin(), connections.end(),
                                             [&](const auto& c) { return c->address == address; }));
  // A full house refuses the newcomer only when every connection is busy with a request.
  if (fromAddress >= options.maxConnectionsPerAddress && !replaceWaiting(&address)) {
    return;
  }
  if (connections.size() >= options.maxConnections && !replaceWaiting(nullptr)) {
    return;
  }
  std::shared_ptr<ConnectionBase> connection;
  if (tls) {
    using TlsStream = beast::ssl_stream<beast::tcp_stream>;
    connection = std::make_shared<Connection<TlsStream>>(*this, TlsStream(std::move(socket), *tls));
  } else {
    connection = std::make_shared<Connection<beast::tcp_stream>>(
        *this, beast::tcp_stream(std::move(socket)));
  }
  connection->address = std::move(address);
  connections.push_back(connection);
  connection->start();
}

bool HttpFront::Impl::replaceWaiting(const std::string* address) {
  for (const auto& c : connections) {
    if (c->phase == Phase::Head && (address == nullptr || c->address == *address)) {
      const std::shared_ptr<ConnectionBase> oldest = c;  // close() unlists it
      oldest->close();
      return true;
    }
  }
  return false;
}

void HttpFront::Impl::forget(ConnectionBase* connection) {
  connections.remove_if([connection](const auto& c) { return c.get() == connection; });
  if (stopping && connections.empty()) {
    std::lock_guard lock(drainMutex);
    drained = true;
    drainedSignal.notify_all();
  }
}

HttpFront::HttpFront(const HttpRouter& router, HttpFrontOptions options)
    : impl_(std::make_unique<Impl>(router, std::move(options))) {}

HttpFront::~HttpFront() { stop(); }

int HttpFront::start() {
  Impl& f = *impl_;
  if (!f.options.certFile.empty() && !f.options.keyFile.empty()) {
    f.tls.emplace(asio::ssl::context::tls_server);
    try {
      f.tls->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                         asio::ssl::context::no_sslv3);
      f.tls->use_certificate_chain_file(f.options.certFile.string());
      f.tls->use_private_key_file(f.options.keyFile.string(), asio::ssl::context::pem);
    } catch (const boost::system::system_error&) {
      throw std::runtime_error(fmt::format("cannot use certificate {} with key {}",
                                           f.options.certFile.string(),
                                           f.options.keyFile.string()));
    }
  }
  beast::error_code ec;
  tcp::resolver resolver(f.io);
  const auto endpoints =
      resolver.resolve(f.options.host, std::to_string(f.options.port),
                       tcp::resolver::passive | tcp::resolver::numeric_service, ec);
  if (!ec && !endpoints.empty()) {
    const tcp::endpoint endpoint = *endpoints.begin();
    f.acceptor.open(endpoint.protocol(), ec);
    if (!ec) {
      f.acceptor.set_option(asio::socket_base::reuse_address(true), ec);
      f.acceptor.bind(endpoint, ec);
    }
    if (!ec) {
      f.acceptor.listen(asio::socket_base::max_listen_connections, ec);
    }
  } else if (!ec) {
    ec = asio::error::host_not_found;
  }
  if (ec) {
    throw std::runtime_error(
        fmt::format("cannot listen on {}:{}: {}", f.options.host, f.options.port, ec.message()));
  }
  const int port = f.acceptor.local_endpoint().port();
  f.pool = std::make_unique<WorkerPool>(std::max(f.options.workers, 1));
  f.work.emplace(f.io.get_executor());
  f.accept();
  f.ioThread = std::thread([&f] { f.io.run(); });
  return port;
}

void HttpFront::stop() {
  Impl& f = *impl_;
  if (!f.ioThread.joinable()) {
    return;
  }
  asio::post(f.io, [&f] {
    f.stopping = true;
    beast::error_code ignored;
    f.acceptor.close(ignored);
    f.acceptRetry.cancel();
    // Requests being handled or answered finish; the rest are cut now.
    const std::vector<std::shared_ptr<ConnectionBase>> all(f.connections.begin(),
                                                           f.connections.end());
    for (const auto& c : all) {
      if (c->phase != Phase::Handling && c->phase != Phase::Writing) {
        c->close();
      }
    }
    if (f.connections.empty()) {
      std::lock_guard lock(f.drainMutex);
      f.drained = true;
      f.drainedSignal.notify_all();
    }
  });
  {
    std::unique_lock lock(f.drainMutex);
    f.drainedSignal.wait(lock, [&f] { return f.drained; });
  }
  f.work.reset();
  f.io.stop();
  f.ioThread.join();
  f.pool->stop();
}

}  // namespace lumo::server::detail
