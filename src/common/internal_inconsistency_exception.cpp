#include "lumo/internal_inconsistency_exception.h"

#include <utility>

namespace lumo {

InternalInconsistencyException::InternalInconsistencyException(std::string method, std::string file,
                                                               long line, std::string description)
    : Exception("InternalInconsistencyException", std::move(description)),
      method_(std::move(method)),
      file_(std::move(file)),
      line_(line) {}

}  // namespace lumo
