#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "exit_status.h"
#include "lumo/image.h"
#include "platform/png.h"
#include "run.h"

namespace lumo::cli::testing {

// What one `lumo` command line gave.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

inline Outcome runLumo(const std::vector<std::string>& args) {
  std::ostringstream out;
  std::ostringstream err;
  Outcome outcome;
  outcome.status = run(args, out, err);
  outcome.out = out.str();
  outcome.err = err.str();
  return outcome;
}

// A width x height screen of one colour with a `mark` square of another at its top left.
inline Image screen(int width, int height, std::uint8_t shade, int mark = 0) {
  Image image(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = image.row(y) + x * Image::kChannels;
      const bool marked = x < mark && y < mark;
      p[0] = marked ? 250 : shade;
      p[1] = marked ? 20 : shade;
      p[2] = shade;
      p[3] = 255;
    }
  }
  return image;
}

inline std::filesystem::path writePng(const std::filesystem::path& path, const Image& image) {
  const auto bytes = encodePng(image);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  return path;
}

inline std::size_t lineCount(const std::string& text) {
  std::size_t lines = 0;
  for (char c : text) lines += c == '\n';
  return lines;
}

}  // namespace lumo::cli::testing
