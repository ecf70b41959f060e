// EOF, LOC, LOF, FILEATTR, DRIVETYPE, DRIVEPATH$ and FILECRC; the file side of INPUT$.
#include "files/file_functions.h"

#include <string>

#include "core/errors.h"
#include "core/program.h"
#include "files/file_table.h"
#include "host/platform.h"
#include "screen/snapshot.h"
#include "values/eval.h"

namespace files {

namespace {

using core::Token;
using values::Value;

bool fail(const char* m) {
  core::raise(m);
  return false;
}

// "(" [#]n ")" naming an open file whose mode is in `modes`.
FileSlot* file_arg(const Token*& t, std::uint8_t modes) {
  if (!values::expect(t, '(', "Expected (")) return nullptr;
  std::int64_t n;
  if (!parse_file_number(t, &n) || !values::expect(t, ')', "Expected )")) return nullptr;
  return open_slot(n, modes);
}

// EOF(n): INPUT files: no byte (or a Ctrl-Z) comes next; RANDOM files: the
// last GET reached past the end.
bool f_eof(const Token*& t, Value* out) {
  FileSlot* s = file_arg(t, kInput | kRandom);
  if (!s) return false;
  const bool end = s->mode == kRandom ? s->past_end : peek_byte(*s) < 0;
  *out = Value::integer(end ? -1 : 0);
  return true;
}

// LOC(n): RANDOM files: the last record read or written; sequential files:
// the byte position divided by 128, as classic BASIC counts.
bool f_loc(const Token*& t, Value* out) {
  FileSlot* s = file_arg(t, kInput | kOutput | kAppend | kRandom);
  if (!s) return false;
  const std::int64_t v = s->mode == kRandom ? s->last_record : position(*s) / 128;
  *out = Value::integer(v, values::kInt64);
  return true;
}

bool f_lof(const Token*& t, Value* out) {
  FileSlot* s = file_arg(t, kInput | kOutput | kAppend | kRandom);
  if (!s) return false;
  if (s->mode != kInput && !flush_output(*s)) return fail("Disk I/O error");
  const std::int64_t pos = host::tell_file(s->f);
  const std::int64_t len = host::file_length(s->f);
  if (len < 0 || (s->mode == kInput && pos >= 0 && !host::seek_file(s->f, pos))) return fail("Disk I/O error");
  *out = Value::integer(len, values::kInt64);
  return true;
}

// FILEATTR(n, 1): the mode (1 INPUT, 2 OUTPUT, 4 RANDOM, 8 APPEND);
// FILEATTR(n, 2): the system's handle of the file.
bool f_fileattr(const Token*& t, Value* out) {
  if (!values::expect(t, '(', "Expected (")) return false;
  std::int64_t n, which;
  if (!parse_file_number(t, &n) || !values::expect(t, ',', "Expected ,") || !values::eval_int64(t, &which) ||
      !values::expect(t, ')', "Expected )"))
    return false;
  FileSlot* s = open_slot(n, kInput | kOutput | kAppend | kRandom);
  if (!s) return false;
  if (which == 1) *out = Value::integer(s->mode);
  else if (which == 2) *out = Value::integer(host::os_file_handle(s->f), values::kInt64);
  else return fail("Illegal function call");
  return true;
}

bool string_arg(const Token*& t, std::string* out) {
  Value a;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_string(a)) return false;
  out->assign(a.s.ptr, a.s.len);
  return true;
}

// DRIVETYPE(d$): 0 unknown, 1 no such drive, 2 removable, 3 fixed, 4 network, 5 CD-ROM, 6 RAM disk.
bool f_drivetype(const Token*& t, Value* out) {
  std::string d;
  if (!string_arg(t, &d)) return false;
  *out = Value::integer(host::drive_kind(d));
  return true;
}

// DRIVEPATH$(d$): the current directory on drive d$ ("" the current drive).
bool f_drivepath(const Token*& t, Value* out) {
  std::string d;
  if (!string_arg(t, &d)) return false;
  const std::string path = host::drive_current_directory(d);
  if (path.empty()) return fail("Path not found");
  return values::make_string(path.data(), path.size(), out);
}

// FILECRC(f$): the CRC-32 of the file's bytes (the CRC32 function's polynomial).
bool f_filecrc(const Token*& t, Value* out) {
  Value a;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_string(a)) return false;
  std::string name;
  if (!core::check_file_name(a.s.ptr, a.s.len, &name)) return false;
  if (host::path_kind(name) != 1) return fail("File not found");
  std::FILE* f = host::open_file(name, "rb");
  if (!f) return fail("Permission denied");
  std::uint32_t crc = 0;
  static std::uint8_t block[1 << 16];
  std::size_t got;
  while ((got = std::fread(block, 1, sizeof block, f)) > 0) crc = screen::crc32(block, got, crc);
  const bool bad = std::ferror(f) != 0;
  std::fclose(f);
  if (bad) return fail("Disk I/O error");
  *out = Value::integer(crc, values::kInt64);
  return true;
}

const values::Builtin kRows[] = {
    {"EOF", f_eof},           {"LOC", f_loc},           {"LOF", f_lof},
    {"FILEATTR", f_fileattr}, {"DRIVETYPE", f_drivetype},
    {"DRIVEPATH$", f_drivepath}, {"FILECRC", f_filecrc},
};

}  // namespace

bool input_chars(std::int64_t file_number, std::int64_t count, Value* out) {
  FileSlot* s = open_slot(file_number, kInput);
  if (!s) return false;
  if (count < 0 || count > 0x7FFFFFFF) return fail("Illegal function call");
  std::string text(static_cast<std::size_t>(count), '\0');
  // Raw bytes: line ends and Ctrl-Z are data here.
  const std::size_t got = read_bytes(*s, text.data(), text.size());
  if (got < text.size()) {
    std::clearerr(s->f);
    return fail("Input past end");
  }
  return values::make_string(text.data(), text.size(), out);
}

const values::BuiltinGroup& file_builtins() {
  static const values::BuiltinGroup group{kRows, static_cast<int>(sizeof kRows / sizeof kRows[0])};
  return group;
}

}  // namespace files
