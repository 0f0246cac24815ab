#pragma once

#include <string>

#include "common/error_builder.h"

namespace lumo::detail {

// The text of one test outcome; error values and exceptions of the same outcome share it
// word for word, so a caller sees the same message in either form.
std::string testOutcomeMessage(TestErrorType errorType, const TestResults* results,
                               const SessionStartInfo& sessionStartInfo);

}  // namespace lumo::detail
