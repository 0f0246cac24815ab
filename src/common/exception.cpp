#include "lumo/exception.h"

#include <utility>

namespace lumo {

Exception::Exception(std::string name, std::string reason, UserInfo userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {}

Exception illegalArgumentException(std::string reason) {
  return Exception(kIllegalArgumentExceptionName, std::move(reason));
}

}  // namespace lumo
