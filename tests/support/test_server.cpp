#include "support/test_server.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace lumo::test {
namespace {

// cpp-httplib files the peer's and its own address among the headers; they were never sent.
bool isPseudoHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

// A P-256 key and a one-day self-signed certificate for 127.0.0.1, by the openssl tool.
void writeSelfSignedCertificate(const std::filesystem::path& certificatePath,
                                const std::filesystem::path& keyPath) {
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 "
      "-subj /CN=127.0.0.1 -keyout '" +
      keyPath.string() + "' -out '" + certificatePath.string() + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("openssl could not make a test certificate");
  }
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  const auto equal = [&](const auto& header) {
    return std::ranges::equal(header.first, name, [](unsigned char a, unsigned char b) {
      return std::tolower(a) == std::tolower(b);
    });
  };
  const auto it = std::ranges::find_if(headers, equal);
  if (it == headers.end()) {
    return std::nullopt;
  }
  return it->second;
}

TestServer::TestServer(Scheme scheme) : scheme_(scheme) {
  if (scheme_ == Scheme::Http) {
    server_ = std::make_unique<httplib::Server>();
  } else {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumo-tls-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot make a temp dir");
    }
    directory_ = pattern;
    certificatePath_ = directory_ / "certificate.pem";
    keyPath_ = directory_ / "key.pem";
    writeSelfSignedCertificate(certificatePath_, keyPath_);
    server_ = std::make_unique<httplib::SSLServer>(certificatePath_.c_str(), keyPath_.c_str());
  }
  if (!server_->is_valid()) {
    throw std::runtime_error("the test server cannot serve");
  }

  const auto serve = [this](const httplib::Request& request, httplib::Response& response) {
    RecordedRequest recorded;
    recorded.method = request.method;
    const std::size_t question = request.target.find('?');
    recorded.path = request.target.substr(0, question);
    if (question != std::string::npos) {
      recorded.query = request.target.substr(question + 1);
    }
    for (const auto& [name, value] : request.headers) {
      if (!isPseudoHeader(name)) {
        recorded.headers.emplace_back(name, value);
      }
    }
    recorded.body = request.body;
    recorded.remotePort = request.remote_port;

    const ScriptedResponse scripted = answer(recorded);
    response.status = scripted.status;
    if (scripted.dropConnection) {
      // A provider that gives up makes cpp-httplib close the socket mid-response.
      response.set_content_provider(
          scripted.body.size() + 1, scripted.contentType,
          [](std::size_t, std::size_t, httplib::DataSink&) { return false; });
    } else {
      response.set_content(scripted.body, scripted.contentType);
    }
  };
  const std::string any = ".*";
  server_->Get(any, serve);
  server_->Post(any, serve);
  server_->Put(any, serve);
  server_->Patch(any, serve);
  server_->Delete(any, serve);
  server_->Options(any, serve);
}

TestServer::~TestServer() {
  stop();
  if (!directory_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
}

void TestServer::start() {
  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ < 0) {
    throw std::runtime_error("the test server cannot bind");
  }
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // The socket already listens; waiting for the accept loop keeps stop() from racing it.
  while (!server_->is_running()) {
    std::this_thread::yield();
  }
}

void TestServer::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) {
    server_->stop();
    thread_.join();
  }
}

std::string TestServer::baseUrl() const {
  return (scheme_ == Scheme::Http ? "http://127.0.0.1:" : "https://127.0.0.1:") +
         std::to_string(port_);
}

void TestServer::enqueue(ScriptedResponse response) {
  std::lock_guard lock(mutex_);
  script_.push_back(std::move(response));
}

void TestServer::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void TestServer::hold() {
  std::lock_guard lock(mutex_);
  held_ = true;
}

void TestServer::release() {
  {
    std::lock_guard lock(mutex_);
    held_ = false;
  }
  changed_.notify_all();
}

std::vector<RecordedRequest> TestServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool TestServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

ScriptedResponse TestServer::answer(const RecordedRequest& request) {
  std::unique_lock lock(mutex_);
  requests_.push_back(request);
  changed_.notify_all();

  ScriptedResponse response;
  if (!script_.empty()) {
    response = std::move(script_.front());
    script_.pop_front();
  } else if (handler_) {
    const Handler handler = handler_;
    lock.unlock();
    response = handler(request);
    lock.lock();
  }
  changed_.wait(lock, [&] { return !held_ || stopping_; });
  changed_.wait_for(lock, response.delay, [&] { return stopping_; });
  return response;
}

RefusingPort::RefusingPort() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot reserve a port");
  }
  port_ = ntohs(address.sin_port);
}

RefusingPort::~RefusingPort() { ::close(socket_); }

}  // namespace lumo::test
