#pragma once

#include <cstdint>

namespace lumo {

// Small process utilities. Stateless; callable from any thread.
class GeneralUtils {
 public:
  // Blocks the calling thread for `seconds` whole seconds; zero or less returns at once.
  static void sleep(std::int64_t seconds);
};

}  // namespace lumo
