#pragma once

#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lumo/image.h"

namespace lumo {

// One capture: the screen's pixels, its PNG's bytes, or both (then the bytes decode to exactly
// those pixels). A checkpoint that keeps the screen as it is sends the PNG instead of encoding
// the pixels again, and decodes a PNG given alone only when it needs the pixels.
struct CapturedScreen {
  ImagePtr image;  // null when the source gives only the PNG
  PngBytes png;    // null when the source had no PNG
};

// Where the `Lumo` flavour gets the screen: captures it as an image in pixels and knows its
// scale ratio (pixels per point), its status-bar height (points) and, when it can tell, the
// device's name and OS. Called on the test thread.
class ScreenshotSource {
 public:
  virtual ~ScreenshotSource() = default;

  // The current screen. Throws lumo::Exception ("ScreenshotException") when it cannot be had.
  virtual ImagePtr capture() = 0;
  // The current screen, with the PNG it came as; the default has no PNG. Throws as capture().
  virtual CapturedScreen captureScreen() { return {capture(), nullptr}; }

  double scaleRatio() const { return scaleRatio_; }
  void setScaleRatio(double ratio) { scaleRatio_ = ratio; }
  double statusBarHeight() const { return statusBarHeight_; }
  void setStatusBarHeight(double points) { statusBarHeight_ = points; }
  const std::optional<std::string>& deviceName() const { return deviceName_; }
  void setDeviceName(std::optional<std::string> name) { deviceName_ = std::move(name); }
  const std::optional<std::string>& osDescription() const { return osDescription_; }
  void setOsDescription(std::optional<std::string> text) { osDescription_ = std::move(text); }

 private:
  double scaleRatio_ = 1.0;
  double statusBarHeight_ = 0.0;
  std::optional<std::string> deviceName_;
  std::optional<std::string> osDescription_;
};

// Images handed over in memory: each capture takes the next queued image; once the queue is
// down to one image, that one is repeated. Thread-safe, so a test may queue while a check runs.
class MemoryScreenshotSource : public ScreenshotSource {
 public:
  MemoryScreenshotSource() = default;
  explicit MemoryScreenshotSource(std::vector<ImagePtr> images);

  void push(ImagePtr image);
  // Throws when nothing was ever queued.
  ImagePtr capture() override;

 private:
  std::mutex mutex_;
  std::deque<ImagePtr> images_;
};

// PNG files: each capture reads the next file; the last one is repeated.
class PngFileScreenshotSource : public ScreenshotSource {
 public:
  explicit PngFileScreenshotSource(std::vector<std::filesystem::path> files);

  // Throws when the file cannot be read or is not a valid PNG.
  ImagePtr capture() override;
  // The file's bytes alone, their structure checked (chunks and CRCs); not decoded.
  CapturedScreen captureScreen() override;

 private:
  std::vector<std::filesystem::path> files_;
  std::size_t next_ = 0;
};

// A shell command that prints a PNG on stdout, run once per capture: for example
// "adb exec-out screencap -p" for an Android device or "xcrun simctl io booted screenshot -".
class CommandScreenshotSource : public ScreenshotSource {
 public:
  explicit CommandScreenshotSource(std::string command);

  // Throws when the command fails or prints no valid PNG; the message quotes the command.
  ImagePtr capture() override;
  // The printed bytes alone, their structure checked (chunks and CRCs); not decoded.
  CapturedScreen captureScreen() override;

  const std::string& command() const { return command_; }

 private:
  std::string command_;
};

}  // namespace lumo
