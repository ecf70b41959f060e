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

void (*input_file_hook)(const Token*& t) = nullptr;
void (*line_input_file_hook)(const Token*& t) = nullptr;
bool (*input_chars_hook)(std::int64_t file_number, std::int64_t count, values::Value* out) = nullptr;

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
  if (lit.type <= values::kInt64) {
    *out = values::Value::integer(negative ? -lit.i : lit.i, lit.type);
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
