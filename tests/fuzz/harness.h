// The interpreter in one process for libFuzzer: arenas, console and file
// hooks set up once, every input run from a clean interpreter inside a
// scratch directory that no file statement can leave.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

// Once per process (safe to call for every input).
void setup();
// Forget everything the last input did: program, variables, files, errors,
// the console, the files it left in the scratch directory.
void reset();
// Run typed lines (split at CR or LF, each cut to 256 bytes, NUL ends a
// line) as the Ready loop would. Stops after `max_lines`.
void type_lines(const std::uint8_t* data, std::size_t size, int max_lines);
// Run one direct command under the watchdog.
void command(const char* line);
// Write bytes to a file in the scratch directory.
void write_file(const char* name, const std::uint8_t* data, std::size_t size);
std::string read_file(const char* name);
// The stored program as LIST would print it (numbers and bodies).
std::string program_text();

}  // namespace fuzz
