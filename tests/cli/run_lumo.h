#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "exit_status.h"
#include "lumo/server/server.h"
#include "platform/png.h"
#include "run.h"
#include "server/temp_dir.h"
#include "support/test_images.h"

namespace lumo::test {

using namespace lumo::cli;

// What one `lumo` command line gave.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

inline Outcome runLumo(const std::vector<std::string>& args) {
  std::ostringstream out;
  std::ostringstream err;
  const int status = run(args, out, err);
  return {status, out.str(), err.str()};
}

inline std::filesystem::path writePng(const std::filesystem::path& path, const Image& image) {
  const auto bytes = encodePng(image);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  return path;
}

// How often `part` occurs in `text`, overlapping occurrences included.
inline std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

inline std::string readFile(const std::filesystem::path& file) {
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

inline std::size_t lineCount(const std::string& text) { return count(text, "\n"); }

// The embedded server on a loopback port and three screens: home, cart, and cart with a mark.
class EmbeddedServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server::ServerConfig config;
    config.dataDir = data_.path();
    server_ = std::make_unique<server::Server>(config);
    server_->start();
    home_ = writePng(files_.path() / "home.png", markedScreen(40, 60, 90)).string();
    cart_ = writePng(files_.path() / "cart.png", markedScreen(40, 60, 180)).string();
    changed_ = writePng(files_.path() / "cart-new.png", markedScreen(40, 60, 180, 10)).string();
  }
  void TearDown() override { server_->stop(); }

  // `lumo check` of test "Browse" with the demo key, checking each screen once.
  Outcome check(std::vector<std::string> extra, const std::vector<std::string>& images) const {
    std::vector<std::string> a = {"check",           "--server",  server_->baseUrl(),
                                  "--app",           "Shop",      "--test",
                                  "Browse",          "--api-key", std::string(server::kDemoApiKey),
                                  "--match-timeout", "0"};
    a.insert(a.end(), extra.begin(), extra.end());
    a.insert(a.end(), images.begin(), images.end());
    return runLumo(a);
  }

  TempDir data_;
  TempDir files_;
  std::unique_ptr<server::Server> server_;
  std::string home_, cart_, changed_;
};

}  // namespace lumo::test
