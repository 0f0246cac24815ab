#pragma once

#include <chrono>
#include <cstdint>

// What both stores select of a session and of a step, in the order their readers expect, and
// the clock they stamp rows with.
namespace lumo::server::detail {

inline constexpr const char* kSessionColumns =
    "id, batch_id, app, test, environment, branch, baseline_branch, start_info, started_at, "
    "started_ms, state, status, is_new, saved, duration_ms, owner, step_count, last_active_ms, "
    "expired, rejected";

inline constexpr const char* kStepColumns =
    "position, name, outcome, match_level, baseline_image, current_image, diff_image, rejected, "
    "boxes";

// Now, in Unix milliseconds.
inline std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace lumo::server::detail
