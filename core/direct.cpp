// Direct mode: every typed line (and the start-up commands) comes here. A
// line that starts with a digit is stored; any other is tokenized and run.
#include "core/direct.h"

#include "jit/jit.h"

#include <cstring>

#include "core/errors.h"
#include "core/exec.h"
#include "core/input.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "core/tokenizer.h"
#include "host/shell.h"
#include "screen/capture.h"
#include "screen/console.h"
#include "tools/tools.h"
#include "values/rnd.h"
#include "values/strings.h"
#include "values/variables.h"

namespace core {

AutoState auto_numbering;
bool suppress_prompt = false;
bool last_run_failed = false;
bool last_run_interrupted = false;

namespace {
int depth = 0;
// The direct line's text and tokens: string tokens point into the text, and a
// program entered from this line may return into it (GOSUB, CONT, RESUME).
char direct_text[8][260];
Token direct_tokens[8][kMaxTokens + 1];
const char* direct_line_text = "";

void store_program_line(const char* p) {
  std::uint32_t number;
  if (!parse_line_number(p, &number)) return;
  while (*p == ' ') ++p;  // typed lines drop every blank after the number
  program.edit_line = number;
  program.modified = true;
  (void)store_line(number, p, static_cast<std::uint32_t>(std::strlen(p)));
}
}  // namespace

void init_interpreter() {
  auto_numbering = AutoState{};
  suppress_prompt = false;
  last_run_failed = false;
  last_run_interrupted = false;
  reset_errors();
  program_init(host::shell.program_arena, host::kProgramArenaBytes);
  values::clear_variables();
  values::rnd_reset();
  on_program_changed = program_changed;
  install_data_hooks();
  install_user_functions();
  jit::install();
  clear_run_state();
}

const char* current_line_text() {
  if (exec.line != kDirect && exec.line < program.lines) return line_body(exec.line);
  return direct_line_text;
}

bool line_exists(std::uint32_t number) {
  std::uint32_t index;
  return find_line(number, &index);
}

void execute_direct(const char* line) {
  clear_error_flag();
  values::statement_boundary();
  const char* p = line;
  while (*p == ' ') ++p;
  if (*p >= '0' && *p <= '9') {
    store_program_line(p);
    return;
  }
  if (depth >= 8) {
    raise("Out of memory");
    return;
  }
  char* text = direct_text[depth];
  std::size_t n = std::strlen(p);
  if (n > 256) n = 256;
  std::memcpy(text, p, n);
  text[n] = 0;
  // RUN "name without its closing quote behaves as if it were closed.
  if (n >= 4 && (text[0] & ~0x20) == 'R' && (text[1] & ~0x20) == 'U' && (text[2] & ~0x20) == 'N' &&
      (text[3] == ' ' || text[3] == '\t' || text[3] == '"')) {
    const char* q = std::strchr(text, '"');
    if (q && !std::strchr(q + 1, '"') && n + 1 < 257) {
      text[n++] = '"';
      text[n] = 0;
    }
  }
  const int count = tokenize(text);
  if (err.flag) return;
  Token* tokens = direct_tokens[depth];
  std::memcpy(tokens, scratch_tokens, sizeof(Token) * static_cast<std::size_t>(count));
  // Save the console state around the outermost command: a program may
  // capture output or take over the whole screen.
  const bool outermost = depth == 0;
  const std::uint8_t capture = screen::con.capture_mode;
  const bool full = screen::con.full_screen_override;
  ++depth;
  const char* outer_text = direct_line_text;
  direct_line_text = text;
  const Token* t = tokens;
  Handler command = nullptr;
  if (t->kind == KW_AUTO) command = stmt_auto;
  else if (t->kind == KW_BREAK) command = stmt_break;
  else if (t->kind == KW_RENUM) command = tools::cmd_renum;
  else if (t->kind == kTokIdent && t[1].kind != '=' && t[1].kind != '(')
    for (const NamedStatement& n : tools::kDirectNamed)
      if (std::strcmp(n.name, t->name()) == 0) command = n.fn;
  if (command) {
    // Direct-mode commands: inside a program line they are a syntax error
    // (the keywords) or ordinary names (the identifiers).
    command(t);
    if (!err.flag && t->kind != kTokEnd) raise("Syntax Error");
  } else {
    execute_direct_tokens(tokens);
  }
  direct_line_text = outer_text;
  --depth;
  values::statement_boundary();
  if (outermost) {
    screen::end_capture();  // a capture lasts at most one command; its text is stored
    screen::con.capture_mode = capture;
    screen::con.full_screen_override = full;
  }
}

}  // namespace core
