// The run loop, control flow, pauses, trapping and events.
#include "core/exec.h"

#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/direct.h"
#include "core/errors.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/ui.h"
#include "jit/jit.h"
#include "screen/capture.h"
#include "screen/console.h"
#include "screen/keyqueue.h"
#include "screen/mouse.h"
#include "values/builtins.h"
#include "values/eval.h"
#include "values/numeric_ops.h"
#include "values/ops.h"
#include "values/store.h"
#include "values/strings.h"

namespace core {

Exec exec;
std::atomic<std::uint32_t> event_pending{0};
void (*close_all_files)() = nullptr;
void (*restore_data)() = nullptr;
void (*flush_files)() = nullptr;
void (*reset_graphics_state)() = nullptr;
void (*clear_sound_slots)() = nullptr;
bool (*offer_compiled_region)(const Token*& t) = nullptr;
void (*after_statement)() = nullptr;
bool (*debugger_hook)(const Token* t) = nullptr;
void (*profile_hook)(const Token* t) = nullptr;
bool exact_profiling = false;
bool debug_request = false;

namespace {

using values::Value;

const Token* direct_base = nullptr;

struct ReturnFrame {
  std::uint32_t line, token;
  int if_depth;  // a GOSUB inside a THEN branch returns into that branch
};
ReturnFrame gosub_stack[kMaxGosub];
int gosub_sp = 0;

struct ForFrame {
  char name[40];
  std::uint8_t type;
  Value limit;
  double limit_d;
  Value step;
  double step_d;
  int sign;
  bool fast;
  values::Descriptor* d;
  std::uint32_t generation;
  int gosub_depth;            // GOSUB frames active when the loop began
  std::uint32_t line, token;  // behind the FOR statement
  std::uint32_t for_line, for_token;  // the FOR statement itself (FOR END scans from it)
  std::uint64_t serial;
};
// A megabyte of frames, mostly never used: calloc hands out untouched zero
// pages, where a static array of these (their values have constructors) was
// walked once at every start.
ForFrame* const for_stack = static_cast<ForFrame*>(std::calloc(kMaxFor, sizeof(ForFrame)));
int for_sp = 0;

struct WhileFrame {
  std::uint32_t line, token;  // the WHILE statement
  std::uint64_t serial;
};
WhileFrame while_stack[kMaxWhile];
int while_sp = 0;
std::uint64_t loop_serial = 0;

// A handler frame's token for a line that could not be tokenized: the fault
// is the whole line, and RESUME NEXT goes on with the next one.
constexpr std::uint32_t kWholeLine = 0xFFFFFFFFu;

struct HandlerFrame {
  int kind;  // 1 error, 2 break
  std::uint32_t line, token;
  int if_depth;
  int gosub_sp;
};
HandlerFrame handlers[kMaxHandlers];
int handler_sp = 0;
std::uint32_t on_error_line = 0, on_break_line = 0;

struct Pause {
  int reason = 0;  // 1 STOP, 2 breakpoint, 3 break key, 4 single step
  std::uint32_t line = kDirect, token = 0;
  bool can_continue = false;
} pause;

std::uint32_t breakpoints[kMaxBreakpoints];
int breakpoint_count = 0;
bool trace_on = false;
std::uint32_t trace_lo = 0, trace_hi = kMaxLineNumber;

struct Timer {
  std::uint32_t line = 0;  // handler line number, 0 for none
  std::int64_t interval = 0;
  bool enabled = false;
  bool held = false;  // TIMER STOP: an event that falls due waits for TIMER ON
  std::uint64_t due = 0;
};
Timer timers[8];
std::uint32_t mouse_move_line = 0, mouse_click_line = 0, mouse_double_line = 0;
std::uint64_t last_move_dispatch = 0;
std::atomic<bool> ticker_running{false};

bool fail(const char* m) {
  raise(m);
  return false;
}

// Only ":", ELSE or the end of the line may follow a statement; checked by
// the statements that jump or stop, which the run loop's own check never sees.
bool statement_ends(const Token* t) {
  if (at_statement_end(t)) return true;
  return fail("Syntax Error");
}

void print_line_suffix(std::uint32_t number) {
  char buf[16];
  std::snprintf(buf, sizeof buf, " in %u", number);
  screen::put_text(buf);
}

const Token* tokens_for(std::uint32_t line) {
  if (line == kDirect) return direct_base;
  if (const Token* cached = line_index[line].tokens) return cached;  // every jump and line change asks
  return line_tokens(line);
}

// Make (line, token) the position; false after a tokenizing error.
bool set_position(std::uint32_t line, std::uint32_t token, const Token*& t) {
  exec.line = line;
  program_running = line != kDirect;
  exec.base = tokens_for(line);
  // The statement in hand belongs to this array from now on: an error raised
  // before the next statement starts must not name one of another line.
  exec.stmt = exec.base ? exec.base + token : nullptr;
  if (!exec.base) return false;
  t = exec.base + token;
  return true;
}

void request_jump(std::uint32_t line, std::uint32_t token) {
  exec.next_line = line;
  exec.next_token = token;
  exec.jumped = true;
}

bool is_breakpoint(std::uint32_t number) {
  for (int i = 0; i < breakpoint_count; ++i)
    if (breakpoints[i] == number) return true;
  return false;
}

// Advance to the next stored line; false when the run (or the direct line) ends.
bool next_line(const Token*& t) {
  if (exec.line == kDirect) return false;
  if (exec.line + 1 >= program.lines) {
    exec.running = false;
    return false;
  }
  if (!set_position(exec.line + 1, 0, t)) return true;  // the error is handled at the loop top
  return true;
}

void skip_statement(const Token*& t) {
  int depth = 0;
  for (; t->kind != kTokEnd; ++t) {
    if (t->kind == '(') ++depth;
    else if (t->kind == ')') --depth;
    else if (depth <= 0 && (t->kind == ':' || t->kind == KW_ELSE)) return;
  }
}

// Source-order search for the statement that closes a block: `open` and
// `close` keywords counted from (line, token); "FOR END" and "WHILE END" do
// not open. On success the position is just behind the closing statement.
bool find_block_end(std::uint32_t line, std::uint32_t token, std::uint8_t open, std::uint8_t close,
                    std::uint32_t* out_line, std::uint32_t* out_token) {
  int depth = 0;
  for (;;) {
    const Token* base = tokens_for(line);
    if (!base) return false;
    for (const Token* t = base + token; t->kind != kTokEnd; ++t) {
      if ((t->kind == open || (open == KW_FOR && t->kind == KW_PARFOR)) && t[1].kind != KW_END) {
        ++depth;
      } else if (t->kind == close) {
        int closes = 1;
        if (close == KW_NEXT) {
          const Token* n = t + 1;
          if (n->kind == kTokIdent) {
            closes = 0;
            while (n->kind == kTokIdent) {
              ++closes;
              ++n;
              if (n->kind != ',') break;
              ++n;
            }
          }
        }
        depth -= closes;
        if (depth < 0) {
          const Token* e = t + 1;
          skip_statement(e);
          *out_line = line;
          *out_token = static_cast<std::uint32_t>(e - base);
          return true;
        }
      }
    }
    if (line == kDirect || line + 1 >= program.lines) return false;
    ++line;
    token = 0;
  }
}

void reset_stacks() {
  gosub_sp = for_sp = while_sp = handler_sp = 0;
  exec.if_depth = 0;
}

// Where a statement ending at t continues. The end of a stored line is the
// start of the next one: a loop or a RETURN going there skips a pass of the
// run loop over the line's terminator (the line start is handled as usual).
void continuation(const Token* t, std::uint32_t* line, std::uint32_t* token) {
  if (t->kind == kTokEnd && exec.line != kDirect && exec.line + 1 < program.lines) {
    *line = exec.line + 1;
    *token = 0;
  } else {
    *line = exec.line;
    *token = token_index(t);
  }
}

bool push_return(std::uint32_t line, std::uint32_t token) {
  if (gosub_sp >= kMaxGosub) return fail("Out of memory");
  gosub_stack[gosub_sp++] = {line, token, exec.if_depth};
  return true;
}

// Break polling: an Esc waiting in the key queue (or the window closing) is a break.
bool break_pressed() {
  if (host::stop_requested()) return true;
  std::lock_guard guard(host::shell.global_lock);
  return screen::keys.take_break();
}

void record_pause(int reason, std::uint32_t line, std::uint32_t token) {
  pause.reason = reason;
  pause.line = line;
  pause.token = token;
  pause.can_continue = line != kDirect;
  if (exec.line != kDirect) last_run_interrupted = true;
}

// The break key: trapped by ON BREAK, else the program pauses with "Break".
bool handle_break(const Token* t) {
  if (on_break_line && exec.line != kDirect && !host::stop_requested()) {
    bool active = false;
    for (int i = 0; i < handler_sp; ++i) active |= handlers[i].kind == 2;
    if (!active && handler_sp < kMaxHandlers) {
      handlers[handler_sp++] = {2, exec.line, token_index(t), exec.if_depth, gosub_sp};
      if (jump_to_line(on_break_line)) return true;
      return true;  // the missing line's error is handled by the loop
    }
  }
  record_pause(3, exec.line, token_index(t));
  screen::end_capture();
  screen::ensure_left_column();
  screen::put_text("Break");
  if (exec.line != kDirect) print_line_suffix(current_line_number());
  screen::put_char(13);
  exec.running = false;
  return false;
}

// An error stopped the statement: trap it or end the run.
bool handle_error() {
  if (!err.line_recorded) err.line = current_line_number();
  if (exec.line != kDirect && on_error_line) {
    bool active = false;
    for (int i = 0; i < handler_sp; ++i) active |= handlers[i].kind == 1;
    if (!active) {
      if (err.print_switch == 1) {
        if (err.line) print_line_suffix(err.line);
        screen::put_char(13);
      }
      err.flag = false;
      err.note[0] = 0;  // the handler decides what the user hears
      if (handler_sp >= kMaxHandlers) {
        raise("Too many nested handlers");
        return true;
      }
      // A line that failed to tokenize has no statements: the whole line faulted.
      const std::uint32_t at = exec.stmt ? token_index(exec.stmt) : kWholeLine;
      handlers[handler_sp++] = {1, exec.line, at, exec.if_depth, gosub_sp};
      (void)jump_to_line(on_error_line);
      return true;
    }
  }
  if (exec.line != kDirect) {
    print_stopped_error();
    last_run_failed = true;
  }
  pause.can_continue = false;
  exec.running = false;
  return false;
}

void ticker() {
  while (!host::stop_requested() && ticker_running.load()) {
    const std::uint64_t now = host::tick_ms();
    bool due = false;
    for (const Timer& tm : timers)
      if (tm.enabled && !tm.held && tm.line && tm.interval > 0 && now >= tm.due) due = true;
    if ((mouse_move_line && screen::mouse.moved.load()) ||
        ((mouse_click_line || mouse_double_line) && screen::has_clicks()))
      due = true;
    if (due) event_pending.store(1);
    host::sleep_ms(1);
  }
}

void ensure_ticker() {
  if (!ticker_running.exchange(true)) std::thread(ticker).detach();
}

// One event per pass: a GOSUB to its handler with the current statement as
// the return point. True when a jump was made.
bool dispatch_events(const Token* t) {
  if (exec.stepping) {
    event_pending.store(1);  // deferred while single-stepping
    return false;
  }
  const std::uint64_t now = host::tick_ms();
  for (Timer& tm : timers) {
    if (!(tm.enabled && !tm.held && tm.line && tm.interval > 0 && now >= tm.due)) continue;
    tm.due = now + static_cast<std::uint64_t>(tm.interval);
    // Other timers due as well get their turn at the next statement, not at
    // the ticker's next look.
    for (const Timer& o : timers)
      if (o.enabled && !o.held && o.line && o.interval > 0 && now >= o.due) event_pending.store(1);
    if (!push_return(exec.line, token_index(t))) return false;
    return jump_to_line(tm.line);
  }
  screen::Click c;
  if ((mouse_click_line || mouse_double_line) && screen::take_click(&c)) {
    const std::uint32_t target = c.double_click && mouse_double_line ? mouse_double_line : mouse_click_line;
    if (target) {
      if (!push_return(exec.line, token_index(t))) return false;
      return jump_to_line(target);
    }
  }
  if (mouse_move_line && screen::mouse.moved.load() && now - last_move_dispatch >= 5) {
    screen::mouse.moved.store(0);  // movements since the last call are coalesced
    last_move_dispatch = now;
    if (!push_return(exec.line, token_index(t))) return false;
    return jump_to_line(mouse_move_line);
  }
  return false;
}

// The run loop, from the statement at t.
void run_loop(const Token* t) {
  for (;;) {
    if (err.flag) {
      if (!handle_error()) return;
      if (exec.jumped) {
        exec.jumped = false;
        if (!set_position(exec.next_line, exec.next_token, t)) continue;
      }
      continue;
    }
    if (exec.line != kDirect && t == exec.base) {
      exec.if_depth = 0;
      const std::uint32_t number = line_index[exec.line].number;
      if (breakpoint_count && exec.resume_skip_line != exec.line && is_breakpoint(number)) {
        record_pause(2, exec.line, 0);
        screen::ensure_left_column();
        char buf[40];
        std::snprintf(buf, sizeof buf, "Breakpoint in %u", number);
        screen::put_line(buf);
        exec.running = false;
        return;
      }
      exec.resume_skip_line = kDirect;
      if (trace_on && number >= trace_lo && number <= trace_hi) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "[%u]", number);
        screen::put_text(buf);
      }
    }
    exec.stmt = t;
    if (++exec.counter == 0) {
      if (screen::keys.debugger_request.load(std::memory_order_relaxed)) debug_request = true;
      if (break_pressed()) {
        if (handle_break(t)) {
          exec.jumped = false;
          (void)set_position(exec.next_line, exec.next_token, t);
          continue;
        }
        return;
      }
    }
    if (event_pending.load(std::memory_order_relaxed) && event_pending.exchange(0) && dispatch_events(t)) {
      exec.jumped = false;
      (void)set_position(exec.next_line, exec.next_token, t);
      continue;
    }
    if (t->kind == kTokEnd) {
      if (!next_line(t)) return;
      continue;
    }
    if (debug_request && debugger_hook && exec.line != kDirect) {
      debug_request = false;
      if (!debugger_hook(t)) {
        if (handle_break(t)) {
          exec.jumped = false;
          (void)set_position(exec.next_line, exec.next_token, t);
          continue;
        }
        return;
      }
    }
    // With the JIT off the offer is not even made: it would refuse every statement.
    if (jit::enabled() && offer_compiled_region && !exec.stepping && !debug_request && offer_compiled_region(t)) {
      values::statement_boundary();
      if (exec.jumped) {
        exec.jumped = false;
        (void)set_position(exec.next_line, exec.next_token, t);
      }
      continue;
    }
    if (exec.stepping && exec.line != kDirect) {
      if (!exec.step_armed) {
        record_pause(4, exec.line, token_index(t));
        char buf[64];
        std::snprintf(buf, sizeof buf, "Step at %u, column %u", current_line_number(),
                      static_cast<unsigned>(t->column) + 1);
        screen::ensure_left_column();
        screen::put_line(buf);
        exec.running = false;
        return;
      }
      exec.step_armed = false;
    }
    if (t->kind == KW_ELSE) {
      // The end of a THEN branch (reached in order, or by a RETURN or RESUME
      // into it): its ELSE part is skipped.
      if (exec.if_depth > 0) {
        skip_to_line_end(t);
        continue;
      }
      raise("Syntax Error");
      continue;
    }
    exec.continue_here = false;
    if (profile_hook) profile_hook(t);
    run_statement(t);
    values::statement_boundary();
    if (after_statement) after_statement();
    if (exec.jumped) {
      exec.jumped = false;
      if (!err.flag || exec.next_line != exec.line) (void)set_position(exec.next_line, exec.next_token, t);
      continue;
    }
    if (exec.stop_request) {
      exec.stop_request = false;
      return;
    }
    if (err.flag) continue;
    if (exec.continue_here) continue;  // IF's THEN branch starts here
    if (t->kind == ':') {
      ++t;
      continue;
    }
    if (t->kind == KW_ELSE) continue;  // the end of a THEN branch: handled where statements start
    if (t->kind == kTokEnd) {
      if (!next_line(t)) return;
      continue;
    }
    raise("Syntax Error");
  }
}

}  // namespace

