#pragma once

#include <functional>
#include <string>

namespace lumo {

// One failed assertion: the operation that checked, the object (class) that owns it, the
// source file and line of the check, and the description that becomes the exception's reason.
struct AssertionFailure {
  std::string method;
  std::string object;
  std::string file;
  long line = 0;
  std::string description;
};

// The process-wide path every failed assertion takes. The default handler throws
// InternalInconsistencyException; a replacement may log, count or throw something else. If a
// replacement returns, the failed check returns to its caller as if it had passed.
class AssertionHandler {
 public:
  using Handler = std::function<void(const AssertionFailure&)>;

  // Installs `handler` (an empty function restores the default) and returns the previous one.
  // Safe to call from any thread; a failure already in progress keeps the handler it started
  // with.
  static Handler setCurrentHandler(Handler handler);

  // Hands the failure to the current handler, on the calling thread.
  static void handleFailure(const AssertionFailure& failure);
};

}  // namespace lumo
