#include "lumo/lumo_exception.h"

#include <utility>

namespace lumo {

LumoException::LumoException(const std::optional<std::string>& reason)
    : LumoException("LumoException", reason) {}

LumoException::LumoException(std::string name, const std::optional<std::string>& reason)
    : Exception(std::move(name), reason.value_or("")) {}

}  // namespace lumo