std::uint32_t token_index(const Token* t) { return static_cast<std::uint32_t>(t - exec.base); }

std::uint32_t current_line_number() { return exec.line == kDirect ? 0 : line_index[exec.line].number; }

void skip_to_line_end(const Token*& t) {
  while (t->kind != kTokEnd) ++t;
}

bool jump_to_line(std::uint32_t number) {
  std::uint32_t index;
  if (!find_line(number, &index)) return fail("Undefined line number");
  exec.running = true;
  request_jump(index, 0);
  return true;
}

bool eval_line_number(const Token*& t, std::uint32_t* number) {
  std::int64_t n;
  if (!values::eval_int64(t, &n)) return false;
  if (n < 0 || n > static_cast<std::int64_t>(kMaxLineNumber)) return fail("Undefined line number");
  *number = static_cast<std::uint32_t>(n);
  return true;
}

void clear_run_state() {
  if (close_all_files) close_all_files();
  if (clear_sound_slots) clear_sound_slots();
  values::clear_variables();
  reset_stacks();
  on_error_line = on_break_line = 0;
  for (Timer& tm : timers) tm = Timer{};
  for (std::int64_t& ms : values::timer_interval_ms) ms = 0;
  mouse_move_line = mouse_click_line = mouse_double_line = 0;
  if (restore_data) restore_data();
  if (forget_user_functions) forget_user_functions();
}

