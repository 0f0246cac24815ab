#pragma once

#include <nlohmann/json.hpp>

namespace lumo {

// Every record reads and writes this type: an ordered object keeps the writers' key order,
// which makes the bodies on the wire and in logs read in the order they were built.
using Json = nlohmann::ordered_json;

}  // namespace lumo
