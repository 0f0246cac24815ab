#pragma once

#include <string>
#include <utility>

#include "lumo/detail/json.h"

namespace lumo {

// A free-form name/value pair sent with the session start. Immutable value.
class StartSessionProperty {
 public:
  StartSessionProperty(std::string name, std::string value)
      : name_(std::move(name)), value_(std::move(value)) {}

  const std::string& name() const { return name_; }
  const std::string& value() const { return value_; }
  // {"name", "value"}.
  Json dictionary() const { return Json{{"name", name_}, {"value", value_}}; }

  friend bool operator==(const StartSessionProperty&, const StartSessionProperty&) = default;

 private:
  std::string name_;
  std::string value_;
};

}  // namespace lumo