void program_changed() {
  pause.can_continue = false;  // breakpoints are line numbers and survive edits
  // Every saved position (GOSUB returns, loops, handlers, the DATA pointer)
  // names a line index and a token array of the old program: none survives.
  reset_stacks();
  if (restore_data) restore_data();
}

void execute_direct_tokens(const Token* tokens) {
  direct_base = tokens;
  exec.line = kDirect;
  exec.base = tokens;
  exec.stop_request = false;
  exec.jumped = false;
  program_running = false;
  run_loop(tokens);
  if (profile_hook) profile_hook(nullptr);
  if (flush_files) flush_files();
  exec.line = kDirect;
  program_running = false;
  exec.running = false;
}

void run_program(std::uint32_t start_index) {
  clear_run_state();
  if (reset_graphics_state) reset_graphics_state();
  last_run_failed = false;
  last_run_interrupted = false;
  pause.can_continue = false;
  exec.stepping = false;
  if (start_index >= program.lines) return;
  exec.running = true;
  request_jump(start_index, 0);
}

bool compiled_execution_allowed() {
  // Watches and the debugger look at every statement: they need the interpreter.
  return !trace_on && breakpoint_count == 0 && on_break_line == 0 && !exec.stepping && exec.if_depth == 0 &&
         exec.line != kDirect && !after_statement && !debug_request && !exact_profiling;
}
bool tracing_active() { return trace_on || after_statement; }
bool breakpoints_active() { return breakpoint_count > 0; }
std::uint32_t on_break_target() { return on_break_line; }
int gosub_depth() { return gosub_sp; }
int for_depth() { return for_sp; }
int while_depth() { return while_sp; }

