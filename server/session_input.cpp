#include "session_input.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "json_limits.h"
#include "rect_pixels.h"

namespace lumo::server::detail {
namespace {

Rect rectFrom(const Json& r, std::string_view path) {
  if (!r.is_object()) {
    badRequest(fmt::format("{} must hold region objects", path));
  }
  return pixelRect(intAt(r, "left", path), intAt(r, "top", path), intAt(r, "width", path),
                   intAt(r, "height", path));
}

std::vector<Rect> rectsAt(const Json& settings, const char* key, std::string_view path) {
  const std::string where = fmt::format("{}.{}", path, key);
  std::vector<Rect> rects;
  for (const Json& r : arrayAt(settings, key, path)) {
    rects.push_back(rectFrom(r, where));
  }
  return rects;
}

std::string numberText(const Json& number) {
  if (!number.is_number()) {
    return "?";
  }
  const double value = number.get<double>();
  return value == std::floor(value) && std::abs(value) < 1e15
             ? fmt::format("{}", static_cast<long long>(value))
             : fmt::format("{}", value);
}

}  // namespace

void badRequest(const std::string& message) { throw ApiError(400, message); }

const Json* member(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it == object.end() || it->is_null() ? nullptr : &*it;
}

std::string stringAt(const Json& object, const char* key, std::string_view path, bool required) {
  const Json* value = member(object, key);
  if (!value) {
    if (required) {
      badRequest(fmt::format("{}.{} is missing", path, key));
    }
    return {};
  }
  if (!value->is_string()) {
    badRequest(fmt::format("{}.{} must be a string", path, key));
  }
  const std::string text = value->get<std::string>();
  if (required && text.empty()) {
    badRequest(fmt::format("{}.{} is empty", path, key));
  }
  return text;
}

bool boolAt(const Json& object, const char* key, std::string_view path) {
  const Json* value = member(object, key);
  if (!value) {
    return false;
  }
  if (value->is_boolean()) {
    return value->get<bool>();
  }
  if (value->is_number()) {
    return value->get<double>() != 0;
  }
  badRequest(fmt::format("{}.{} must be a boolean", path, key));
}

int intAt(const Json& object, const char* key, std::string_view path) {
  const Json* value = member(object, key);
  if (!value) {
    return 0;
  }
  if (!value->is_number()) {
    badRequest(fmt::format("{}.{} must be a number", path, key));
  }
  const double number = value->get<double>();
  if (std::isnan(number)) {
    badRequest(fmt::format("{}.{} must be a number", path, key));
  }
  constexpr double kLimit = 1 << 30;
  return static_cast<int>(std::clamp(number, -kLimit, kLimit));
}

const Json& objectAt(const Json& object, const char* key, std::string_view path) {
  static const Json kEmpty = Json::object();
  const Json* value = member(object, key);
  if (!value) {
    return kEmpty;
  }
  if (!value->is_object()) {
    badRequest(fmt::format("{}.{} must be an object", path, key));
  }
  return *value;
}

const Json& arrayAt(const Json& object, const char* key, std::string_view path) {
  static const Json kEmpty = Json::array();
  const Json* value = member(object, key);
  if (!value) {
    return kEmpty;
  }
  if (!value->is_array()) {
    badRequest(fmt::format("{}.{} must be an array", path, key));
  }
  return *value;
}

// The comparison settings of a wire-form image match settings object.
CompareSettings settingsFrom(const Json& s, std::string_view path, MatchLevel fallback) {
  CompareSettings settings;
  settings.level = fallback;
  const std::string level = stringAt(s, "matchLevel", path);
  if (!level.empty()) {
    const auto parsed = matchLevelFromString(level);
    if (!parsed) {
      badRequest(fmt::format("{}.matchLevel \"{}\" is not a match level", path, level));
    }
    settings.level = *parsed;
  }
  settings.ignore = rectsAt(s, "Ignore", path);
  settings.layout = rectsAt(s, "Layout", path);
  settings.strict = rectsAt(s, "Strict", path);
  settings.content = rectsAt(s, "Content", path);
  const std::string where = fmt::format("{}.Floating", path);
  for (const Json& f : arrayAt(s, "Floating", path)) {
    FloatingRect floating;
    floating.rect = rectFrom(f, where);
    floating.maxUpOffset = intAt(f, "maxUpOffset", where);
    floating.maxDownOffset = intAt(f, "maxDownOffset", where);
    floating.maxLeftOffset = intAt(f, "maxLeftOffset", where);
    floating.maxRightOffset = intAt(f, "maxRightOffset", where);
    settings.floating.push_back(floating);
  }
  settings.ignoreCaret = boolAt(s, "ignoreCaret", path);
  return settings;
}

// The environment part of a baseline's key: the name the client chose, or else what the
// test ran on.
std::string environmentKey(const Json& startInfo) {
  const std::string named = stringAt(startInfo, "baselineEnvName", "startInfo");
  if (!named.empty()) {
    return named;
  }
  const Json& env = objectAt(startInfo, "environment", "startInfo");
  const Json& size = objectAt(env, "displaySize", "startInfo.environment");
  auto part = [&](const char* key) {
    const std::string text = stringAt(env, key, "startInfo.environment");
    return text.empty() ? std::string("?") : text;
  };
  const Json* width = member(size, "width");
  const Json* height = member(size, "height");
  return fmt::format("{} | {} | {}x{}", part("OSInfo"), part("DeviceInfo"),
                     width ? numberText(*width) : "?", height ? numberText(*height) : "?");
}

// The start record a session was opened with, as stored; an empty object when it is not
// one. start() stores only records that passed the depth check, but the store may hold one
// written otherwise (by hand, by another tool): the parser recurses per level, so the depth
// is checked first and an over-deep record is refused as unreadable.
Json storedStartInfo(const SessionRecord& s) {
  if (!detail::checkJsonDepth(s.startInfo)) {
    throw ApiError(500, fmt::format("the stored start record of session {} nests deeper than {} "
                                    "levels and cannot be read",
                                    s.id, detail::kMaxJsonDepth));
  }
  Json info = Json::parse(s.startInfo, nullptr, false);
  return info.is_object() ? info : Json::object();
}

}  // namespace lumo::server::detail
