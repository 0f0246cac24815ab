// One match request with a 3 MB body against a loopback server: our HTTP client and the
// server connector (body built from the record each time), each against a bare libcurl easy
// POST of the same bytes in the same run. Prints the ratio of medians last, as
// "connector overhead: N.NNx".
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "connectivity/http_client.h"
#include "connectivity/server_connector.h"
#include "lumo/system_log.h"
#include "platform/expectation.h"
#include "platform/waiter.h"

namespace {

constexpr std::size_t kBodyBytes = 3 * 1024 * 1024;
constexpr const char* kAnswer = R"({"asExpected":true})";

// The loopback server every benchmark talks to; it reads the whole body and answers at once.
class Loopback {
 public:
  Loopback() {
    server_.Post(".*", [](const httplib::Request& request, httplib::Response& response) {
      benchmark::DoNotOptimize(request.body.size());
      response.set_content(kAnswer, "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) {
      std::this_thread::yield();
    }
  }
  ~Loopback() {
    server_.stop();
    thread_.join();
  }
  std::string serverURL() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string url() const { return serverURL() + "/api/sessions/running/bench.json?apiKey=key"; }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

Loopback& loopback() {
  static Loopback server;
  return server;
}

// A match request as a checkpoint makes it: base64 text in lines of 64 characters joined by
// CR LF, sized so that the JSON body is about 3 MB.
const std::shared_ptr<lumo::MatchWindowData>& matchData() {
  static const auto data = [] {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string base64;
    // Each line of 64 characters and CR LF takes 68 bytes once escaped in JSON.
    for (std::size_t line = 0; line < kBodyBytes / 68; ++line) {
      for (std::size_t i = 0; i < 64; ++i) {
        base64 += alphabet[(line * 7 + i * 13) % 64];
      }
      base64 += "\r\n";
    }
    return std::make_shared<lumo::MatchWindowData>(
        lumo::AppOutput("Home", std::move(base64)), "home",
        lumo::Options("home", false, false, false, false,
                      std::make_shared<lumo::ImageMatchSettings>()));
  }();
  return data;
}

// The bytes on the wire, made once: what the bare request sends.
const std::string& body() {
  static const std::string text = matchData()->dictionary().dump();
  return text;
}

size_t discard(char*, size_t size, size_t count, void* sink) {
  static_cast<std::string*>(sink)->append(size * count, ' ');
  return size * count;
}

// The baseline: libcurl's easy interface on the calling thread, one handle kept for the run so
// that its connection is reused as the client's is, and the same headers.
void bareCurl(benchmark::State& state) {
  CURL* easy = curl_easy_init();
  curl_slist* headers = nullptr;
  const std::string length = "Content-Length: " + std::to_string(body().size());
  headers = curl_slist_append(headers, length.c_str());
  headers = curl_slist_append(headers, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Expect:");
  const std::string url = loopback().url();
  std::string answer;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body().data());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body().size()));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer);
  for (auto _ : state) {
    answer.clear();
    if (curl_easy_perform(easy) != CURLE_OK) {
      state.SkipWithError("bare request failed");
    }
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
}

// The request as the connector builds it, through our client, waiting as the caller does.
void httpClient(benchmark::State& state) {
  lumo::HttpClient client;
  for (auto _ : state) {
    lumo::HttpRequest request;
    request.url = loopback().url();
    request.httpMethod = "POST";
    request.body = body();
    request.setValue(std::to_string(body().size()), "Content-Length");
    request.setValue("application/json", "Content-Type");
    auto done = std::make_shared<lumo::Expectation>();
    bool ok = false;
    client.send(std::move(request), [&ok, done](std::optional<lumo::HttpResponse> response,
                                                std::optional<lumo::Error>) {
      ok = response.has_value();
      done->fulfill();
    });
    lumo::Waiter::waitForExpectations({done}, std::chrono::seconds(60));
    if (!ok) {
      state.SkipWithError("client request failed");
    }
  }
}

// The whole call as the match window task makes it: build the body from the record, send,
// parse the answer into a MatchResult, wait for the handler.
void serverConnector(benchmark::State& state) {
  const auto connector =
      lumo::ServerConnector::connectorWithServerURL(loopback().serverURL(), "key");
  const auto session = std::make_shared<lumo::RunningSession>(lumo::Json{{"id", "bench"}});
  for (auto _ : state) {
    auto done = std::make_shared<lumo::Expectation>();
    bool asExpected = false;
    connector->matchWindowForSession(
        session, matchData(),
        [&asExpected, done](std::shared_ptr<lumo::MatchResult> result, std::optional<lumo::Error>) {
          asExpected = result && result->asExpected();
          done->fulfill();
        });
    lumo::Waiter::waitForExpectations({done}, std::chrono::seconds(60));
    if (!asExpected) {
      state.SkipWithError("connector request failed");
    }
  }
}

BENCHMARK(bareCurl)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(9);
BENCHMARK(httpClient)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(9);
BENCHMARK(serverConnector)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(9);

// Keeps the median wall time of each benchmark besides the usual console table.
class Recorder : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        medians[run.run_name.function_name] = run.GetAdjustedRealTime();
      }
    }
  }
  std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  // The connector logs every match URL; the benchmark measures the call, not the log.
  lumo::setSystemLogSink([](std::string_view) {});
  benchmark::Initialize(&argc, argv);
  Recorder recorder;
  benchmark::RunSpecifiedBenchmarks(&recorder);
  benchmark::Shutdown();
  auto& median = recorder.medians;
  const double bare = median["bareCurl"];
  const auto ratio = [&](const char* name) { return bare > 0 ? median[name] / bare : 0.0; };
  std::printf("medians: bare curl %.3f ms, http client %.3f ms, connector %.3f ms\n", bare,
              median["httpClient"], median["serverConnector"]);
  std::printf("http client overhead: %.2fx\n", ratio("httpClient"));
  std::printf("connector overhead: %.2fx\n", ratio("serverConnector"));
  return 0;
}