bool for_stack_uses(const values::Descriptor* d) {
  for (int i = 0; i < for_sp; ++i)
    if ((for_stack[i].d && for_stack[i].generation == values::table_generation()
             ? for_stack[i].d
             : values::find_descriptor(for_stack[i].name, false, for_stack[i].type)) == d)
      return true;
  return false;
}

bool push_native_for(const NativeFor& n) {
  if (for_sp >= kMaxFor) return fail("Out of memory");
  ForFrame& f = for_stack[for_sp];
  std::memset(f.name, 0, sizeof f.name);
  std::memcpy(f.name, n.d->name, strnlen(n.d->name, 39));
  f.type = n.d->type;
  f.limit = n.limit;
  f.limit_d = values::is_integer_type(n.limit.type) ? static_cast<double>(n.limit.i) : n.limit.d;
  f.step = n.step;
  f.step_d = values::is_integer_type(n.step.type) ? static_cast<double>(n.step.i) : n.step.d;
  f.sign = f.step_d > 0 ? 1 : f.step_d < 0 ? -1 : 0;
  f.fast = !values::is_integer_type(n.limit.type) || (n.limit.i >= -(1ll << 53) && n.limit.i <= (1ll << 53));
  f.d = n.d;
  f.generation = values::table_generation();
  f.line = n.line;
  f.token = n.token;
  f.for_line = n.for_line;
  f.for_token = n.for_token;
  f.serial = ++loop_serial;
  // Compiled code hands its loops and GOSUBs over in the order they were
  // opened, so the GOSUBs below this loop are already on the stack.
  f.gosub_depth = gosub_sp;
  ++for_sp;
  return true;
}

bool push_native_while(std::uint32_t line, std::uint32_t token) {
  if (while_sp >= kMaxWhile) return fail("Out of memory");
  while_stack[while_sp++] = {line, token, ++loop_serial};
  return true;
}

bool push_native_return(std::uint32_t line, std::uint32_t token, int if_depth) {
  if (gosub_sp >= kMaxGosub) return fail("Out of memory");
  gosub_stack[gosub_sp++] = {line, token, if_depth};
  return true;
}

void resume_at(std::uint32_t line, std::uint32_t token, int if_depth) {
  exec.running = true;
  exec.if_depth = if_depth;
  request_jump(line, token);
}

void error_at(std::uint32_t line, std::uint32_t token, int if_depth) {
  exec.line = line;
  program_running = line != kDirect;
  exec.base = tokens_for(line);
  exec.stmt = exec.base ? exec.base + token : nullptr;
  exec.if_depth = if_depth;
}

void break_at_statement() {
  exec.stop_request = true;
  if (host::stop_requested()) return;  // the window is closing: no message
  (void)handle_break(exec.stmt ? exec.stmt : exec.base);
}

// --- statements -----------------------------------------------------------

namespace {

// A GOTO or GOSUB target. A constant target keeps the line's index in its
// token's cache for this program version, so most jumps skip the search.
bool target_index(const Token*& t, std::uint32_t* index) {
  const Token* k = t;
  if (k->kind == kTokNumber && at_statement_end(k + 1) && k->cache[0].b == program.generation && k->cache[0].a) {
    *index = static_cast<std::uint32_t>(k->cache[0].a - 1);
    ++t;
    return true;
  }
  std::uint32_t n;
  if (!eval_line_number(t, &n)) return false;
  if (!find_line(n, index)) return fail("Undefined line number");
  if (k->kind == kTokNumber && t == k + 1) const_cast<Token*>(k)->cache[0] = {*index + 1ull, program.generation};
  return true;
}

}  // namespace

void stmt_goto(const Token*& t) {
  ++t;
  std::uint32_t index;
  if (!target_index(t, &index) || !statement_ends(t)) return;
  exec.running = true;
  request_jump(index, 0);
}

void stmt_gosub(const Token*& t) {
  ++t;
  std::uint32_t index;
  if (!target_index(t, &index) || !statement_ends(t)) return;
  std::uint32_t line, token;
  continuation(t, &line, &token);
  if (!push_return(line, token)) return;
  exec.running = true;
  request_jump(index, 0);
}

void stmt_return(const Token*& t) {
  ++t;
  if (gosub_sp == 0) {
    raise("RETURN without GOSUB");
    return;
  }
  if (!at_statement_end(t)) {
    std::uint32_t n;
    if (!eval_line_number(t, &n) || !statement_ends(t)) return;
    --gosub_sp;
    (void)jump_to_line(n);
    return;
  }
  const ReturnFrame f = gosub_stack[--gosub_sp];
  if (f.line != kDirect) exec.running = true;
  exec.if_depth = f.if_depth;
  request_jump(f.line, f.token);
}

