// Checkpoints per second through lumo servers sharing one PostgreSQL: one instance, then two
// with every request going to the other instance than the one before (a round-robin balancer
// without sticky sessions). Starts its own throwaway cluster, which syncs to disk as a real one
// would. Clients run passing reruns of 390 x 844 screens (a phone screenshot in points), ten
// checkpoints a session. Prints the rate of each set-up, the verdict line last.
#include <httplib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lumo/detail/json.h"
#include "lumo/server/server.h"
#include "platform/base64.h"
#include "platform/png.h"
#include "support/postgres_cluster.h"

namespace {

using lumo::Image;
using lumo::Json;
using lumo::server::Server;
using lumo::server::ServerConfig;

constexpr int kClients = 16;
constexpr int kCheckpointsPerSession = 10;
constexpr std::chrono::seconds kDuration{6};

// A list screen: rows of strokes that stand in for text, different for each client.
Image screen(int variant) {
  Image image(390, 844);
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      const bool ink = y > 100 && (y / 40) % 2 == 0 && x > 16 &&
                       x < 16 + (y * 7 + variant * 31) % 340 && x % 6 < 4;
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = p[1] = p[2] = ink ? 30 : 250;
      p[3] = 255;
    }
  }
  return image;
}

Json startInfo(int client) {
  return {{"appIdOrName", "Bench"},
          {"scenarioIdOrName", "List " + std::to_string(client)},
          {"batchInfo", {{"id", "postgres-bench"}, {"name", "Throughput"}}},
          {"environment", {{"displaySize", {{"width", 390}, {"height", 844}}}}}};
}

Json matchData(const std::string& screenshot64, int step) {
  const std::string tag = "step " + std::to_string(step);
  return {{"appOutput", {{"screenshot64", screenshot64}}},
          {"tag", tag},
          {"options", {{"name", tag}, {"imageMatchSettings", {{"matchLevel", "Strict"}}}}}};
}

// One client's test runs, its requests spread over `ports` in turn; counts checkpoints that
// matched, and any that did not.
void runClient(int client, const std::vector<int>& ports,
               std::chrono::steady_clock::time_point until, bool measure,
               std::atomic<long>& matched, std::atomic<long>& failed) {
  std::vector<std::unique_ptr<httplib::Client>> clients;
  for (int port : ports) {
    clients.push_back(std::make_unique<httplib::Client>("127.0.0.1", port));
    clients.back()->set_read_timeout(std::chrono::seconds(60));
  }
  const std::string screenshot64 = lumo::base64Encode(lumo::encodePng(screen(client)));
  const std::string key = "?apiKey=lumo-demo-key";
  std::size_t request = static_cast<std::size_t>(client);
  auto next = [&]() -> httplib::Client& { return *clients[request++ % clients.size()]; };
  do {
    auto started = next().Post("/api/sessions/running.json" + key,
                               Json{{"startInfo", startInfo(client)}}.dump(), "application/json");
    if (!started || started->status / 100 != 2) {
      ++failed;
      continue;
    }
    const std::string id = Json::parse(started->body).value("id", "");
    for (int step = 0; step < kCheckpointsPerSession; ++step) {
      auto res = next().Post("/api/sessions/running/" + id + ".json" + key,
                             matchData(screenshot64, step).dump(), "application/json");
      const bool ok =
          res && res->status == 200 && Json::parse(res->body).value("asExpected", false);
      if (measure) {
        ++(ok ? matched : failed);
      }
    }
    // The first run of a test saves its baseline; the measured ones only compare.
    next().Delete("/api/sessions/running/" + id + ".json" + key +
                  (measure ? "&updateBaseline=0" : "&updateBaseline=1"));
  } while (measure && std::chrono::steady_clock::now() < until);
}

// Checkpoints per second of kClients clients over `instances` servers on `url`.
double checkpointsPerSecond(const std::string& url, int instances) {
  std::vector<std::unique_ptr<Server>> servers;
  std::vector<int> ports;
  for (int i = 0; i < instances; ++i) {
    ServerConfig config;
    config.storeUrl = url;
    config.threads = kClients;
    servers.push_back(std::make_unique<Server>(config));
    servers.back()->start();
    ports.push_back(servers.back()->port());
  }
  std::atomic<long> matched{0}, failed{0};
  const auto run = [&](bool measure) {
    const auto until = std::chrono::steady_clock::now() + kDuration;
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
      clients.emplace_back([&, c] { runClient(c, ports, until, measure, matched, failed); });
    }
    for (auto& client : clients) {
      client.join();
    }
  };
  run(false);  // baselines (a no-op after the first set-up)
  const auto start = std::chrono::steady_clock::now();
  run(true);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  for (auto& server : servers) {
    server->stop();
  }
  if (failed > 0) {
    std::printf("  %ld checkpoints failed or did not match\n", failed.load());
  }
  return static_cast<double>(matched) / seconds;
}

}  // namespace

int main() {
  const auto binDir = lumo::test::PostgresCluster::findBinDir();
  if (!binDir) {
    std::printf("%s\n", lumo::test::PostgresCluster::skipReason().c_str());
    std::printf("postgres: not measured, PostgreSQL is not installed\n");
    return 0;
  }
  lumo::test::PostgresCluster::Options options;
  options.fsync = true;
  lumo::test::PostgresCluster cluster(*binDir, options);
  std::printf("throwaway cluster started in %.2f s\n", cluster.startSeconds());
  const std::string url = cluster.database("bench");
  std::printf("%d clients, %d checkpoints a session, %lld s each\n", kClients,
              kCheckpointsPerSession, static_cast<long long>(kDuration.count()));
  const double one = checkpointsPerSecond(url, 1);
  std::printf("one instance:  %.0f checkpoints/s\n", one);
  const double two = checkpointsPerSecond(url, 2);
  std::printf("two instances: %.0f checkpoints/s\n", two);
  std::printf("postgres: %.0f checkpoints/s with one instance, %.0f with two\n", one, two);
  return 0;
}
