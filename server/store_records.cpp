#include "lumo/server/store_records.h"

#include <array>
#include <string>
#include <utility>

namespace lumo::server {
namespace {

constexpr std::array<std::pair<SessionState, std::string_view>, 3> kStates{{
    {SessionState::Running, "running"},
    {SessionState::Stopped, "stopped"},
    {SessionState::Aborted, "aborted"},
}};

constexpr std::array<std::pair<StepOutcome, std::string_view>, 5> kOutcomes{{
    {StepOutcome::Matched, "matched"},
    {StepOutcome::Different, "different"},
    {StepOutcome::New, "new"},
    {StepOutcome::Missing, "missing"},
    {StepOutcome::Failed, "failed"},
}};

template <typename Enum, std::size_t N>
std::string_view nameIn(const std::array<std::pair<Enum, std::string_view>, N>& names, Enum value) {
  for (const auto& [known, name] : names) {
    if (known == value) {
      return name;
    }
  }
  return "?";
}

// A name the stores never write means the record came from elsewhere: refused, not guessed.
template <typename Enum, std::size_t N>
Enum valueIn(const std::array<std::pair<Enum, std::string_view>, N>& names, std::string_view name,
             const char* what) {
  for (const auto& [value, known] : names) {
    if (known == name) {
      return value;
    }
  }
  throw StoreError(std::string("unknown ") + what + " \"" + std::string(name) + "\" in the store");
}

}  // namespace

std::string_view nameOf(SessionState state) { return nameIn(kStates, state); }
std::string_view nameOf(StepOutcome outcome) { return nameIn(kOutcomes, outcome); }
SessionState sessionStateNamed(std::string_view name) {
  return valueIn(kStates, name, "session state");
}
StepOutcome stepOutcomeNamed(std::string_view name) {
  return valueIn(kOutcomes, name, "step outcome");
}

}  // namespace lumo::server