namespace {

bool numeric_or_mismatch(const Value& v) {
  if (v.type == values::kString || v.type == values::kHyper) return fail("Type mismatch");
  return true;
}

double as_double(const Value& v) { return values::is_integer_type(v.type) ? static_cast<double>(v.i) : v.d; }

// The loop variable's descriptor, revalidated against the variable table.
values::Descriptor* frame_variable(ForFrame& f) {
  if (f.d && f.generation == values::table_generation()) return f.d;
  f.d = values::scalar_descriptor(f.name);
  f.generation = values::table_generation();
  return f.d;
}


void for_end(const Token*& t) {
  t += 2;  // FOR END
  if (for_sp == 0) {
    raise("FOR END without FOR");
    return;
  }
  const ForFrame& f = for_stack[for_sp - 1];
  std::uint32_t line, token;
  if (!find_block_end(f.for_line, f.for_token + 1, KW_FOR, KW_NEXT, &line, &token)) {
    if (!err.flag) raise("FOR without NEXT");
    return;
  }
  const std::uint64_t serial = f.serial;
  --for_sp;
  while (while_sp > 0 && while_stack[while_sp - 1].serial > serial) --while_sp;
  request_jump(line, token);
}

}  // namespace

void stmt_for(const Token*& t) {
  if (t[1].kind == KW_END) {
    for_end(t);
    return;
  }
  const std::uint32_t for_line = exec.line, for_token = token_index(t);
  ++t;
  if (t->kind != kTokIdent) {
    raise("Expected variable");
    return;
  }
  const Token* var = t++;
  if (!values::expect(t, '=', "Syntax error")) return;
  Value start, limit, step = Value::integer(1);
  if (!values::eval(t, &start) || !numeric_or_mismatch(start)) return;
  if (!values::expect(t, KW_TO, "Syntax error")) return;
  if (!values::eval(t, &limit) || !numeric_or_mismatch(limit)) return;
  if (t->kind == KW_STEP) {
    ++t;
    if (!values::eval(t, &step) || !numeric_or_mismatch(step)) return;
  }
  const double limit_d = as_double(limit), step_d = as_double(step);
  if (limit_d != limit_d || step_d != step_d) {
    raise("Illegal function call");
    return;
  }
  // A variable the token already knows has the type its name gives.
  values::Descriptor* d = values::scalar_cached(var);
  const std::uint8_t type = d ? d->type : values::type_of_name(var->name());
  if (!values::is_numeric_type(type)) {
    raise("Type mismatch");
    return;
  }
  if (!d) d = values::scalar_of(var);
  if (!d || !(values::store_same_type(d->value, d->type, start) || values::store_value(d->value, d->type, start)))
    return;
  // Re-entering a loop of the same variable (a GOTO back to its FOR) replaces
  // that loop and every loop inside it instead of stacking a second one. The
  // search stops at the innermost GOSUB: a subroutine that reuses its
  // caller's loop variable opens a loop of its own and leaves the caller's.
  for (int i = for_sp - 1; i >= 0 && for_stack[i].gosub_depth >= gosub_sp; --i)
    if (frame_variable(for_stack[i]) == d) {
      for_sp = i;
      break;
    }
  if (for_sp >= kMaxFor) {
    raise("Out of memory");
    return;
  }
  if (!at_statement_end(t)) {
    raise("Syntax Error");
    return;
  }
  ForFrame& f = for_stack[for_sp];
  static_assert(sizeof f.name == sizeof var->payload, "a frame keeps the whole name field");
  std::memcpy(f.name, var->payload, sizeof f.name);
  f.name[sizeof f.name - 1] = 0;
  f.type = type;
  f.limit = limit;
  f.limit_d = limit_d;
  f.step = step;
  f.step_d = step_d;
  f.sign = step_d > 0 ? 1 : step_d < 0 ? -1 : 0;
  f.fast = !values::is_integer_type(limit.type) || (limit.i >= -(1ll << 53) && limit.i <= (1ll << 53));
  f.d = d;
  f.generation = values::table_generation();
  f.gosub_depth = gosub_sp;
  continuation(t, &f.line, &f.token);
  f.for_line = for_line;
  f.for_token = for_token;
  f.serial = ++loop_serial;
  ++for_sp;
  // Entry test: a loop can run zero times.
  if (f.sign == 0) return;
  bool past;
  const std::uint8_t vt = d->type;
  if (values::is_integer_type(vt) && values::is_integer_type(limit.type)) {
    Value v;
    values::load_into(d->value, vt, &v);
    past = f.sign > 0 ? v.i > limit.i : v.i < limit.i;
  } else {
    const Value v = values::load_value(d->value, vt);
    Value r;
    past = values::binary_op(f.sign > 0 ? values::Op::Gt : values::Op::Lt, v, limit, &r) && r.i;
  }
  if (past) {
    --for_sp;
    std::uint32_t line, token;
    if (!find_block_end(for_line, for_token + 1, KW_FOR, KW_NEXT, &line, &token)) {
      if (!err.flag) raise("FOR without NEXT");
      return;
    }
    request_jump(line, token);
  }
}

