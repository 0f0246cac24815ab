#include "arguments.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <array>
#include <charconv>
#include <cmath>
#include <system_error>
#include <vector>

#include "exit_status.h"

namespace lumo::cli {
namespace {

[[noreturn]] void fail(std::string_view option, std::string_view text, std::string_view expected) {
  throw UsageError(fmt::format("{}: expected {}, got \"{}\"", option, expected, text));
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos) {
      return parts;
    }
    start = end + 1;
  }
}

template <typename Whole>
bool toWhole(std::string_view text, Whole& value) {
  const char* end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && next == end && !text.empty();
}

bool toNumber(std::string_view text, double& value) {
  const char* end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && next == end && !text.empty() && std::isfinite(value);
}

// Parses `count` comma-separated integers into `values`; false on any malformed part.
bool integers(std::string_view text, std::size_t count, std::int64_t* values) {
  const auto parts = split(text, ',');
  if (parts.size() != count) {
    return false;
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (!toWhole(parts[i], values[i])) {
      return false;
    }
  }
  return true;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i])) {
      return false;
    }
  }
  return true;
}

}  // namespace

Size parseViewport(std::string_view option, std::string_view text) {
  const auto parts = split(text, 'x');
  Size size;
  if (parts.size() != 2 || !toNumber(parts[0], size.width) || !toNumber(parts[1], size.height) ||
      size.width <= 0 || size.height <= 0) {
    fail(option, text, "WIDTHxHEIGHT with positive numbers");
  }
  return size;
}

Region parseRegion(std::string_view option, std::string_view text) {
  std::array<std::int64_t, 4> v{};
  if (!integers(text, v.size(), v.data()) || v[2] <= 0 || v[3] <= 0) {
    fail(option, text, "LEFT,TOP,WIDTH,HEIGHT in whole points with a positive size");
  }
  return Region(v[0], v[1], v[2], v[3]);
}

FloatingArgument parseFloating(std::string_view option, std::string_view text) {
  std::array<std::int64_t, 8> v{};
  if (!integers(text, v.size(), v.data()) || v[2] <= 0 || v[3] <= 0 || v[4] < 0 || v[5] < 0 ||
      v[6] < 0 || v[7] < 0) {
    fail(option, text,
         "LEFT,TOP,WIDTH,HEIGHT,UP,DOWN,LEFT,RIGHT in whole points with a positive size and "
         "offsets of 0 or more");
  }
  return FloatingArgument{Region(v[0], v[1], v[2], v[3]), v[4], v[5], v[6], v[7]};
}

std::pair<std::string, std::string> parseProperty(std::string_view option, std::string_view text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string_view::npos || equals == 0 || equals + 1 == text.size()) {
    fail(option, text, "NAME=VALUE with a name and a value");
  }
  return {std::string(text.substr(0, equals)), std::string(text.substr(equals + 1))};
}

int parsePort(std::string_view option, std::string_view text) {
  int port = 0;
  if (!toWhole(text, port) || port < 0 || port > 65535) {
    fail(option, text, "a port from 0 to 65535");
  }
  return port;
}

std::uint64_t parseMatchTimeout(std::string_view option, std::string_view text) {
  std::uint64_t seconds = 0;
  if (!toWhole(text, seconds) || seconds == 1) {
    fail(option, text, "whole seconds, 0 or at least 2");
  }
  return seconds;
}

double parsePositiveNumber(std::string_view option, std::string_view text) {
  double value = 0;
  if (!toNumber(text, value) || value <= 0) {
    fail(option, text, "a positive number");
  }
  return value;
}

double parseNonNegativeNumber(std::string_view option, std::string_view text,
                              std::string_view expected) {
  double value = 0;
  if (!toNumber(text, value) || value < 0) {
    fail(option, text, expected);
  }
  return value;
}

bool parseYesNo(std::string_view option, std::string_view text) {
  if (text == "yes") {
    return true;
  }
  if (text == "no") {
    return false;
  }
  fail(option, text, "yes or no");
}

MatchLevel parseMatchLevel(std::string_view option, std::string_view text) {
  for (const MatchLevel level :
       {MatchLevelNone, MatchLevelLayout, MatchLevelContent, MatchLevelStrict, MatchLevelExact}) {
    if (equalsIgnoringCase(text, matchLevelToString(level))) {
      return level;
    }
  }
  fail(option, text, "None, Layout, Content, Strict or Exact");
}

void addRegionOptions(CLI::App& command, RegionTexts& texts, std::string_view unit) {
  const std::string in = fmt::format(", in {} (repeatable)", unit);
  const std::pair<const char*, std::vector<std::string>*> plain[] = {{"--ignore", &texts.ignore},
                                                                     {"--layout", &texts.layout},
                                                                     {"--strict", &texts.strict},
                                                                     {"--content", &texts.content}};
  const char* what[] = {"Region to ignore", "Region compared by layout", "Region compared strictly",
                        "Region compared by content"};
  for (std::size_t i = 0; i < std::size(plain); ++i) {
    command.add_option(plain[i].first, *plain[i].second, what[i] + in)
        ->allow_extra_args(false)
        ->type_name("L,T,W,H");
  }
  command.add_option("--floating", texts.floating, "Region whose content may move" + in)
      ->allow_extra_args(false)
      ->type_name("L,T,W,H,UP,DOWN,LEFT,RIGHT");
}

}  // namespace lumo::cli
