// LOAD of a source file, then what a user does with the program: LIST it,
// SAVE it and LOAD the saved file again (which must give the same program),
// MERGE the file into itself.
#include <cstdlib>
#include <string>

#include "core/errors.h"
#include "tests/fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::setup();
  fuzz::reset();
  fuzz::write_file("F.BAS", data, size);
  fuzz::command("LOAD \"F.BAS\"");
  fuzz::command("LIST");
  const std::string loaded = fuzz::program_text();
  fuzz::command("SAVE \"G.BAS\"");
  if (!core::err.flag) {
    fuzz::command("LOAD \"G.BAS\"");
    // What SAVE wrote reads back as the same program.
    if (core::err.flag || fuzz::program_text() != loaded) std::abort();
  }
  fuzz::command("MERGE \"F.BAS\"");
  return 0;
}
