#include "connectivity/http_client.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <mutex>
#include <string_view>
#include <system_error>

namespace lumo {
namespace {

// Idle wait between looks at the queue; a new request or the destructor wakes the worker
// earlier, and curl shortens the wait on its own whenever a transfer has a deadline.
constexpr int kIdleWaitMs = 10'000;
// Finished easy handles kept for reuse, so a request does not pay for a fresh handle.
constexpr std::size_t kSpareHandles = 8;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(
      a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

Error curlError(CURLcode code, std::string_view detail) {
  std::string description = curl_easy_strerror(code);
  if (!detail.empty()) {
    description += ": ";
    description += detail;
  }
  return Error(HttpClient::kErrorDomain, code, std::move(description));
}

// Which request failed, then curl's own text, with the system's reason when it left that out
// ("Couldn't connect to server" does not say the connection was refused). The URL is shown
// without its query, which carries the API key.
Error transferError(const HttpRequest& request, CURLcode code, const char* errorBuffer,
                    long osErrno) {
  const std::string_view url = std::string_view(request.url).substr(0, request.url.find('?'));
  std::string description = request.httpMethod + " " + std::string(url) + " failed: ";
  description += *errorBuffer != '\0' ? errorBuffer : curl_easy_strerror(code);
  const bool socketFailure =
      code == CURLE_COULDNT_CONNECT || code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR;
  if (socketFailure && osErrno != 0) {
    const std::string reason = std::system_category().message(static_cast<int>(osErrno));
    if (description.find(reason) == std::string::npos) {
      description += " (" + reason + ")";
    }
  }
  return Error(HttpClient::kErrorDomain, code, std::move(description));
}

// curl accepts some text that is not a URL (blanks, bytes beyond ASCII) and would send it as
// it stands, so the characters are checked first: only those RFC 3986 allows, and "%" only
// as the start of an escape.
std::optional<Error> checkUrl(const std::string& url) {
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~:/?#[]@!$&'()*+,;=%";
  for (std::size_t i = 0; i < url.size(); ++i) {
    const auto c = static_cast<unsigned char>(url[i]);
    const bool escape = c == '%' && i + 2 < url.size() &&
                        std::isxdigit(static_cast<unsigned char>(url[i + 1])) &&
                        std::isxdigit(static_cast<unsigned char>(url[i + 2]));
    if (kAllowed.find(static_cast<char>(c)) == std::string_view::npos || (c == '%' && !escape)) {
      return curlError(CURLE_URL_MALFORMAT,
                       fmt::format("character 0x{:02X} at offset {} cannot appear in a URL", c, i));
    }
  }
  CURLU* parsed = curl_url();
  char* scheme = nullptr;
  const bool wellFormed = curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
                          curl_url_get(parsed, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK;
  const bool web =
      wellFormed && (std::string_view(scheme) == "http" || std::string_view(scheme) == "https");
  curl_free(scheme);
  curl_url_cleanup(parsed);
  if (!wellFormed) {
    return curlError(CURLE_URL_MALFORMAT, fmt::format("cannot parse \"{}\"", url));
  }
  if (!web) {
    return curlError(CURLE_UNSUPPORTED_PROTOCOL, "only http and https URLs are served");
  }
  return std::nullopt;
}

std::optional<Error> checkHeaders(const std::vector<HttpRequest::Header>& headers) {
  for (const auto& [name, value] : headers) {
    const auto breaksLine = [](char c) { return c == '\r' || c == '\n' || c == '\0'; };
    if (name.empty() || name.find(':') != std::string::npos ||
        std::ranges::any_of(name, breaksLine) || std::ranges::any_of(value, breaksLine)) {
      return curlError(CURLE_BAD_FUNCTION_ARGUMENT,
                       fmt::format("the header \"{}\" cannot be sent", name));
    }
  }
  return std::nullopt;
}

size_t appendToBody(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

std::once_flag curlInitialised;

}  // namespace

void HttpRequest::setValue(std::string value, std::string_view field) {
  const auto it = std::ranges::find_if(
      headers, [&](const Header& header) { return equalsIgnoringCase(header.first, field); });
  if (it != headers.end()) {
    it->second = std::move(value);
  } else {
    headers.emplace_back(std::string(field), std::move(value));
  }
}

std::optional<std::string> HttpRequest::valueForHttpHeaderField(std::string_view field) const {
  const auto it = std::ranges::find_if(
      headers, [&](const Header& header) { return equalsIgnoringCase(header.first, field); });
  if (it == headers.end()) {
    return std::nullopt;
  }
  return it->second;
}

namespace {

struct Transfer {
  HttpRequest request;
  HttpClient::CompletionHandler handler;
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  std::string responseBody;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  ~Transfer() { curl_slist_free_all(headerList); }
};

// Sets up the easy handle of `transfer`; an error means the request cannot be sent at all.
std::optional<Error> prepare(Transfer& transfer, std::vector<CURL*>& spare) {
  const HttpRequest& request = transfer.request;
  if (auto error = checkUrl(request.url)) {
    return error;
  }
  if (auto error = checkHeaders(request.headers)) {
    return error;
  }

  if (spare.empty()) {
    transfer.easy = curl_easy_init();
    if (transfer.easy == nullptr) {
      return curlError(CURLE_OUT_OF_MEMORY, "no transfer handle");
    }
  } else {
    transfer.easy = spare.back();
    spare.pop_back();
  }
  CURL* easy = transfer.easy;
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  // Timers by signal cannot be used from a worker thread.
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  // The server's certificate is accepted whatever it is, on purpose.
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS,
                   std::max<long>(1, static_cast<long>(request.timeoutInterval.count())));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, appendToBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer.responseBody);

  if (request.body) {
    // curl reads the body in place: the transfer owns it until the handler has run.
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body->size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body->data());
    if (request.httpMethod != "POST") {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
    }
  } else if (request.httpMethod == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (request.httpMethod != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
  }

  for (const auto& [name, value] : request.headers) {
    // "Name;" is curl's way to send a header whose value is empty.
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    transfer.headerList = curl_slist_append(transfer.headerList, line.c_str());
  }
  // No "Expect: 100-continue" before a large body: it costs a round trip per request.
  transfer.headerList = curl_slist_append(transfer.headerList, "Expect:");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headerList);
  return std::nullopt;
}

}  // namespace

struct HttpClient::State {
  using Clock = std::chrono::steady_clock;

