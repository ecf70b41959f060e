// The error state and the one raise routine. A handler raises a message, the
// error flag is set, and every caller checks the flag after each call that
// can fail and returns at once; the first error of a statement wins.
#pragma once
#include <cstddef>
#include <cstdint>

namespace core {

using ErrorHook = void (*)(const char* message);

struct ErrorState {
  bool flag = false;            // pending error: callers return at once
  char message[4096] = {};      // the current message (ERROR$), NUL-terminated
  bool has_message = false;     // false before the first error
  bool message_is_value = false;  // the message came from a string value
  std::int64_t number = -1;     // -1: derived from the message; ERROR n stores n
  std::uint32_t line = 0;       // ERL; 0 in direct mode or when unknown
  bool line_recorded = false;   // a more specific line than the running statement's
  std::uint8_t print_switch = 0;  // OPTION ERRORPRINT
  ErrorHook hook = nullptr;     // when set, errors go there instead
  bool silent = false;          // when set, raising does nothing
  char note[160] = {};          // a second line shown after the message (add_error_note)
};
extern ErrorState err;

// Set while a program runs (the run loop owns it); direct-mode errors print at once.
extern bool program_running;

// The one entry for all errors.
void raise(const char* message);

// A thread that runs compiled code beside the interpreter (a PARFOR worker)
// sends its errors here instead of into the shared state above; null on the
// interpreter thread outside PARFOR.
void set_thread_error_sink(ErrorHook sink);
// A message that is a string value (printed through the PRINT routine).
void raise_value(const char* text, std::size_t length);

// A line of explanation for the error just raised, shown on its own line
// after the message wherever the message is shown; a trapped error drops it.
void add_error_note(const char* text);

// ERR: the explicit number, 0 before any error, else the table's number (255 without a row).
std::int64_t err_number();
// The table lookup alone.
int error_number_for(const char* message);
// ERROR n, with n already evaluated to an integer.
void error_statement(std::int64_t n);
// Printing when a program stops on an untrapped error: the message (unless
// OPTION ERRORPRINT 1 printed it already), " in " and the line when there is one.
void print_stopped_error();
// Clear the pending flag (the start of every direct command, a handler taking over).
inline void clear_error_flag() { err.flag = false; }
// Forget everything (start-up, NEW): no message, ERR 0, ERL 0.
void reset_errors();

}  // namespace core
