// The direct-command entry and the interpreter state the Ready loop consults.
#pragma once
#include <cstdint>

namespace core {

constexpr std::uint32_t kNoLine = 4294967295u;
constexpr std::uint32_t kMaxLineNumber = 4294967294u;

// AUTO numbering, driven by the Ready loop.
struct AutoState {
  bool active = false;
  bool first = true;          // the first number of an AUTO run is not advanced
  std::uint32_t number = 10;
  std::uint32_t step = 10;
};
extern AutoState auto_numbering;

// Set by a direct command that wants no "Ready." after it.
extern bool suppress_prompt;
// Set when the last RUN ended with an untrapped error (headless --batch exit code).
extern bool last_run_failed;
// Set when the last RUN paused (STOP, break, breakpoint) instead of ending.
extern bool last_run_interrupted;

// Reset every interpreter state and empty the program.
void init_interpreter();
// Execute one typed line (a numbered line is stored, anything else runs).
void execute_direct(const char* line);
// The text the executing token array was made from (the direct line, or
// the current program line's body); token columns are offsets into it.
const char* current_line_text();
// Whether a program line with this number is stored.
bool line_exists(std::uint32_t number);

}  // namespace core
