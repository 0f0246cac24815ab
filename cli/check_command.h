#pragma once

#include <iosfwd>

#include "check_options.h"

namespace lumo::cli {

// Runs one visual test: reads every screen first (throwing UsageError for one that cannot be
// had, before anything is sent), then opens the test, checks each screen in order and closes.
// Writes a line per checkpoint and the verdict to `out`, failures to `err`; the library's log
// lines go to the system log as it writes them. With a report file, writes the report of any
// run that got past reading the screens. Returns an ExitStatus.
int runCheck(const CheckOptions& options, std::ostream& out, std::ostream& err);

}  // namespace lumo::cli
