#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <thread>

#include "server_fixture.h"

namespace lumo::test {
namespace {

using namespace std::chrono_literals;

// A raw loopback connection, for requests no well-behaved client library would send.
class RawConnection {
 public:
  explicit RawConnection(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ~RawConnection() { close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) {
        return false;
      }
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
  }
  // Everything received until the server closes, or until it is silent for `timeout`.
  std::string receive(std::chrono::milliseconds timeout = 5s) {
    const timeval wait{timeout.count() / 1000, timeout.count() % 1000 * 1000};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::string received;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = recv(fd_, buffer, sizeof buffer, 0)) > 0) {
      received.append(buffer, static_cast<std::size_t>(n));
    }
    closedByServer_ = n == 0;
    return received;
  }
  bool closedByServer() const { return closedByServer_; }

 private:
  int fd_;
  bool closedByServer_ = false;
};

int statusOf(const std::string& response) {
  return response.starts_with("HTTP/1.1 ") ? std::atoi(response.c_str() + 9) : 0;
}

class Hardening : public ServerTest {
 protected:
  void SetUp() override {
    ServerConfig config;
    config.headerTimeout = 300ms;
    config.publicUrl = "https://lumo.example.test/";
    startServer(config);
  }
  bool stillServes() {
    auto res = client_->Get("/");
    return res && res->status == 200;
  }
};

// Nesting is counted before parsing, outside texts only: an escaped quote ends no text, an
// escaped backslash does.
TEST_F(Hardening, DeeplyNestedJsonIsRefusedAndTheServerStillAnswers) {
  const std::string deep = std::string(75'000, '[') + std::string(75'000, ']');
  for (const std::string& x : {deep, std::string(65, '{'), "[\"\\\\\"," + deep + "]"}) {
    auto res =
        client_->Post("/api/sessions/running.json?" + keyQuery(),
                      R"({"startInfo":{"appIdOrName":"D","scenarioIdOrName":"T","x":)" + x + "}}",
                      "application/json");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400);
    EXPECT_NE(res->body.find("deeper than 64 levels"), std::string::npos) << res->body;
  }
  start(startInfo("\"" + std::string(100, '[')), 201);
  EXPECT_TRUE(stillServes());
}

TEST_F(Hardening, ALongTextInTheStartRecordIsRefusedByName) {
  Json info = startInfo("Long");
  info["batchInfo"]["name"] = std::string(1001, 'n');
  auto res = startSession(info);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400);
  EXPECT_NE(res->body.find("startInfo.batchInfo.name"), std::string::npos) << res->body;
  start(startInfo("Long"), 201);  // nothing was stored by the refused start
}

TEST_F(Hardening, RequestsRefusedFromTheirHeadAreAnsweredBeforeAnyBodyIsSent) {
  const struct {
    std::string head;
    int status;
  } cases[] = {
      // A compressed body, without a key, to a path that does not exist.
      {"POST /anything HTTP/1.1\r\nHost: x\r\nContent-Encoding: gzip\r\n"
       "Content-Length: 3000000\r\n\r\n",
       415},
      {"POST /api/sessions/running.json HTTP/1.1\r\nHost: x\r\nContent-Length: 3000000\r\n\r\n",
       401},
      {"POST /nowhere HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n", 404},
  };
  for (const auto& c : cases) {
    RawConnection connection(server_->port());
    ASSERT_TRUE(connection.send(c.head));
    EXPECT_EQ(statusOf(connection.receive(3s)), c.status) << c.head;
  }
  EXPECT_TRUE(stillServes());
}

TEST_F(Hardening, AChunkedBodyOverTheLimitIsRefused) {
  ServerConfig config;
  config.maxBodyBytes = 64 * 1024;
  restartServer(config);
  RawConnection connection(server_->port());
  ASSERT_TRUE(connection.send("POST /api/sessions/running.json?" + keyQuery() +
                              " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"));
  const std::string chunk(16 * 1024, 'x');
  for (int i = 0; i < 8 && connection.send("4000\r\n" + chunk + "\r\n"); ++i) {
  }
  connection.send("0\r\n\r\n");
  EXPECT_EQ(statusOf(connection.receive(3s)), 413);
}

TEST_F(Hardening, IdleAndDrippingConnectionsNeitherBlockOthersNorStayOpen) {
  std::vector<std::unique_ptr<RawConnection>> idle, dripping;
  for (int i = 0; i < 200; ++i) {
    idle.push_back(std::make_unique<RawConnection>(server_->port()));
  }
  for (int i = 0; i < 8; ++i) {
    dripping.push_back(std::make_unique<RawConnection>(server_->port()));
  }
  // Drip one header byte per connection every 50 ms: 16 drips outlast the 300 ms allowed.
  const std::string head = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
  for (std::size_t i = 0; i < 16; ++i) {
    for (auto& c : dripping) {
      c->send(head.substr(i, 1));
    }
    if (i == 0 || i == 8) {
      EXPECT_TRUE(stillServes()) << i;
    }
    std::this_thread::sleep_for(50ms);
  }
  for (auto& c : dripping) {
    const std::string response = c->receive(2s);
    EXPECT_TRUE(c->closedByServer());
    EXPECT_EQ(response, "");  // cut off, never answered
  }
  EXPECT_TRUE(stillServes());
}

TEST_F(Hardening, LinksUseThePublicUrlWhateverTheHostHeaderSays) {
  auto res = client_->Post("/api/sessions/running.json?" + keyQuery(),
                           httplib::Headers{{"Host", "evil.example"}},
                           Json{{"startInfo", startInfo("Links")}}.dump(), "application/json");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 201) << res->body;
  const std::string id = Json::parse(res->body)["id"];
  EXPECT_EQ(Json::parse(res->body)["url"], "https://lumo.example.test/sessions/" + id);
  EXPECT_EQ(server_->publicUrl(), "https://lumo.example.test");
  const Json results = stop(id, false);
  EXPECT_EQ(results["apiUrls"]["batch"], "https://lumo.example.test/batches/B1");
}

// A PNG that declares 7071 x 7071 RGBA pixels but carries only 6 KB of image data.
std::vector<std::uint8_t> truncatedLargePng() {
  std::string png = server::detail::encodePngImage(noise(200, 200, 3));
  const auto putBe32 = [&](std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
      png[at + static_cast<std::size_t>(i)] = static_cast<char>(v >> (24 - 8 * i));
    }
  };
  putBe32(16, 7071);
  putBe32(20, 7071);
  putBe32(29, static_cast<std::uint32_t>(
                  crc32(0, reinterpret_cast<const Bytef*>(png.data() + 12), 17)));
  return {png.begin(), png.begin() + 6 * 1024};
}

TEST_F(Hardening, ATruncatedPngDeclaringALargeImageFailsWithoutAllocatingIt) {
  const std::string id = start(startInfo("Png"), 201);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const long before = usage.ru_maxrss;
  auto res = matchWindow(id, matchData(base64Encode(truncatedLargePng()), "big"));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400) << res->body;
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss - before, 100 * 1024);  // the image would take 200 MB
}

}  // namespace
}  // namespace lumo::test
