// Base64 on any text: an invalid_argument or bytes that encode and decode back to themselves.
#include "platform/base64.h"

#include <cstdlib>
#include <stdexcept>

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint8_t> decoded;
  try {
    decoded = lumo::base64Decode(lumo::fuzz::text(data, size));
  } catch (const std::invalid_argument&) {
    decoded.assign(data, data + size);
  }
  if (lumo::base64Decode(lumo::base64Encode(decoded)) != decoded) {
    std::abort();
  }
  return 0;
}
