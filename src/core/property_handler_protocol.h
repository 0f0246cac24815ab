#pragma once

#include <any>
#include <memory>

namespace lumo {

// Holds one object of any type for whoever reads it later. The controller keeps its viewport
// size (a std::shared_ptr<RectangleSize>) in one.
class PropertyHandlerProtocol {
 public:
  virtual ~PropertyHandlerProtocol() = default;

  // Stores the object; answers whether it was taken.
  virtual bool setProperty(std::any object) = 0;
  virtual const std::any& property() const = 0;

  // The stored object when it is a std::shared_ptr<T>, else null.
  template <typename T>
  std::shared_ptr<T> property() const {
    const auto* held = std::any_cast<std::shared_ptr<T>>(&property());
    return held ? *held : nullptr;
  }
};

}  // namespace lumo
