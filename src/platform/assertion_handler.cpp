#include "lumo/assertion_handler.h"

#include <memory>
#include <mutex>
#include <utility>

#include "lumo/internal_inconsistency_exception.h"

namespace lumo {
namespace {

void throwInternalInconsistency(const AssertionFailure& failure) {
  throw InternalInconsistencyException(failure.method, failure.file, failure.line,
                                       failure.description);
}

struct HandlerSlot {
  std::mutex mutex;
  // Held by shared_ptr so a handler that replaces itself while running stays alive.
  std::shared_ptr<const AssertionHandler::Handler> handler;
};

HandlerSlot& slot() {
  static HandlerSlot instance{
      {}, std::make_shared<const AssertionHandler::Handler>(throwInternalInconsistency)};
  return instance;
}

}  // namespace

AssertionHandler::Handler AssertionHandler::setCurrentHandler(Handler handler) {
  if (!handler) {
    handler = throwInternalInconsistency;
  }
  auto next = std::make_shared<const Handler>(std::move(handler));
  HandlerSlot& s = slot();
  std::lock_guard lock(s.mutex);
  Handler previous = *s.handler;
  s.handler = std::move(next);
  return previous;
}

void AssertionHandler::handleFailure(const AssertionFailure& failure) {
  std::shared_ptr<const Handler> current;
  {
    HandlerSlot& s = slot();
    std::lock_guard lock(s.mutex);
    current = s.handler;
  }
  (*current)(failure);
}

}  // namespace lumo
