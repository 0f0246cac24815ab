#pragma once

#include <functional>
#include <string_view>

namespace lumo {

// Receives each logged line without time stamp or line break. Called on the logging thread;
// it may be called from several threads at once.
using SystemLogSink = std::function<void(std::string_view line)>;

// Writes one line to the system log. The default sink writes it to stderr as one whole line,
// prefixed like "2026-11-22 11:21:53.123 lumo[4242:4243] " (local date and time with
// milliseconds, process name, process id and thread id); lines of concurrent calls never mix.
void systemLog(std::string_view line);

// Replaces the sink that systemLog writes to and returns the previous one; an empty function
// restores the default sink. Thread-safe; a line being written keeps the sink it started with.
SystemLogSink setSystemLogSink(SystemLogSink sink);

}  // namespace lumo
