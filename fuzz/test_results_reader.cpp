// The reader of a stop's answer: any JSON object must give a record, never a crash, and the
// record must survive being read back in full.
#include "fuzz_input.h"
#include "lumo/test_results.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const lumo::Json json = lumo::fuzz::parsed(data, size);
  if (!json.is_object()) {
    return 0;
  }
  const lumo::TestResults results(json);
  (void)results.status();
  (void)results.isPassed();
  (void)results.isNew();
  (void)results.url();
  (void)results.description();
  return 0;
}