  std::mutex mutex;
  std::deque<std::unique_ptr<Transfer>> pending;  // guarded by mutex
  std::chrono::milliseconds shutdownGrace;        // guarded by mutex
  bool stopping = false;                          // guarded by mutex
  Clock::time_point deadline;                     // guarded by mutex; set with stopping
  // Destroyed from a handler: the destructor has returned, so no handler may run any more.
  bool abandoned = false;  // guarded by mutex
  CURLM* multi = nullptr;  // driven by the worker only; curl_multi_wakeup is thread-safe

  ~State() { curl_multi_cleanup(multi); }

  // Whether the worker must stop now, whatever is left: abandoned, or the grace is spent.
  bool mustStop() {
    std::lock_guard lock(mutex);
    return abandoned || (stopping && Clock::now() >= deadline);
  }

  // Calls the handler unless the worker must stop. Returns false when it must.
  bool deliver(Transfer& transfer, std::optional<HttpResponse> response,
               std::optional<Error> error) {
    if (mustStop()) {
      return false;
    }
    if (transfer.handler) {
      transfer.handler(std::move(response), std::move(error));
    }
    return true;
  }
};

HttpClient::HttpClient(std::chrono::milliseconds shutdownGrace)
    : state_(std::make_shared<State>()) {
  state_->shutdownGrace = shutdownGrace;
  std::call_once(curlInitialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  state_->multi = curl_multi_init();
  worker_ = std::thread([state = state_] { run(state); });
}

HttpClient::~HttpClient() {
  const bool onWorker = worker_.get_id() == std::this_thread::get_id();
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    state_->deadline = State::Clock::now() + state_->shutdownGrace;
    state_->abandoned = onWorker;
  }
  curl_multi_wakeup(state_->multi);
  if (onWorker) {
    // Destroyed by one of our own handlers: the worker stops when that handler returns and
    // keeps the shared state alive until then.
    worker_.detach();
  } else {
    worker_.join();
  }
}

void HttpClient::setShutdownGrace(std::chrono::milliseconds grace) {
  std::lock_guard lock(state_->mutex);
  state_->shutdownGrace = grace;
}

void HttpClient::send(HttpRequest request, CompletionHandler handler) {
  auto transfer = std::make_unique<Transfer>();
  transfer->request = std::move(request);
  transfer->handler = std::move(handler);
  {
    std::lock_guard lock(state_->mutex);
    state_->pending.push_back(std::move(transfer));
  }
  curl_multi_wakeup(state_->multi);
}

void HttpClient::run(const std::shared_ptr<State>& state) {
  CURLM* multi = state->multi;
  std::vector<std::unique_ptr<Transfer>> active;
  std::vector<CURL*> spare;

  const auto finish = [&](CURL* easy, CURLcode result) {
    Transfer* done = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &done);
    curl_multi_remove_handle(multi, easy);
    const auto it = std::ranges::find_if(active, [&](const auto& t) { return t.get() == done; });
    std::unique_ptr<Transfer> transfer = std::move(*it);
    active.erase(it);

    std::optional<HttpResponse> response;
    std::optional<Error> error;
    if (result == CURLE_OK) {
      response.emplace();
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &response->statusCode);
      response->body = std::move(transfer->responseBody);
    } else {
      long osErrno = 0;
      curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
      error = transferError(transfer->request, result, transfer->errorBuffer, osErrno);
    }
    if (spare.size() < kSpareHandles) {
      curl_easy_reset(easy);
      spare.push_back(easy);
    } else {
      curl_easy_cleanup(easy);
    }
    transfer->easy = nullptr;
    return state->deliver(*transfer, std::move(response), std::move(error));
  };

  for (bool running = true; running;) {
    std::deque<std::unique_ptr<Transfer>> incoming;
    int waitMs = kIdleWaitMs;
    {
      std::lock_guard lock(state->mutex);
      // Stopping still sends what is queued and finishes what is in flight, so that a request
      // made just before the destructor (an abort's DELETE) reaches the server; only the grace
      // bounds it.
      incoming.swap(state->pending);
      if (state->abandoned) {
        break;
      }
      if (state->stopping) {
        // Rounded up, so that the worker never gives up before the grace is spent.
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(state->deadline - State::Clock::now());
        if (left.count() <= 0 || (incoming.empty() && active.empty())) {
          break;
        }
        waitMs = static_cast<int>(std::min<std::chrono::milliseconds::rep>(waitMs, left.count()));
      }
    }
    for (auto& transfer : incoming) {
      if (auto error = prepare(*transfer, spare)) {
        running = state->deliver(*transfer, std::nullopt, std::move(error));
        if (!running) {
          break;
        }
        continue;
      }
      curl_multi_add_handle(multi, transfer->easy);
      active.push_back(std::move(transfer));
    }
    if (!running) {
      break;
    }

    int stillRunning = 0;
    curl_multi_perform(multi, &stillRunning);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg != CURLMSG_DONE) {
        continue;
      }
      if (!finish(message->easy_handle, message->data.result)) {
        running = false;
        break;
      }
    }
    if (running && active.empty()) {
      // The last transfer may have ended just now, after the destructor asked to stop: waiting
      // would hold the destructor for the whole grace with nothing left to do.
      std::lock_guard lock(state->mutex);
      if (state->stopping && state->pending.empty()) {
        break;
      }
    }
    if (running) {
      curl_multi_poll(multi, nullptr, 0, std::max(1, waitMs), nullptr);
    }
  }

  // Stopping: what is left when the grace is spent is dropped with its handler uncalled.
  for (const auto& transfer : active) {
    curl_multi_remove_handle(multi, transfer->easy);
    curl_easy_cleanup(transfer->easy);
  }
  for (CURL* easy : spare) {
    curl_easy_cleanup(easy);
  }
}

}  // namespace lumo
