// STATELOAD of a state file: the whole file is checked before anything
// changes, so damaged bytes must end in a message, never in a crash.
#include "tests/fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::setup();
  fuzz::reset();
  fuzz::write_file("S.STA", data, size);
  fuzz::command("STATELOAD \"S.STA\"");
  fuzz::command("VARINFO");
  fuzz::command("PRINT A, A$, B#(1)");
  return 0;
}
