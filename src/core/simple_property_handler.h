#pragma once

#include <any>

#include "core/property_handler_protocol.h"

namespace lumo {

// Plain storage for one object; takes anything, null included.
class SimplePropertyHandler : public PropertyHandlerProtocol {
 public:
  bool setProperty(std::any object) override {
    object_ = std::move(object);
    return true;
  }
  const std::any& property() const override { return object_; }
  using PropertyHandlerProtocol::property;

 private:
  std::any object_;
};

}  // namespace lumo
