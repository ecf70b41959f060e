// Standalone executables: a program appended to a copy of the executable.
#pragma once
#include <string>

namespace host {
// Sets the packed-program flag when the executable carries a program.
bool detect_packed_program(const std::string& exe_path);
// Loads the appended program into the program store; false on failure.
bool load_packed_program();
}  // namespace host