namespace {

// Step and test frame f (the floating and general cases); true when the loop
// goes round again (jump made).
[[gnu::noinline]] bool step_loop_general(ForFrame& f, values::Descriptor* d) {
  bool beyond;
  if ((d->type == values::kSingle || d->type == values::kDouble) && d->type == f.type) {
    const Value cur = values::load_value(d->value, d->type);
    double next = cur.d + f.step_d;
    if (d->type == values::kSingle) next = static_cast<float>(next);
    if (next - next != 0) return fail("Overflow");
    if (d->type == values::kSingle) {
      const float s = static_cast<float>(next);
      std::memcpy(d->value, &s, 4);
    } else {
      std::memcpy(d->value, &next, 8);
    }
    if (f.fast) {
      beyond = f.sign > 0 ? next > f.limit_d : f.sign < 0 ? next < f.limit_d : false;
    } else {
      Value r;
      if (!values::binary_op(f.sign > 0 ? values::Op::Gt : values::Op::Lt, Value::floating(next), f.limit, &r)) return false;
      beyond = f.sign != 0 && r.i;
    }
  } else {
    // Loop variable, step and limit are numeric (FOR saw to it): the
    // evaluator's "+" and comparisons without its dispatch on operand kinds.
    Value cur, sum;
    values::load_into(d->value, d->type, &cur);
    if (!values::is_numeric_type(cur.type)) return values::binary_op(values::Op::Add, cur, f.step, &sum);
    if (!values::numeric_binary<values::Op::Add>(cur, f.step, &sum)) return false;
    if (!values::store_value(d->value, d->type, sum)) return false;
    Value now, r;
    values::load_into(d->value, d->type, &now);
    if (f.sign == 0) {
      beyond = false;
    } else {
      if (!(f.sign > 0 ? values::numeric_binary<values::Op::Gt>(now, f.limit, &r)
                       : values::numeric_binary<values::Op::Lt>(now, f.limit, &r)))
        return false;
      beyond = r.i != 0;
    }
  }
  if (beyond) return false;
  request_jump(f.line, f.token);
  return true;
}

// Step and test frame i; true when the loop goes round again (jump made).
inline bool step_loop(int i) {
  ForFrame& f = for_stack[i];
  values::Descriptor* d = frame_variable(f);
  if (!d) return false;
  if (d->type == f.type && (d->type == values::kInteger || d->type == values::kLong) &&
      values::is_integer_type(f.step.type) && values::is_integer_type(f.limit.type)) {
    // INTEGER and LONG counters with integer step and limit, the usual loop:
    // "+" and the store rule's range check without a value record.
    std::int64_t cur;
    if (d->type == values::kInteger) {
      std::int16_t s;
      std::memcpy(&s, d->value, 2);
      cur = s;
    } else {
      std::int32_t s;
      std::memcpy(&s, d->value, 4);
      cur = s;
    }
    std::int64_t next;
    if (__builtin_add_overflow(cur, f.step.i, &next)) return fail("Overflow");
    if (d->type == values::kInteger) {
      if (next < -32768 || next > 32767) return fail("Overflow");
      const std::int16_t s = static_cast<std::int16_t>(next);
      std::memcpy(d->value, &s, 2);
    } else {
      if (next < -2147483648LL || next > 2147483647LL) return fail("Overflow");
      const std::int32_t s = static_cast<std::int32_t>(next);
      std::memcpy(d->value, &s, 4);
    }
    const bool beyond = f.sign > 0 ? next > f.limit.i : f.sign < 0 ? next < f.limit.i : false;
    if (beyond) return false;
    request_jump(f.line, f.token);
    return true;
  }
  return step_loop_general(f, d);
}

}  // namespace

void stmt_next(const Token*& t) {
  ++t;
  if (at_statement_end(t)) {
    if (for_sp == 0) {
      raise("NEXT without FOR");
      return;
    }
    if (step_loop(for_sp - 1) || err.flag) return;
    --for_sp;
    return;
  }
  for (;;) {
    if (t->kind != kTokIdent) {
      raise("Syntax error");
      return;
    }
    // A frame matches when it loops over the same variable (same name and type).
    const values::Descriptor* d = values::scalar_of(t);
    if (!d) return;
    int i = for_sp - 1;
    for (; i >= 0; --i)
      if (frame_variable(for_stack[i]) == d) break;
    if (i < 0) {
      raise("NEXT without FOR");
      return;
    }
    for_sp = i + 1;  // frames above the named one are discarded
    ++t;
    if (step_loop(i) || err.flag) return;
    --for_sp;
    if (t->kind != ',') return;
    ++t;
  }
}

void stmt_while(const Token*& t) {
  const std::uint32_t line = exec.line, token = token_index(t);
  if (t[1].kind == KW_END) {
    t += 2;
    if (while_sp == 0) {
      raise("WHILE END without WHILE");
      return;
    }
    const WhileFrame f = while_stack[--while_sp];
    while (for_sp > 0 && for_stack[for_sp - 1].serial > f.serial) --for_sp;
    std::uint32_t l, k;
    if (!find_block_end(f.line, f.token + 1, KW_WHILE, KW_WEND, &l, &k)) {
      if (!err.flag) raise("WHILE without WEND");
      return;
    }
    request_jump(l, k);
    return;
  }
  ++t;
  Value c;
  if (!values::eval(t, &c)) return;
  if (!numeric_or_mismatch(c)) return;
  if (!(t->kind == kTokEnd || t->kind == ':')) {
    raise("Syntax Error");
    return;
  }
  const bool truth = values::is_integer_type(c.type) ? c.i != 0 : c.d != 0;
  if (!truth) {
    // Where the loop ends depends on the program alone: the WHILE token keeps
    // it for this program version.
    Token* w = const_cast<Token*>(exec.base + token);
    std::uint32_t l, k;
    if (w->cache[0].b == program.generation) {
      l = static_cast<std::uint32_t>(w->cache[0].a >> 32);
      k = static_cast<std::uint32_t>(w->cache[0].a);
    } else {
      if (!find_block_end(line, token + 1, KW_WHILE, KW_WEND, &l, &k)) {
        if (!err.flag) raise("WHILE without WEND");
        return;
      }
      w->cache[0] = {static_cast<std::uint64_t>(l) << 32 | k, program.generation};
    }
    request_jump(l, k);
    return;
  }
  if (while_sp >= kMaxWhile) {
    raise("Out of memory");
    return;
  }
  while_stack[while_sp++] = {line, token, ++loop_serial};
}

void stmt_wend(const Token*& t) {
  ++t;
  if (while_sp == 0) {
    raise("WEND without WHILE");
    return;
  }
  const WhileFrame f = while_stack[--while_sp];
  request_jump(f.line, f.token);
}

void stmt_if(const Token*& t) {
  const Token* if_token = t++;
  Value c;
  if (!values::eval(t, &c)) return;
  if (!numeric_or_mismatch(c)) return;
  const bool truth = values::is_integer_type(c.type) ? c.i != 0 : c.d != 0;
  const bool via_goto = t->kind == KW_GOTO;
  if (t->kind != KW_THEN && !via_goto) {
    raise("Syntax error");
    return;
  }
  ++t;
  if (truth) {
    if (via_goto || t->kind == kTokNumber) {
      std::uint32_t n;
      if (!eval_line_number(t, &n)) return;
      (void)jump_to_line(n);
      return;
    }
    if (exec.if_depth >= kMaxIf) {
      raise("Too many nested IFs");
      return;
    }
    ++exec.if_depth;
    exec.continue_here = true;  // the THEN branch's first statement starts at t
    return;
  }
  // False: find this IF's ELSE (an ELSE belongs to the nearest unmatched IF).
  // The IF token keeps where it is for this program version.
  Token* k = const_cast<Token*>(if_token);
  if (k->cache[0].b == program.generation) {
    t = if_token + k->cache[0].a;
  } else {
    int depth = 0;
    for (; t->kind != kTokEnd; ++t) {
      if (t->kind == KW_IF) ++depth;
      else if (t->kind == KW_ELSE) {
        if (depth == 0) break;
        --depth;
      }
    }
    k->cache[0] = {static_cast<std::uint64_t>(t - if_token), program.generation};
  }
  if (t->kind == kTokEnd) return;  // no ELSE: the rest of the line is skipped
  ++t;
  if (t->kind == kTokNumber) {
    std::uint32_t n;
    if (!eval_line_number(t, &n)) return;
    (void)jump_to_line(n);
    return;
  }
  exec.continue_here = true;
}

