#pragma once

#include <stdexcept>

namespace lumo::cli {

// The exit statuses of `lumo`, which scripts and CI jobs branch on.
enum ExitStatus : int {
  kExitPassed = 0,
  kExitDifferences = 1,  // differences found, or the test failed
  kExitNewTest = 2,      // a new baseline awaits approval
  kExitUsage = 3,        // bad arguments or an unreadable image; nothing was sent
  kExitUnreachable = 4,  // the server could not be reached or did not answer
};

// A bad argument, told to the user as one line; the command exits with kExitUsage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace lumo::cli
