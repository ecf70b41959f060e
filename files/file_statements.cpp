// OPEN, CLOSE, the "#" forms of PRINT, WRITE, INPUT and LINE INPUT, and the
// random-access statements FIELD, GET, PUT, LSET and RSET.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "core/exec.h"
#include "core/input.h"
#include "core/print.h"
#include "core/program.h"
#include "core/statements.h"
#include "files/file_functions.h"
#include "files/file_statements.h"
#include "files/file_table.h"
#include "files/state_files.h"
#include "screen/console.h"
#include "values/eval.h"
#include "values/store.h"

namespace files {

namespace {

bool fail(const char* m) {
  core::raise(m);
  return false;
}

bool is_word(const Token* t, const char* word) { return t->kind == core::kTokIdent && std::strcmp(t->name(), word) == 0; }

// The mode letter of OPEN's short form: its first character, either case.
bool mode_from_letter(const values::Value& v, std::uint8_t* mode) {
  if (v.type != values::kString) return fail("Type mismatch");
  const char c = v.s.len ? static_cast<char>(v.s.ptr[0] & ~0x20) : 0;
  switch (c) {
    case 'I': *mode = kInput; return true;
    case 'O': *mode = kOutput; return true;
    case 'A': *mode = kAppend; return true;
    case 'R': *mode = kRandom; return true;
    default: return fail("Bad file mode");
  }
}

bool record_length(const Token*& t, std::int64_t* len) {
  if (!values::eval_int64(t, len)) return false;
  if (*len < 1 || *len > kMaxRecord) return fail("Illegal function call");
  return true;
}

// --- output sink for PRINT # and WRITE # -------------------------------------

void file_put(void* ctx, std::uint8_t c) {
  put_byte(*static_cast<FileSlot*>(ctx), c);
}
std::uint32_t file_column(void* ctx) { return static_cast<FileSlot*>(ctx)->column; }

// "#n" then "," and the item list, or "#n" alone for an empty line.
FileSlot* output_target(const Token*& t) {
  ++t;  // PRINT or WRITE
  std::int64_t n;
  if (!parse_file_number(t, &n)) return nullptr;
  FileSlot* s = open_slot(n, kOutput | kAppend);
  if (!s) return nullptr;
  if (!core::at_statement_end(t) && !values::expect(t, ',', "Syntax error")) return nullptr;
  return s;
}

// --- INPUT # fields ------------------------------------------------------------

// One INPUT # field: blanks and line ends before it are skipped; a quoted
// string runs to its closing quote; an unquoted string to a comma or the
// line end (trailing blanks dropped); a number also ends at a blank. The
// delimiter after the field (a comma, or CR, LF or CR LF) is consumed.
bool read_field(FileSlot& s, bool numeric, std::string* out) {
  int c;
  do c = read_byte(s);
  while (c == ' ' || c == '\t' || c == 13 || c == 10);
  if (c < 0) return fail("Input past end");
  out->clear();
  auto end_line = [&s](int ch) {
    if (ch == 13 && peek_byte(s) == 10) (void)read_byte(s);
  };
  if (c == '"' && !numeric) {
    while ((c = read_byte(s)) >= 0 && c != '"') out->push_back(static_cast<char>(c));
    // Anything between the closing quote and the delimiter is dropped.
    while (c >= 0 && c != ',' && c != 13 && c != 10) c = read_byte(s);
    end_line(c);
    return true;
  }
  for (;;) {
    if (c < 0 || c == ',') break;
    if (c == 13 || c == 10) {
      end_line(c);
      break;
    }
    if (numeric && (c == ' ' || c == '\t')) {
      // A blank ends a number; the delimiter that follows it belongs to it.
      while ((c = peek_byte(s)) == ' ' || c == '\t') (void)read_byte(s);
      if (c == ',' || c == 13 || c == 10) end_line(read_byte(s));
      return true;
    }
    out->push_back(static_cast<char>(c));
    c = read_byte(s);
  }
  while (!out->empty() && (out->back() == ' ' || out->back() == '\t')) out->pop_back();
  return true;
}

// --- random access ---------------------------------------------------------------

bool record_number(const Token*& t, FileSlot& s, std::int64_t* rec) {
  if (t->kind != ',') {
    *rec = s.last_record + 1;
    return true;
  }
  ++t;
  if (!values::eval_int64(t, rec)) return false;
  // The byte offset must stay inside a signed 64-bit file position.
  if (*rec < 1 || *rec > (INT64_MAX / kMaxRecord)) return fail("Bad record number");
  return true;
}

// OPEN's [SHARED | LOCK READ | LOCK WRITE | LOCK READ WRITE] before AS.
bool sharing_clause(const Token*& t, host::Share* share) {
  if (is_word(t, "SHARED")) {
    ++t;
    *share = host::Share::all;
    return true;
  }
  if (!is_word(t, "LOCK")) return true;
  ++t;
  if (t->kind == core::KW_READ && t[1].kind == core::KW_WRITE) {
    t += 2;
    *share = host::Share::deny_both;
  } else if (t->kind == core::KW_READ) {
    ++t;
    *share = host::Share::deny_read;
  } else if (t->kind == core::KW_WRITE) {
    ++t;
    *share = host::Share::deny_write;
  } else {
    return fail("Syntax error");
  }
  return true;
}

FileSlot* random_target(const Token*& t, std::int64_t* rec) {
  ++t;  // GET or PUT
  std::int64_t n;
  if (!parse_file_number(t, &n)) return nullptr;
  FileSlot* s = open_slot(n, kRandom);
  if (!s || !record_number(t, *s, rec)) return nullptr;
  return s;
}

}  // namespace

// OPEN f$ [FOR mode] AS [#]n [LEN = r]   (no FOR: RANDOM)
// OPEN m$, [#]n, f$ [, r]                 (m$: I, O, A or R)
void stmt_open(const Token*& t) {
  ++t;
  values::Value first;
  if (!values::eval(t, &first)) return;
  if (first.type != values::kString) {
    core::raise("Type mismatch");
    return;
  }
  std::uint8_t mode = kRandom;
  std::int64_t n, len = kDefaultRecord;
  std::string name;
  host::Share share = host::Share::all;
  if (t->kind == ',') {
    if (!mode_from_letter(first, &mode)) return;
    ++t;
    if (!parse_file_number(t, &n) || !values::expect(t, ',', "Syntax error") || !file_name_value(t, &name)) return;
    if (t->kind == ',') {
      ++t;
      if (!record_length(t, &len)) return;
    }
  } else {
    if (!core::check_file_name(first.s.ptr, first.s.len, &name)) return;
    if (t->kind == core::KW_FOR) {
      ++t;
      if (t->kind == core::KW_INPUT) mode = kInput;
      else if (t->kind == core::KW_OUTPUT) mode = kOutput;
      else if (t->kind == core::KW_APPEND) mode = kAppend;
      else if (is_word(t, "RANDOM")) mode = kRandom;
      else {
        core::raise("Bad file mode");
        return;
      }
      ++t;
    }
    if (!sharing_clause(t, &share)) return;
    if (!values::expect(t, core::KW_AS, "Syntax error") || !parse_file_number(t, &n)) return;
    if (is_word(t, "LEN")) {
      ++t;
      if (!values::expect(t, '=', "Syntax error") || !record_length(t, &len)) return;
    }
  }
  if (!core::at_statement_end(t)) {
    core::raise("Syntax error");
    return;
  }
  (void)open_file(n, mode, name, static_cast<std::uint32_t>(len), share);
}

// CLOSE closes every file; CLOSE [#]n[, [#]n...] the ones named (a number
// that is not open is no error).
void stmt_close(const Token*& t) {
  ++t;
  if (core::at_statement_end(t)) {
    for (int i = 1; i <= kMaxFiles; ++i)
      if (!close_file(i)) return;
    return;
  }
  for (;;) {
    std::int64_t n;
    if (!parse_file_number(t, &n) || !close_file(n)) return;
    if (t->kind != ',') break;
    ++t;
  }
}

void print_to_file(const Token*& t) {
  FileSlot* s = output_target(t);
  if (!s) return;
  core::OutSink out{file_put, file_column, s->width, s};
  core::print_list(t, out);
  (void)check_write(*s);
}

void write_to_file(const Token*& t) {
  FileSlot* s = output_target(t);
  if (!s) return;
  core::OutSink out{file_put, file_column, 0, s};
  core::write_list(t, out);
  (void)check_write(*s);
}

// INPUT #n, v[, v...]
void input_from_file(const Token*& t) {
  std::int64_t n;
  if (!parse_file_number(t, &n)) return;
  FileSlot* s = open_slot(n, kInput);
  if (!s || !values::expect(t, ',', "Syntax error")) return;
  std::string text;
  for (;;) {
    values::LValue lv;
    if (!values::parse_lvalue(t, &lv)) return;
    const bool numeric = lv.type != values::kString;
    if (!read_field(*s, numeric, &text)) return;
    values::Value v;
    if (!core::field_value(text.data(), static_cast<std::uint32_t>(text.size()), lv.type, &v)) {
      core::raise("Type mismatch");
      return;
    }
    if (!values::assign(lv, v)) return;
    if (t->kind != ',') break;
    ++t;
  }
  if (!core::at_statement_end(t)) core::raise("Syntax error");
}

// LINE INPUT #n, v$: the rest of the line, without its CR, LF or CR LF.
void line_input_from_file(const Token*& t) {
  std::int64_t n;
  if (!parse_file_number(t, &n)) return;
  FileSlot* s = open_slot(n, kInput);
  if (!s || !values::expect(t, ',', "Syntax error")) return;
  values::LValue lv;
  if (!values::parse_lvalue(t, &lv)) return;
  if (lv.type != values::kString || lv.component >= 0) {
    core::raise("Type mismatch");
    return;
  }
  std::string text;
  if (!read_line(*s, &text)) {
    core::raise("Input past end");
    return;
  }
  values::Value v = values::Value::string(text.data(), static_cast<std::uint32_t>(text.size()));
  (void)values::assign(lv, v);
}

// FIELD [#]n, w AS v$[, w AS v$...]: the variables become windows on the
// record buffer, in order from its first byte.
void stmt_field(const Token*& t) {
  ++t;
  std::int64_t n;
  if (!parse_file_number(t, &n)) return;
  FileSlot* s = open_slot(n, kRandom);
  if (!s) return;
  std::uint64_t offset = 0;
  while (t->kind == ',') {
    ++t;
    std::int64_t w;
    if (!values::eval_int64(t, &w)) return;
    if (w < 0 || w > kMaxRecord) {
      core::raise("Illegal function call");
      return;
    }
    if (!values::expect(t, core::KW_AS, "Syntax error")) return;
    values::LValue lv;
    if (!values::parse_lvalue(t, &lv)) return;
    if (lv.type != values::kString || lv.component >= 0) {
      core::raise("Type mismatch");
      return;
    }
    if (offset + static_cast<std::uint64_t>(w) > s->reclen) {
      core::raise("Field overflow");
      return;
    }
    const values::StringDesc d{static_cast<std::uint32_t>(w), 0, s->record + offset};
    std::memcpy(lv.slot, &d, sizeof d);
    offset += static_cast<std::uint64_t>(w);
  }
  if (!core::at_statement_end(t)) core::raise("Syntax error");
}

// GET [#]n[, rec]: read a record into the buffer. A record that reaches past
// the end of the file is completed with zero bytes and EOF becomes true.
void stmt_get(const Token*& t) {
  std::int64_t rec;
  FileSlot* s = random_target(t, &rec);
  if (!s) return;
  if (!host::seek_file(s->f, (rec - 1) * s->reclen)) {
    core::raise("Disk I/O error");
    return;
  }
  const std::size_t got = std::fread(s->record, 1, s->reclen, s->f);
  if (got < s->reclen) {
    if (std::ferror(s->f)) {
      std::clearerr(s->f);
      core::raise("Disk I/O error");
      return;
    }
    std::clearerr(s->f);
    std::memset(s->record + got, 0, s->reclen - got);
  }
  s->past_end = got < s->reclen;
  s->last_record = rec;
}

// PUT [#]n[, rec]: write the buffer as that record (a gap before it reads as zeros).
void stmt_put(const Token*& t) {
  std::int64_t rec;
  FileSlot* s = random_target(t, &rec);
  if (!s) return;
  if (!host::seek_file(s->f, (rec - 1) * s->reclen) || std::fwrite(s->record, 1, s->reclen, s->f) != s->reclen) {
    std::clearerr(s->f);
    core::raise("Disk I/O error");
    return;
  }
  s->past_end = false;
  s->last_record = rec;
}

// RESET: close every file (as CLOSE alone does).
void stmt_reset(const Token*& t) {
  ++t;
  if (!core::at_statement_end(t)) {
    core::raise("Syntax error");
    return;
  }
  for (int i = 1; i <= kMaxFiles; ++i)
    if (!close_file(i)) return;
}

namespace {

// LOCK/UNLOCK [#]n [, rec | , [first] TO last]: records of a random file, the
// whole file otherwise (and for a sequential file always).
bool lock_statement(const Token*& t, bool lock) {
  ++t;
  std::int64_t n;
  if (!parse_file_number(t, &n)) return false;
  FileSlot* s = open_slot(n, kInput | kOutput | kAppend | kRandom);
  if (!s) return false;
  constexpr std::int64_t kWholeFile = INT64_MAX / 2;
  std::int64_t first = 1, last = 0;
  bool whole = true;
  if (t->kind == ',') {
    ++t;
    whole = false;
    if (t->kind != core::KW_TO && !values::eval_int64(t, &first)) return false;
    last = first;
    if (t->kind == core::KW_TO) {
      ++t;
      if (!values::eval_int64(t, &last)) return false;
    }
    if (first < 1 || last < first || last > INT64_MAX / kMaxRecord) return fail("Bad record number");
  }
  if (!core::at_statement_end(t)) return fail("Syntax error");
  FileSlot::Range r{0, kWholeFile};
  if (!whole && s->mode == kRandom) r = {(first - 1) * s->reclen, (last - first + 1) * s->reclen};
  if (s->mode == kOutput || s->mode == kAppend) (void)flush_output(*s);  // bytes before the lock reach the file
  auto held = std::find_if(s->locks.begin(), s->locks.end(),
                           [&r](const FileSlot::Range& h) { return h.start == r.start && h.length == r.length; });
  if (lock) {
    // Another program's lock on any of the bytes refuses this one.
    if (!host::lock_range(s->f, r.start, r.length, true)) return fail("Permission denied");
    if (held == s->locks.end()) s->locks.push_back(r);
    return true;
  }
  // UNLOCK names a range exactly as its LOCK did.
  if (held == s->locks.end() || !host::lock_range(s->f, r.start, r.length, false)) return fail("Permission denied");
  s->locks.erase(held);
  return true;
}

}  // namespace

void stmt_lock(const Token*& t) { (void)lock_statement(t, true); }
void stmt_unlock(const Token*& t) { (void)lock_statement(t, false); }

// WIDTH #n, w: PRINT # to that file starts a new line after w columns (0 or
// 255: never). WIDTH w: PRINT to the console does the same within the text
// region (255: at the region's edge only).
void stmt_width(const Token*& t) {
  ++t;
  const bool file = t->kind == '#';
  std::int64_t n = 0, w;
  if (file && (!parse_file_number(t, &n) || !values::expect(t, ',', "Syntax error"))) return;
  if (!values::eval_int64(t, &w)) return;
  if (!core::at_statement_end(t)) {
    core::raise("Syntax error");
    return;
  }
  if (w < (file ? 0 : 1) || w > 255) {
    core::raise("Illegal function call");
    return;
  }
  const std::uint32_t width = w == 255 ? 0 : static_cast<std::uint32_t>(w);
  if (!file) {
    screen::con.print_width = width;
    return;
  }
  FileSlot* s = open_slot(n, kOutput | kAppend | kRandom);
  if (s) s->width = width;
}

extern bool keep_files_once;

namespace {

// END, CLEAR, NEW, RUN and LOAD end the program's hold on files and session
// locks; the clear that CHAIN's next program starts with keeps both.
void close_everything() {
  if (keep_files_once) {
    keep_files_once = false;
    return;
  }
  close_all();
  release_session_locks();
}

}  // namespace

void install_hooks() {
  core::close_all_files = close_everything;
  core::flush_files = flush_all;
  core::print_file_hook = print_to_file;
  core::write_file_hook = write_to_file;
  core::input_from_file = input_from_file;
  core::line_input_from_file = line_input_from_file;
  core::file_input_chars = input_chars;
}

}  // namespace files