void stmt_on(const Token*& t) {
  ++t;
  if (t->kind == KW_ERROR || t->kind == KW_BREAK) {
    const bool error = t->kind == KW_ERROR;
    ++t;
    if (!values::expect(t, KW_GOTO, "Syntax error")) return;
    std::uint32_t n;
    if (!eval_line_number(t, &n)) return;
    (error ? on_error_line : on_break_line) = n;
    return;
  }
  if (t->kind == kTokIdent) {
    const char* name = t->name();
    int timer = -1;
    std::uint32_t* mouse_target = nullptr;
    if (!std::strcmp(name, "TIMER") && t[1].kind == '(') {
      t += 2;
      std::int64_t n;
      if (!values::eval_int64(t, &n) || !values::expect(t, ')', "Expected )")) return;
      if (n < 0 || n > 7) {
        raise("Illegal function call");
        return;
      }
      timer = static_cast<int>(n);
      --t;
    } else if (!std::strcmp(name, "MOUSEMOVE")) {
      mouse_target = &mouse_move_line;
    } else if (!std::strcmp(name, "MOUSECLICK")) {
      mouse_target = &mouse_click_line;
    } else if (!std::strcmp(name, "MOUSEDOUBLECLICK")) {
      mouse_target = &mouse_double_line;
    }
    if (timer >= 0 || mouse_target) {
      ++t;
      if (!values::expect(t, KW_GOSUB, "Syntax error")) return;
      std::uint32_t n;
      if (!eval_line_number(t, &n)) return;
      if (timer >= 0) {
        timers[timer].line = n;
        timers[timer].due = host::tick_ms() + static_cast<std::uint64_t>(timers[timer].interval);
      } else {
        *mouse_target = n;
        if (mouse_target != &mouse_move_line) screen::clear_clicks();
      }
      ensure_ticker();
      return;
    }
  }
  std::int64_t selector;
  if (!values::eval_int64(t, &selector)) return;
  if (selector < 0 || selector > 255) {
    raise("Illegal function call");
    return;
  }
  const bool gosub = t->kind == KW_GOSUB;
  if (t->kind != KW_GOTO && !gosub) {
    raise("Syntax error");
    return;
  }
  ++t;
  std::uint32_t chosen = 0;
  bool have = false;
  for (std::int64_t i = 1;; ++i) {
    std::uint32_t n;
    if (!eval_line_number(t, &n)) return;
    if (i == selector) {
      chosen = n;
      have = true;
    }
    if (t->kind != ',') break;
    ++t;
  }
  if (!statement_ends(t)) return;
  if (!have) return;  // 0 or beyond the list: fall through
  if (gosub && !push_return(exec.line, token_index(t))) return;
  if (!jump_to_line(chosen) && gosub) --gosub_sp;
}

void stmt_resume(const Token*& t) {
  ++t;
  if (handler_sp == 0) {
    raise("RESUME without error");
    return;
  }
  if (t->kind == KW_NEXT && !at_statement_end(t + 1)) {
    raise("Syntax Error");
    return;
  }
  const HandlerFrame f = handlers[--handler_sp];
  if (f.line != kDirect) exec.running = true;
  const bool zero = t->kind == kTokNumber && t->type <= values::kInt64 && t->i64() == 0 && at_statement_end(t + 1);
  if (at_statement_end(t) || zero) {
    // RESUME and RESUME 0: the faulting statement again, inside the same IFs.
    if (zero) ++t;
    exec.if_depth = f.if_depth;
    request_jump(f.line, f.token == kWholeLine ? 0 : f.token);
    return;
  }
  if (t->kind == KW_NEXT) {
    ++t;
    exec.if_depth = f.if_depth;
    if (f.token == kWholeLine) {
      // The line never ran: go on with the next one, or end as its last line would.
      if (f.line + 1 < program.lines) {
        request_jump(f.line + 1, 0);
      } else {
        exec.running = false;
        exec.stop_request = true;
      }
      return;
    }
    const Token* base = tokens_for(f.line);
    if (!base) return;
    const Token* p = base + f.token;
    // An IF owns the rest of its line, and so does a stray ELSE (the one
    // statement that starts at a separator): both resume at the line's end.
    if (p->kind == KW_IF || p->kind == KW_ELSE) skip_to_line_end(p);
    else skip_statement(p);
    request_jump(f.line, static_cast<std::uint32_t>(p - base));
    return;
  }
  // The target is checked while the handler is still active: a bad RESUME
  // line stops the program instead of being trapped by its own handler.
  ++handler_sp;
  std::int64_t k;
  std::uint32_t index;
  if (!values::eval_int64(t, &k) || !statement_ends(t)) return;  // a string target is "Type mismatch"
  if (k < 0 || k > static_cast<std::int64_t>(kMaxLineNumber) || !find_line(static_cast<std::uint32_t>(k), &index)) {
    raise("Undefined line number");
    return;
  }
  --handler_sp;
  if (f.gosub_sp < gosub_sp) gosub_sp = f.gosub_sp;  // frames opened inside the handler
  (void)jump_to_line(static_cast<std::uint32_t>(k));
}

void stmt_stop(const Token*& t) {
  ++t;
  if (!statement_ends(t)) return;
  // Resume behind the STOP: the next statement on the line, or the next line.
  const Token* r = t;
  if (r->kind == ':') ++r;
  if (r->kind == kTokEnd && exec.line != kDirect) {
    record_pause(1, exec.line + 1 < program.lines ? exec.line + 1 : kDirect, 0);
    if (exec.line + 1 >= program.lines) pause.can_continue = false;
  } else {
    record_pause(1, exec.line, token_index(r));
  }
  screen::ensure_left_column();
  screen::put_text("Break");
  if (exec.line != kDirect) print_line_suffix(current_line_number());
  screen::put_char(13);
  exec.running = false;
  exec.stop_request = true;
}

