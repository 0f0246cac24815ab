#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lumo/server/store.h"

// The results pages a person opens from a test's link. Every text that came from a client is
// escaped; links are relative to the server.
namespace lumo::server::detail {

// Recent batches, each with its tests and their outcome.
std::string indexPage(const Store& store);

// One batch and its tests.
std::string batchPage(const Store& store, const BatchRecord& batch);

// One session: each step's baseline, current and diff images side by side with its outcome,
// and a form that approves the session's images as the baseline.
std::string sessionPage(const SessionRecord& session, const std::vector<StepRecord>& steps);

std::string errorPage(int status, std::string_view message);

}  // namespace lumo::server::detail
