#include "common/json_reader.h"

#include <cmath>
#include <limits>

#include "common/truncation.h"

namespace lumo::detail {
namespace {

std::optional<double> numberOf(const Json& value) {
  if (value.is_boolean()) {
    return value.get<bool>() ? 1.0 : 0.0;
  }
  if (value.is_number()) {
    return value.get<double>();
  }
  return std::nullopt;
}

}  // namespace

const Json* member(const Json& object, const char* key) {
  if (!object.is_object()) {
    return nullptr;
  }
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) {
    return nullptr;
  }
  return &*it;
}

void readString(const Json& object, const char* key, std::optional<std::string>& out) {
  const Json* value = member(object, key);
  if (value != nullptr && value->is_string()) {
    out = value->get<std::string>();
  }
}

void readInteger(const Json& object, const char* key, std::int64_t& out) {
  const Json* value = member(object, key);
  if (value == nullptr) {
    return;
  }
  if (value->is_number_integer()) {
    // Unsigned values above the signed range saturate rather than wrap.
    if (value->is_number_unsigned() &&
        value->get<std::uint64_t>() > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) {
      out = std::numeric_limits<std::int64_t>::max();
    } else {
      out = value->get<std::int64_t>();
    }
    return;
  }
  if (const std::optional<double> number = numberOf(*value)) {
    out = truncatedToInt64(*number);
  }
}

void readBool(const Json& object, const char* key, bool& out) {
  const Json* value = member(object, key);
  if (value == nullptr) {
    return;
  }
  if (const std::optional<double> number = numberOf(*value)) {
    out = *number != 0;
  }
}

void readFloat(const Json& object, const char* key, double& out) {
  const Json* value = member(object, key);
  if (value == nullptr) {
    return;
  }
  const std::optional<double> number = numberOf(*value);
  if (!number) {
    return;
  }
  constexpr double kMax = std::numeric_limits<float>::max();
  if (std::fabs(*number) > kMax) {
    out = std::copysign(std::numeric_limits<double>::infinity(), *number);
  } else {
    out = static_cast<double>(static_cast<float>(*number));
  }
}

const Json* memberObject(const Json& object, const char* key) {
  const Json* value = member(object, key);
  return value != nullptr && value->is_object() ? value : nullptr;
}

const Json* memberArray(const Json& object, const char* key) {
  const Json* value = member(object, key);
  return value != nullptr && value->is_array() ? value : nullptr;
}

}  // namespace lumo::detail
