// INPUT, LINE INPUT, INPUT$, READ/DATA/RESTORE and the field rules they share.
#include "core/input.h"

#include <cstring>

#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "core/numscan.h"
#include "core/program.h"
#include "core/statements.h"
#include "host/shell.h"
#include "screen/console.h"
#include "screen/keyqueue.h"
#include "screen/lineedit.h"
#include "values/builtins.h"
#include "values/ops.h"
#include "values/store.h"
#include "values/strings.h"

namespace core {


bool field_value(const char* p, std::uint32_t n, std::uint8_t type, values::Value* out) {
  if (type == values::kString) {
    *out = values::Value::string(const_cast<char*>(p), n);
    return true;
  }
  std::uint32_t i = 0;
  while (i < n && (p[i] == ' ' || p[i] == '\t')) ++i;
  while (n > i && (p[n - 1] == ' ' || p[n - 1] == '\t')) --n;
  if (i == n) {  // an empty numeric field reads as 0
    *out = values::Value::integer(0);
    return true;
  }
  char buf[512];
  bool negative = false;
  if (p[i] == '+' || p[i] == '-') negative = p[i++] == '-';
  const std::uint32_t len = n - i;
  if (len == 0 || len >= sizeof buf) return false;
  std::memcpy(buf, p + i, len);
  buf[len] = 0;
  const bool starts = (buf[0] >= '0' && buf[0] <= '9') || (buf[0] == '.' && buf[1] >= '0' && buf[1] <= '9') ||
                      (buf[0] == '&' && ((buf[1] & ~0x20) == 'H' || (buf[1] & ~0x20) == 'O'));
  if (!starts) return false;
  // The scanner's own errors are not this caller's: a bad number is just "not a number".
  const bool silent = err.silent;
  err.silent = true;
  NumberLiteral lit;
  const char* end = scan_number(buf, &lit);
  err.silent = silent;
  if (!end || *end != 0) return false;
  const bool based = buf[0] == '&';
  if (lit.type <= values::kInt64) {
    *out = values::Value::integer(negative ? -lit.i : lit.i, lit.type);
  } else if (!based && type != values::kSingle) {
    // Typed or DATA numbers are rounded once, to the target's own type: a
    // DOUBLE gets the binary64 nearest to the text, not a widened SINGLE.
    *out = values::Value::floating(negative ? -lit.nearest : lit.nearest, values::kDouble);
  } else {
    *out = values::Value::floating(negative ? -lit.d : lit.d, lit.type);
  }
  return true;
}

void next_field(const char*& p, const char* e, const char** start, std::uint32_t* len, bool* quoted) {
  while (p < e && (*p == ' ' || *p == '\t')) ++p;
  *quoted = p < e && *p == '"';
  if (*quoted) {
    const char* s = ++p;
    while (p < e && *p != '"') ++p;
    *start = s;
    *len = static_cast<std::uint32_t>(p - s);
    if (p < e) ++p;  // closing quote
    while (p < e && *p != ',') ++p;  // anything up to the comma is ignored
  } else {
    const char* s = p;
    while (p < e && *p != ',') ++p;
    const char* f = p;
    while (f > s && (f[-1] == ' ' || f[-1] == '\t')) --f;
    *start = s;
    *len = static_cast<std::uint32_t>(f - s);
  }
  if (p < e && *p == ',') ++p;
}

}  // namespace core

