// Program commands: RUN, LIST, LOAD, MERGE, SAVE, NEW, DELETE, AUTO, EDIT.
#include <cstdio>
#include <cstring>
#include <string>

#include "core/direct.h"
#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "host/shell.h"
#include "host/ui.h"
#include "screen/console.h"
#include "screen/keyqueue.h"
#include "tools/profile.h"
#include "values/eval.h"

namespace core {

bool edit_request = false;

namespace {

bool fail(const char* m) {
  raise(m);
  return false;
}

// A file name argument: a string expression checked and resolved (.BAS default).
bool source_name_arg(const Token*& t, std::string* name) {
  values::Value v;
  if (!values::eval(t, &v)) return false;
  if (v.type != values::kString) return fail("Type mismatch");
  return resolve_source_name(v.s.ptr, v.s.len, name);
}

// One end of a line range: a number, "." for the current edit line.
bool range_end(const Token*& t, std::uint32_t* n) {
  if (t->kind == '.') {
    ++t;
    if (program.edit_line == kDirect) return fail("Undefined line number");
    *n = program.edit_line;
    return true;
  }
  if (t->kind != kTokNumber) return fail("Syntax Error");
  double v = t->type <= values::kInt64 ? static_cast<double>(t->i64()) : t->f64();
  if (v < 0 || v > 4294967294.0 || v != static_cast<double>(static_cast<std::uint64_t>(v)))
    return fail("Line number too large");
  *n = static_cast<std::uint32_t>(v);
  ++t;
  return true;
}

// LOAD for LOAD and RUN: a failure inside a program names the statement's
// line, not the line of that index in the half-loaded program.
bool load_program(const std::string& name) {
  const std::uint32_t here = current_line_number();
  if (load_source(name, LoadMode::load)) return true;
  if (exec.line != kDirect) {
    err.line = here;
    err.line_recorded = true;
  }
  return false;
}

}  // namespace

// [from][-[to]] | . | ERL. `single` reports whether one line was named.
bool parse_range(const Token*& t, std::uint32_t* from, std::uint32_t* to, bool* single) {
  *from = 0;
  *to = kMaxLineNumber;
  *single = false;
  if (t->kind == kTokIdent && !std::strcmp(t->name(), "ERL")) {
    ++t;
    if (err.line == 0) return fail("No error line");
    *from = *to = err.line;
    *single = true;
    return true;
  }
  if (t->kind == kTokNumber || t->kind == '.') {
    if (!range_end(t, from)) return false;
    if (t->kind != '-') {
      *to = *from;
      *single = true;
      return true;
    }
  }
  if (t->kind == '-') {
    ++t;
    if (t->kind == kTokNumber || t->kind == '.') {
      if (!range_end(t, to)) return false;
    }
  }
  if (*from > *to) return fail("Illegal function call");
  return true;
}

namespace {

// Rows a listed line takes at the console's width, its number taking `col` columns.
std::uint32_t rows_for(const char* text, std::size_t n, std::uint32_t width, std::uint32_t col) {
  std::uint32_t rows = 1;
  for (std::size_t i = 0; i < n; ++i) {
    if (text[i] == '\r' || text[i] == '\n') {
      if (text[i] == '\r' && i + 1 < n && text[i + 1] == '\n') ++i;
      ++rows;
      col = 0;
    } else if (++col > width) {
      ++rows;
      col = 1;
    }
  }
  return rows;
}

}  // namespace

// The page prompt: false when the listing is abandoned.
bool page_prompt() {
  screen::put_text("-- more: any key, Esc stops --");
  screen::KeyEntry k;
  const bool got = screen::keys.wait(&k);
  // Take the prompt off the screen again.
  const screen::Region r = screen::text_region();
  for (std::uint32_t c = r.left; c <= r.right; ++c) screen::put_cell(screen::con.row, c, ' ');
  screen::con.col = r.left;
  return got && (k.code & 0xFF) != screen::kKeyEsc;
}

void stmt_list(const Token*& t) {
  ++t;
  std::uint32_t from, to;
  bool single;
  if (!parse_range(t, &from, &to, &single)) return;
  bool nowait = false;
  if (t->kind == kTokIdent && !std::strcmp(t->name(), "NOWAIT")) {
    nowait = true;
    ++t;
  }
  if (!at_statement_end(t)) {
    raise("Syntax Error");
    return;
  }
  std::uint32_t index;
  const bool found = find_line(from, &index);
  if (single && !found) {
    raise("Undefined line number");
    return;
  }
  // A headless session is a stream: there is no page to fill.
  if (host::ui && host::ui->headless()) nowait = true;
  const std::uint32_t width = screen::text_columns();
  std::uint32_t page = screen::text_rows();
  if (page < 2) page = 2;
  const std::uint32_t reserve = (width + 30) / width;
  page = page > reserve + 1 ? page - reserve : 1;
  std::uint32_t used = 0;
  for (; index < program.lines && line_index[index].number <= to; ++index) {
    if (screen::keys.take_break() || host::stop_requested()) break;  // Esc, or the window closing
    char head[16];
    const int hn = std::snprintf(head, sizeof head, "%u ", line_index[index].number);
    const char* body = line_body(index);
    const std::uint32_t len = line_body_length(index);
    const std::uint32_t rows = rows_for(body, len, width, static_cast<std::uint32_t>(hn));
    if (!nowait && used + rows > page && used > 0) {
      if (!page_prompt()) break;
      used = 0;
    }
    used += rows;
    // A line with a breakpoint is listed in the debugger's breakpoint colours.
    const std::uint32_t fg = screen::con.fg, bg = screen::con.bg;
    const bool marked = is_breakpoint_line(line_index[index].number);
    if (marked) {
      screen::con.fg = kBreakpointFg;
      screen::con.bg = kBreakpointBg;
    }
    screen::put_text(head);
    if (!marked && tools::profile_marking() && tools::profile_list_line(index)) {
      // PROFILE MARK coloured the statements by how they last ran.
    } else {
      for (std::uint32_t i = 0; i < len; ++i) screen::put_char(static_cast<std::uint8_t>(body[i]));
    }
    screen::con.fg = fg;
    screen::con.bg = bg;
    if (!screen::at_line_start()) screen::put_char(13);
  }
}

void stmt_load(const Token*& t) {
  ++t;
  std::string name;
  if (!source_name_arg(t, &name)) return;
  bool run = false;
  if (t->kind == ',') {  // LOAD f$,R runs the program after loading
    ++t;
    if (t->kind != kTokIdent || std::strcmp(t->name(), "R") != 0) {
      raise("Syntax error");
      return;
    }
    ++t;
    run = true;
  }
  if (close_all_files) close_all_files();
  clear_run_state();
  if (!load_program(name)) return;
  if (run) run_program(0);
  else exec.stop_request = exec.running;  // a LOAD inside a program ends it
}

void stmt_merge(const Token*& t) {
  ++t;
  if (exec.line != kDirect) {
    raise("Illegal direct");
    return;
  }
  std::string name;
  if (!source_name_arg(t, &name)) return;
  (void)load_source(name, LoadMode::merge);
}

void stmt_save(const Token*& t) {
  ++t;
  values::Value v;
  if (!values::eval(t, &v)) return;
  if (v.type != values::kString) {
    raise("Type mismatch");
    return;
  }
  std::string name;
  if (!resolve_source_name(v.s.ptr, v.s.len, &name)) return;
  if (t->kind == ',') {  // ",A": programs are always saved as text
    ++t;
    if (t->kind != kTokIdent || std::strcmp(t->name(), "A") != 0) {
      raise("Syntax error");
      return;
    }
    ++t;
  }
  (void)save_source(name);
}

void stmt_new(const Token*& t) {
  ++t;
  program_clear();
  clear_run_state();
  program.edit_line = kDirect;
  program.modified = false;
  exec.running = false;
  exec.stop_request = exec.line != kDirect;
  program_changed();
}

void stmt_delete(const Token*& t) {
  ++t;
  std::uint32_t from, to;
  bool single;
  if (!parse_range(t, &from, &to, &single)) return;
  std::uint32_t index;
  const bool found = find_line(from, &index);
  if (single && !found) {
    raise("Undefined line number");
    return;
  }
  while (index < program.lines && line_index[index].number <= to) delete_line(index);
  // The running line's tokens are gone with the old program: a DELETE inside
  // a program ends it, as LOAD does.
  exec.stop_request = exec.running;
  exec.running = false;
}

void stmt_auto(const Token*& t) {
  ++t;
  std::uint32_t start = 10, step = 10;
  if (t->kind == '.') {
    ++t;
    start = program.edit_line == kDirect ? 0 : program.edit_line;
  } else if (t->kind == kTokNumber) {
    if (!range_end(t, &start)) return;
  }
  if (t->kind == ',') {
    ++t;
    if (!range_end(t, &step)) return;
    if (step == 0) {
      raise("Illegal function call");
      return;
    }
  }
  auto_numbering.active = true;
  auto_numbering.first = true;
  auto_numbering.number = start;
  auto_numbering.step = step;
}

void stmt_edit(const Token*& t) {
  ++t;
  std::uint32_t from, to;
  bool single;
  if (!parse_range(t, &from, &to, &single)) return;
  std::uint32_t index;
  if (!find_line(from, &index)) {
    raise("Undefined line number");
    return;
  }
  program.edit_line = from;
  char head[16];
  std::snprintf(head, sizeof head, "%u ", from);
  screen::ensure_left_column();
  screen::put_text(head);
  const char* body = line_body(index);
  for (std::uint32_t i = 0; i < line_body_length(index); ++i) screen::put_char(static_cast<std::uint8_t>(body[i]));
  edit_request = true;  // the Ready loop edits this screen line next
  suppress_prompt = true;
}

void stmt_run(const Token*& t) {
  ++t;
  if (at_statement_end(t)) {
    run_program(0);
    return;
  }
  if (t->kind == kTokNumber || t->kind == '.') {
    std::uint32_t n;
    if (!range_end(t, &n)) return;
    std::uint32_t index;
    if (!find_line(n, &index)) {
      raise("Undefined line number");
      return;
    }
    run_program(index);
    return;
  }
  std::string name;
  if (!source_name_arg(t, &name)) return;
  clear_run_state();
  if (!load_program(name)) return;
  run_program(0);
}

}  // namespace core
