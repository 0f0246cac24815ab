#include "lumo/screenshot_source.h"

#include <stdio.h>
#include <sys/wait.h>

#include <array>
#include <fstream>
#include <iterator>
#include <memory>

#include "lumo/exception.h"
#include "platform/png.h"

namespace lumo {
namespace {

constexpr const char* kScreenshotException = "ScreenshotException";

Exception screenshotError(std::string reason) {
  return Exception(kScreenshotException, std::move(reason));
}

// The PNG as it came: its structure is checked here, its pixels decoded only if a checkpoint
// needs them (one that sends the PNG as it is does not).
CapturedScreen checkedScreen(std::vector<std::uint8_t> bytes, const std::string& origin) {
  try {
    checkPng(bytes);
  } catch (const std::exception& error) {
    throw screenshotError(origin + " is not a valid PNG: " + error.what());
  }
  return {nullptr, std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes))};
}

// The pixels of a capture that gave only its PNG.
ImagePtr decoded(const CapturedScreen& screen) {
  try {
    return std::make_shared<const Image>(decodePng(*screen.png));
  } catch (const std::exception& error) {
    throw screenshotError(std::string("The screenshot is not a valid PNG: ") + error.what());
  }
}

}  // namespace

MemoryScreenshotSource::MemoryScreenshotSource(std::vector<ImagePtr> images)
    : images_(images.begin(), images.end()) {}

void MemoryScreenshotSource::push(ImagePtr image) {
  std::lock_guard lock(mutex_);
  images_.push_back(std::move(image));
}

ImagePtr MemoryScreenshotSource::capture() {
  std::lock_guard lock(mutex_);
  if (images_.empty()) {
    throw screenshotError("No screenshot was given to capture");
  }
  ImagePtr image = images_.front();
  if (images_.size() > 1) {
    images_.pop_front();
  }
  return image;
}

PngFileScreenshotSource::PngFileScreenshotSource(std::vector<std::filesystem::path> files)
    : files_(std::move(files)) {}

ImagePtr PngFileScreenshotSource::capture() { return decoded(captureScreen()); }

CapturedScreen PngFileScreenshotSource::captureScreen() {
  if (files_.empty()) {
    throw screenshotError("No screenshot file was given");
  }
  const auto& path = files_[std::min(next_, files_.size() - 1)];
  if (next_ < files_.size()) {
    ++next_;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw screenshotError("Cannot read screenshot file " + path.string());
  }
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
  return checkedScreen(std::move(bytes), path.string());
}

CommandScreenshotSource::CommandScreenshotSource(std::string command)
    : command_(std::move(command)) {}

ImagePtr CommandScreenshotSource::capture() { return decoded(captureScreen()); }

CapturedScreen CommandScreenshotSource::captureScreen() {
  FILE* pipe = popen(command_.c_str(), "r");
  if (pipe == nullptr) {
    throw screenshotError("Cannot run screenshot command: " + command_);
  }
  std::vector<std::uint8_t> bytes;
  std::array<std::uint8_t, 1 << 16> buffer;
  while (std::size_t n = fread(buffer.data(), 1, buffer.size(), pipe)) {
    bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + n);
  }
  const int status = pclose(pipe);
  if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw screenshotError("Screenshot command failed (" +
                          (status != -1 && WIFEXITED(status)
                               ? "exit status " + std::to_string(WEXITSTATUS(status))
                               : std::string("did not exit normally")) +
                          "): " + command_);
  }
  return checkedScreen(std::move(bytes), "The output of '" + command_ + "'");
}

}  // namespace lumo
