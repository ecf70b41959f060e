// Typed lines at the Ready prompt: numbered lines are stored, anything else
// runs at once (RUN included), as a user would type them.
#include "tests/fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::setup();
  fuzz::reset();
  fuzz::type_lines(data, size, 64);
  return 0;
}
