// Standalone-image detection. CREATEEXE and the trailer format come with the
// standalone-executable work; until then no executable carries a program.
#include "host/packed.h"

namespace host {
bool detect_packed_program(const std::string& exe_path) {
  (void)exe_path;
  return false;
}
bool load_packed_program() { return false; }
}  // namespace host