void stmt_end(const Token*& t) {
  ++t;
  if (!statement_ends(t)) return;
  if (close_all_files) close_all_files();
  exec.running = false;
  pause.can_continue = false;
  exec.stop_request = true;
}

void stmt_system(const Token*& t) {
  ++t;
  if (!statement_ends(t)) return;
  if (close_all_files) close_all_files();
  host::shell.exit_code.store(0);
  exec.running = false;
  exec.stop_request = true;
  host::request_stop();
  if (host::ui) host::ui->post_close();
}

void stmt_cont(const Token*& t) {
  ++t;
  bool step = false;
  if (t->kind == KW_NEXT) {
    step = true;
    ++t;
  }
  if (!pause.can_continue || pause.line == kDirect) {
    raise("Can't continue");
    return;
  }
  exec.stepping = step;
  exec.step_armed = step;
  pause.can_continue = false;  // this pause is used up; the next STOP records a new one
  last_run_interrupted = false;
  if (pause.reason == 2) exec.resume_skip_line = pause.line;  // the breakpoint does not fire at once again
  exec.running = true;
  request_jump(pause.line, pause.token);
}

void stmt_tron(const Token*& t) {
  ++t;
  std::uint32_t from = 0, to = kMaxLineNumber;
  bool single;
  if (!at_statement_end(t) && !parse_range(t, &from, &to, &single)) return;
  trace_on = true;
  trace_lo = from;
  trace_hi = to;
}

void stmt_troff(const Token*& t) {
  ++t;
  trace_on = false;
}

void stmt_clear(const Token*& t) {
  ++t;
  // Classic size arguments are accepted and have nothing to size here.
  while (!at_statement_end(t)) {
    if (t->kind == ',') {
      ++t;
      continue;
    }
    Value v;
    if (!values::eval(t, &v)) return;
  }
  clear_run_state();
}

void stmt_error(const Token*& t) {
  ++t;
  std::int64_t n;
  if (!values::eval_int64(t, &n)) return;
  error_statement(n);
}

void stmt_break(const Token*& t) {
  ++t;
  if (t->kind == KW_LIST) {
    ++t;
    if (breakpoint_count == 0) {
      screen::put_line("(no breakpoints)");
      return;
    }
    for (int i = 0; i < breakpoint_count; ++i) {
      char buf[16];
      std::snprintf(buf, sizeof buf, "%u", breakpoints[i]);
      screen::put_line(buf);
    }
    return;
  }
  if (t->kind == KW_CLEAR) {
    ++t;
    breakpoint_count = 0;
    return;
  }
  const bool remove = t->kind == KW_DELETE;
  if (remove) {
    ++t;
    if (at_statement_end(t)) {
      breakpoint_count = 0;
      return;
    }
  }
  for (;;) {
    std::uint32_t n;
    if (!eval_line_number(t, &n)) return;
    if (remove) {
      for (int i = 0; i < breakpoint_count; ++i)
        if (breakpoints[i] == n) breakpoints[i--] = breakpoints[--breakpoint_count];
    } else if (!is_breakpoint(n)) {
      if (breakpoint_count >= kMaxBreakpoints) {
        raise("Too many breakpoints");
        return;
      }
      breakpoints[breakpoint_count++] = n;
    }
    if (t->kind != ',') return;
    ++t;
  }
}

namespace {

// ON, OFF or STOP at t for one timer. STOP holds the timer's events; ON
// after STOP delivers one that fell due meanwhile at once.
bool timer_switch(const Token*& t, Timer* tm) {
  if (t->kind == KW_ON) {
    ++t;
    if (!statement_ends(t)) return false;
    if (!(tm->enabled && tm->held)) tm->due = host::tick_ms() + static_cast<std::uint64_t>(tm->interval);
    else if (host::tick_ms() >= tm->due) event_pending.store(1);  // the held event, before the next statement
    tm->enabled = true;
    tm->held = false;
    ensure_ticker();
    return true;
  }
  if (t->kind == KW_STOP) {
    ++t;
    if (!statement_ends(t)) return false;
    tm->held = true;
    return true;
  }
  if (t->kind == kTokIdent && !std::strcmp(t->name(), "OFF")) {
    ++t;
    if (!statement_ends(t)) return false;
    tm->enabled = false;
    tm->held = false;
    return true;
  }
  return fail("Syntax error");
}

}  // namespace

std::uint32_t* breakpoint_list(int* count) {
  *count = breakpoint_count;
  return breakpoints;
}

bool is_breakpoint_line(std::uint32_t number) { return is_breakpoint(number); }

bool toggle_breakpoint(std::uint32_t number) {
  for (int i = 0; i < breakpoint_count; ++i)
    if (breakpoints[i] == number) {
      breakpoints[i] = breakpoints[--breakpoint_count];
      return true;
    }
  if (breakpoint_count >= kMaxBreakpoints) return fail("Too many breakpoints");
  breakpoints[breakpoint_count++] = number;
  return true;
}

bool paused_line(std::uint32_t* number) {
  if (!pause.can_continue || pause.line == kDirect || pause.line >= program.lines) return false;
  *number = line_index[pause.line].number;
  return true;
}

void stmt_timer(const Token*& t) {
  t += 2;  // TIMER (
  std::int64_t n;
  if (!values::eval_int64(t, &n) || !values::expect(t, ')', "Expected )")) return;
  if (n < 0 || n > 7) {
    raise("Illegal function call");
    return;
  }
  Timer& tm = timers[n];
  if (t->kind == '=') {
    ++t;
    std::int64_t ms;
    if (!values::eval_int64(t, &ms)) return;
    if (ms < 0) {
      raise("Illegal function call");
      return;
    }
    tm.interval = ms;
    values::timer_interval_ms[n] = ms;
    tm.due = host::tick_ms() + static_cast<std::uint64_t>(ms);
    return;
  }
  (void)timer_switch(t, &tm);
}

// TIMER ON | OFF | STOP: every timer at once.
void stmt_timer_all(const Token*& t) {
  ++t;
  const Token* start = t;
  for (Timer& tm : timers) {
    t = start;
    if (!timer_switch(t, &tm)) return;
  }
}

}  // namespace core
