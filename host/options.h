// The command-line switches of the terminal interface (--headless and friends).
#pragma once
#include <string>
#include <vector>

namespace host {

enum class OptionResult { Run, ExitOk, ExitUsage };

// Consumes leading switches from words (word 0 is the executable), fills the
// shell's headless settings and removes the switches, so that what is left is
// the classic command line: executable, autostart file, program arguments.
OptionResult take_options(std::vector<std::u16string>& words, std::string* message);

extern const char* const kUsage;

}  // namespace host
