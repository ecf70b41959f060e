// The console line editor used by the Ready prompt, INPUT and LINE INPUT.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace screen {

enum : std::uint32_t {
  kEditKeepCursor = 1,    // a leading ";" on INPUT: no newline after Enter
  kEditFromLineStart = 2, // the text before the cursor on its row is part of the line (AUTO)
  kEditReadyPrompt = 4,   // the Ready prompt is waiting (Ctrl+Shift+L, Ctrl+V)
};

// Edit one line into buf (capacity cap, at most cap - 1 characters, NUL
// terminated). Returns the length, or -1 when input was abandoned (Esc, the
// window closing; the caller checks the stop flag to tell them apart).
int line_edit(char* buf, int cap, std::uint32_t flags);

// F12 while the editor waits opens the debugger (developer tools) through
// this hook; null until the tools are installed.
extern void (*debugger_hook)();

// Insert/overwrite mode persists between inputs; insert is the default.
extern bool edit_insert_mode;

// KEY n, text$: what F1..F10 type into the line editor (at the prompt and in
// INPUT); a CR in the text is Enter. At most kFunctionKeyChars each.
constexpr int kFunctionKeys = 10;
constexpr std::size_t kFunctionKeyChars = 15;
extern std::string function_keys[kFunctionKeys];

}  // namespace screen
