#include "lumo/batch_info.h"

#include <fmt/format.h>
#include <sys/random.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <random>
#include <utility>

#include "common/argument_guard.h"
#include "common/environment_helper.h"

namespace lumo {
namespace {

// 16 bytes from the kernel's random source. A generator seeded with one 32-bit value would
// give only 2^32 distinct ids, and two processes could start from the same seed.
std::array<std::uint8_t, 16> randomBytes() {
  std::array<std::uint8_t, 16> bytes{};
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (got > 0) {
      filled += static_cast<std::size_t>(got);
    } else if (got < 0 && errno != EINTR) {
      break;
    }
  }
  if (filled < bytes.size()) {
    // No getrandom (an old kernel or a sandbox): the standard library's own device, 32 bits a
    // call, is still a fresh source for every byte.
    std::random_device device;
    for (std::size_t i = 0; i < bytes.size(); i += 4) {
      const std::uint32_t word = device();
      for (std::size_t j = 0; j < 4; ++j) {
        bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
      }
    }
  }
  return bytes;
}

// A random (version 4) UUID in upper-case canonical form. Hand-written because none of our
// dependencies generates UUIDs and this needs only 16 random bytes.
std::string randomUuid() {
  std::array<std::uint8_t, 16> bytes = randomBytes();
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      text += '-';
    }
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

std::string formatLocal(std::chrono::system_clock::time_point time, const char* pattern) {
  const time_t seconds = std::chrono::system_clock::to_time_t(time);
  struct tm local {};
  localtime_r(&seconds, &local);
  char buffer[64];
  const std::size_t length = std::strftime(buffer, sizeof buffer, pattern, &local);
  return std::string(buffer, length);
}

}  // namespace

BatchInfo::BatchInfo(std::optional<std::string> name,
                     std::chrono::system_clock::time_point startedAt)
    : startedAtString_(stringFromStartedAt(startedAt)) {
  std::optional<std::string> id = EnvironmentHelper::environmentVariableForKey("BRIXTEL_BATCH_ID");
  batchId_ = id ? std::move(*id) : randomUuid();
  if (name && !name->empty()) {
    name_ = std::move(name);
  } else {
    name_ = EnvironmentHelper::environmentVariableForKey("BRIXTEL_BATCH_NAME");
  }
}

BatchInfo::BatchInfo(std::optional<std::string> name)
    : BatchInfo(std::move(name), std::chrono::system_clock::now()) {}

void BatchInfo::setBatchId(const std::optional<std::string>& batchId) {
  ArgumentGuard::notNilOrEmpty(batchId, "batchId");
  if (batchId) {
    batchId_ = *batchId;
  }
}

std::string BatchInfo::stringFromStartedAt(std::chrono::system_clock::time_point startedAt) {
  // The first pattern's unquoted T is written as a literal T.
  return fmt::format("{}T{}Z", formatLocal(startedAt, "%Y-%m-%dT%H:%M:%S%z"),
                     formatLocal(startedAt, "%H:%M:%S"));
}

Json BatchInfo::dictionary() const {
  Json json = Json::object();
  if (name_) {
    json["name"] = *name_;
  }
  json["startedAt"] = startedAtString_;
  json["id"] = batchId_;
  return json;
}

}  // namespace lumo
