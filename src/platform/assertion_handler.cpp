#include "platform/assertion_handler.h"

#include <memory>
#include <mutex>
#include <utility>

#include "lumo/internal_inconsistency_exception.h"
#include "replaceable.h"

namespace lumo {
namespace {

void throwInternalInconsistency(const AssertionFailure& failure) {
  throw InternalInconsistencyException(failure.method, failure.file, failure.line,
                                       failure.description);
}

detail::Replaceable<AssertionHandler::Handler>& slot() {
  static detail::Replaceable<AssertionHandler::Handler> instance(throwInternalInconsistency);
  return instance;
}

}  // namespace

AssertionHandler::Handler AssertionHandler::setCurrentHandler(Handler handler) {
  return slot().replace(std::move(handler));
}

void AssertionHandler::handleFailure(const AssertionFailure& failure) {
  (*slot().current())(failure);
}

}  // namespace lumo
