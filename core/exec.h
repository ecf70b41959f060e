// The executor: position, run loop, control-flow stacks, pause states,
// trapping, tracing and events.
#pragma once
#include <atomic>
#include <cstdint>

#include "core/token.h"
#include "values/types.h"
#include "values/variables.h"

namespace core {

constexpr std::uint32_t kDirect = 0xFFFFFFFFu;  // "no current line"
constexpr int kMaxGosub = 128;
constexpr int kMaxFor = 4096;
constexpr int kMaxWhile = 4096;
constexpr int kMaxIf = 64;
constexpr int kMaxHandlers = 8;
constexpr int kMaxBreakpoints = 64;

struct Exec {
  std::uint32_t line = kDirect;  // index into the line index, or kDirect
  const Token* base = nullptr;   // the token array being executed
  const Token* stmt = nullptr;   // start of the statement in hand
  bool running = false;
  bool stop_request = false;
  bool jumped = false;
  std::uint32_t next_line = kDirect;  // where a jump goes
  std::uint32_t next_token = 0;
  std::uint8_t counter = 0;
  int if_depth = 0;                   // IFs whose THEN branch runs on this line
  std::uint32_t resume_skip_line = kDirect;  // a breakpoint line skipped once on CONT
  bool continue_here = false;         // IF: the branch's first statement starts at the cursor
  bool stepping = false;
  bool step_armed = false;            // CONT NEXT: run exactly one statement
};
extern Exec exec;
extern std::atomic<std::uint32_t> event_pending;

// Direct-mode entry: run a tokenized direct line (it may enter the program).
void execute_direct_tokens(const Token* tokens);
// RUN [line] without loading: clear variables and run from the first line
// (or the given line index).
void run_program(std::uint32_t start_index);
// Close files, clear variables, stacks, DATA pointer and handlers (CLEAR, RUN).
void clear_run_state();
// The program text changed: no CONT afterwards, stacks forgotten.
void program_changed();

// Jump to a line number ("Undefined line number" when absent).
bool jump_to_line(std::uint32_t number);
// Line number from a numeric expression at t (GOTO targets, RESUME, RETURN).
bool eval_line_number(const Token*& t, std::uint32_t* number);
// The line number of the current position (0 in direct mode).
std::uint32_t current_line_number();
// Skip to the end of the current line (REM-like).
void skip_to_line_end(const Token*& t);
// Token index of t within the current array.
std::uint32_t token_index(const Token* t);

// Breakpoints (BREAK, the debugger, RENUM): the list is edited in place.
// LIST and the debugger show breakpoint lines in these colours.
constexpr std::uint32_t kBreakpointFg = 0xFFFF55, kBreakpointBg = 0xAA0000;
std::uint32_t* breakpoint_list(int* count);
bool is_breakpoint_line(std::uint32_t number);
// Set or clear a breakpoint; false with "Too many breakpoints" when full.
[[nodiscard]] bool toggle_breakpoint(std::uint32_t number);
// The line a paused program continues at (its number), or false when CONT
// is not possible.
bool paused_line(std::uint32_t* number);

// Esc while a statement waits for input: the program pauses with "Break" at
// that statement (CONT runs it again).
void break_at_statement();

// Statement handlers that live in the executor.
void stmt_goto(const Token*& t);
void stmt_gosub(const Token*& t);
void stmt_return(const Token*& t);
void stmt_for(const Token*& t);
void stmt_next(const Token*& t);
void stmt_while(const Token*& t);
void stmt_wend(const Token*& t);
void stmt_if(const Token*& t);
void stmt_on(const Token*& t);
void stmt_resume(const Token*& t);
void stmt_stop(const Token*& t);
void stmt_end(const Token*& t);
void stmt_system(const Token*& t);
void stmt_cont(const Token*& t);
void stmt_tron(const Token*& t);
void stmt_troff(const Token*& t);
void stmt_run(const Token*& t);
void stmt_clear(const Token*& t);
void stmt_break(const Token*& t);
void stmt_error(const Token*& t);
void stmt_timer(const Token*& t);      // TIMER(n) = ms | ON | OFF | STOP
void stmt_timer_all(const Token*& t);  // TIMER ON | OFF | STOP (every timer)

// Hooks: files are closed by END, CLEAR, NEW, RUN and LOAD; CLEAR and RUN
// restore the DATA pointer.
extern void (*close_all_files)();
extern void (*restore_data)();
// Files push their buffered bytes to the system when a direct command (and
// so any run) ends.
extern void (*flush_files)();
// RUN starts with no sprites, bitmaps, VIEW or WINDOW.
extern void (*reset_graphics_state)();
// RUN, CLEAR, NEW and LOAD empty the MIDI song slots.
extern void (*clear_sound_slots)();

// Developer tools. after_statement runs after every statement while set
// (TRACE's watches). debugger_hook is asked before the statement at t while
// debug_request is set (F12 seen by the break poll, or the debugger's single
// step); it returns false when the user stopped the program, which then
// pauses with "Break" as after Esc.
extern void (*after_statement)();
extern bool (*debugger_hook)(const Token* t);
extern bool debug_request;

// PROFILE: told before each statement the interpreter runs (null t: none
// runs now: the run ended or native code takes over); null when profiling
// is off. exact_profiling keeps compiled code out (PROFILE EXACT).
extern void (*profile_hook)(const Token* t);
extern bool exact_profiling;

// Compiled execution: offered the statement at t before it is interpreted
// (not while single-stepping). It returns true when it ran one or more
// statements; it then leaves t on the next statement to interpret in the
// same token array, or requests a jump the way GOTO does. Null until the
// compiler is installed.
extern bool (*offer_compiled_region)(const Token*& t);

// What compiled execution needs of the executor: whether it may run at all
// now (no tracing, breakpoints, ON BREAK or stepping), the depth of each
// control stack, and pushing the loops and GOSUBs that native code had open
// when it hands control back, exactly as the interpreter would have left them.
bool compiled_execution_allowed();
// The parts of that test PARFOR explains one by one.
bool tracing_active();          // TRON or TRACE watches
bool breakpoints_active();
std::uint32_t on_break_target();  // 0: none
int gosub_depth();
int for_depth();
int while_depth();
bool for_stack_uses(const values::Descriptor* d);
struct NativeFor {
  values::Descriptor* d;
  values::Value limit, step;
  std::uint32_t line, token;          // behind the FOR statement
  std::uint32_t for_line, for_token;  // the FOR keyword
};
bool push_native_for(const NativeFor& f);
bool push_native_while(std::uint32_t line, std::uint32_t token);
bool push_native_return(std::uint32_t line, std::uint32_t token, int if_depth);
// Continue the run at (line, token) inside `if_depth` THEN branches.
void resume_at(std::uint32_t line, std::uint32_t token, int if_depth);
// Make (line, token) the statement an error belongs to.
void error_at(std::uint32_t line, std::uint32_t token, int if_depth);

}  // namespace core