namespace core {

namespace {

using values::Value;

// The line editor's answer for one console line: false when abandoned (Esc
// pauses the program, a closing window stops it).
bool read_console_line(char* buf, int cap, bool keep_cursor, int* len) {
  *len = screen::line_edit(buf, cap, keep_cursor ? static_cast<std::uint32_t>(screen::kEditKeepCursor) : 0u);
  if (*len < 0) {
    break_at_statement();
    return false;
  }
  return true;
}

// [;]["prompt"{;|,}] as INPUT and LINE INPUT take it. `question` tells
// whether "? " follows the prompt.
bool parse_prompt(const Token*& t, bool* keep, Value* prompt, bool* question) {
  *keep = false;
  if (t->kind == ';') {
    *keep = true;
    ++t;
  }
  prompt->type = values::kNoType;
  *question = true;
  if (t->kind == kTokString) {
    *prompt = Value::string(const_cast<char*>(t->str_ptr()), t->str_len());
    ++t;
    if (t->kind == ',') *question = false;
    else if (t->kind != ';') {
      raise("Syntax error");
      return false;
    }
    ++t;
  }
  return true;
}

void show_prompt(const Value& prompt, bool question) {
  if (prompt.type == values::kString)
    for (std::uint32_t i = 0; i < prompt.s.len; ++i) screen::put_char(static_cast<std::uint8_t>(prompt.s.ptr[i]));
  if (question) screen::put_text("? ");
}

}  // namespace

void stmt_input(const Token*& t) {
  ++t;  // INPUT
  if (t->kind == '#') {
    if (input_from_file) input_from_file(t);
    else raise("Bad file number");
    return;
  }
  bool keep, question;
  Value prompt;
  if (!parse_prompt(t, &keep, &prompt, &question)) return;
  const Token* vars = t;
  for (;;) {
    show_prompt(prompt, prompt.type == values::kNoType || question);
    char line[257];
    int len;
    if (!read_console_line(line, sizeof line, keep, &len)) return;
    // Split the line into fields, then convert every one before anything is
    // stored: a bad line changes nothing and is typed again.
    struct Field {
      const char* start;
      std::uint32_t len;
      bool quoted;
    };
    Field fields[65];
    int nf = 0;
    const char* p = line;
    const char* e = line + len;
    for (;;) {
      Field& f = fields[nf++];
      next_field(p, e, &f.start, &f.len, &f.quoted);
      if (p >= e || nf == 65) break;
    }
    if (nf < 65 && len > 0 && e[-1] == ',') fields[nf++] = {e, 0, false};  // a trailing comma: one more, empty
    values::LValue targets[64];
    Value vals[64];
    int n = 0;
    bool ok = true;
    t = vars;
    for (;;) {
      if (n == 64) {
        raise("Syntax error");
        return;
      }
      values::LValue& lv = targets[n];
      if (!values::parse_lvalue(t, &lv)) return;
      const std::uint8_t type = lv.component >= 0 ? static_cast<std::uint8_t>(values::kDouble) : lv.type;
      if (n >= nf || type == values::kHyper || (fields[n].quoted && type != values::kString) ||
          !field_value(fields[n].start, fields[n].len, type, &vals[n]))
        ok = false;
      ++n;
      if (t->kind != ',') break;
      ++t;
    }
    if (n != nf) ok = false;
    if (ok) {
      for (int i = 0; i < n && ok; ++i) {
        if (!values::assign(targets[i], vals[i])) {
          clear_error_flag();  // an out-of-range number is bad input, not a program error
          ok = false;
        }
      }
      if (ok) return;
    }
    screen::ensure_left_column();
    screen::put_line("?Redo from start");
  }
}

void stmt_line(const Token*& t) {
  if (t[1].kind != KW_INPUT) {
    if (line_graphics) {
      line_graphics(t);
      return;
    }
    raise("Syntax error");
    return;
  }
  t += 2;  // LINE INPUT
  if (t->kind == '#') {
    if (line_input_from_file) line_input_from_file(t);
    else raise("Bad file number");
    return;
  }
  bool keep, question;
  Value prompt;
  if (!parse_prompt(t, &keep, &prompt, &question)) return;
  values::LValue target;
  if (!values::parse_lvalue(t, &target)) return;
  if (target.type != values::kString || target.component >= 0) {
    raise("Type mismatch");
    return;
  }
  show_prompt(prompt, false);
  char line[257];
  int len;
  if (!read_console_line(line, sizeof line, keep, &len)) return;
  (void)values::assign(target, Value::string(line, static_cast<std::uint32_t>(len)));
}

void (*input_from_file)(const Token*& t) = nullptr;
void (*line_input_from_file)(const Token*& t) = nullptr;
void (*line_graphics)(const Token*& t) = nullptr;

// --- DATA / READ / RESTORE ----------------------------------------------------

namespace {

// The DATA pointer: a line index and a byte offset into its stored text.
std::uint32_t data_line = 0;
std::uint32_t data_offset = 0;
bool data_in_statement = false;  // the offset is inside a DATA statement's items

// Find the next DATA item at or after the pointer; false at the end of the program.
bool seek_data(const char** item, const char** line_end) {
  while (data_line < program.lines) {
    const char* body = line_body(data_line);
    const std::uint32_t len = line_body_length(data_line);
    if (data_in_statement && data_offset <= len) {
      *item = body + data_offset;
      *line_end = body + len;
      return true;
    }
    // Look for the next DATA statement in this line by its tokens.
    const Token* toks = line_tokens(data_line);
    if (!toks) return false;
    bool found = false;
    for (const Token* k = toks; k->kind != kTokEnd; ++k) {
      if (k->kind == KW_DATA && k->column >= data_offset) {
        data_offset = k->column + 4u;
        data_in_statement = true;
        found = true;
        break;
      }
    }
    if (found) continue;
    ++data_line;
    data_offset = 0;
    data_in_statement = false;
  }
  return false;
}

void restore_to(std::uint32_t index) {
  data_line = index;
  data_offset = 0;
  data_in_statement = false;
}

void restore_start() { restore_to(0); }

}  // namespace

void stmt_data(const Token*& t) {
  // Executing DATA does nothing: READ reads its items from the line text.
  while (t->kind != kTokEnd && t->kind != ':') ++t;
}

void stmt_read(const Token*& t) {
  ++t;
  for (;;) {
    values::LValue target;
    if (!values::parse_lvalue(t, &target)) return;
    const char* p;
    const char* end;
    if (!seek_data(&p, &end)) {
      if (!err.flag) raise("Out of DATA");
      return;
    }
    // An item runs to a comma, or to a colon or the end of the line (which
    // also ends the DATA statement); quoted items may hold both.
    const char* body = line_body(data_line);
    while (p < end && (*p == ' ' || *p == '\t')) ++p;
    const char* start = p;
    std::uint32_t n;
    bool quoted = p < end && *p == '"';
    if (quoted) {
      start = ++p;
      while (p < end && *p != '"') ++p;
      n = static_cast<std::uint32_t>(p - start);
      if (p < end) ++p;
      while (p < end && *p != ',' && *p != ':') ++p;
    } else {
      while (p < end && *p != ',' && *p != ':') ++p;
      const char* f = p;
      while (f > start && (f[-1] == ' ' || f[-1] == '\t')) --f;
      n = static_cast<std::uint32_t>(f - start);
    }
    if (p < end && *p == ',') {
      ++p;
      data_offset = static_cast<std::uint32_t>(p - body);
    } else {
      data_offset = static_cast<std::uint32_t>(p - body);
      data_in_statement = false;  // the statement's items are used up
    }
    const std::uint8_t type = target.component >= 0 ? static_cast<std::uint8_t>(values::kDouble) : target.type;
    Value v;
    if (type != values::kString && quoted) {
      raise("Type mismatch");
      err.line = line_index[data_line].number;
      err.line_recorded = true;
      return;
    }
    if (type == values::kHyper || !field_value(start, n, type, &v)) {
      raise("Syntax error");
      err.line = line_index[data_line].number;  // the DATA line is the one to fix
      err.line_recorded = true;
      return;
    }
    if (!values::assign(target, v)) return;
    if (t->kind != ',') return;
    ++t;
  }
}

void stmt_restore(const Token*& t) {
  ++t;
  if (at_statement_end(t)) {
    restore_start();
    return;
  }
  std::uint32_t n;
  if (!eval_line_number(t, &n)) return;
  std::uint32_t index;
  if (!find_line(n, &index)) {
    raise("Undefined line number");
    return;
  }
  restore_to(index);
}

void install_data_hooks() { restore_data = restore_start; }

// --- INPUT$ -------------------------------------------------------------------

namespace {

// INPUT$(n) from the keyboard, INPUT$(n, [#]f) from a file.
bool f_input_chars(const Token*& t, Value* out) {
  if (!values::expect(t, '(', "Expected (")) return false;
  std::int64_t count;
  if (!values::eval_int64(t, &count)) return false;
  bool from_file = false;
  std::int64_t file = 0;
  if (t->kind == ',') {
    ++t;
    if (t->kind == '#') ++t;
    if (!values::eval_int64(t, &file)) return false;
    from_file = true;
  }
  if (!values::expect(t, ')', "Expected )")) return false;
  // A file can give a whole string's worth; the keyboard at most a line's.
  if (count < 1 || count > (from_file ? 0x7FFFFFFFll : 32767ll)) {
    raise("Illegal function call");
    return false;
  }
  if (from_file) {
    if (!file_input_chars) {
      raise("Bad file number");
      return false;
    }
    return file_input_chars(file, count, out);
  }
  // From the keyboard, without echo; extended keys give their scan code.
  char* p = values::string_temp(static_cast<std::uint32_t>(count));
  if (!p) return false;
  for (std::int64_t i = 0; i < count; ++i) {
    screen::KeyEntry k;
    if (!screen::keys.wait(&k)) {
      break_at_statement();
      return false;
    }
    const std::uint16_t code = k.code & 0xFF;
    if (code == screen::kKeyEsc) {
      break_at_statement();
      return false;
    }
    if (code == screen::kKeyDebugger) {
      screen::keys.debugger_request.store(0);
      --i;
      continue;
    }
    p[i] = code ? static_cast<char>(screen::scan_code_for(code)) : static_cast<char>(k.ch);
  }
  *out = Value::string(p, static_cast<std::uint32_t>(count));
  return true;
}

const values::Builtin kInputFunctions[] = {
    {"INPUT$", f_input_chars},
};

}  // namespace

bool (*file_input_chars)(std::int64_t file, std::int64_t count, values::Value* out) = nullptr;

const values::BuiltinGroup& input_builtins() {
  static const values::BuiltinGroup group{kInputFunctions, 1};
  return group;
}

}  // namespace core
