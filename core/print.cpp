// PRINT: expressions separated by ";" and ",", TAB() and SPC(), numbers with
// their sign position and a trailing blank.
#include <cstring>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/statements.h"
#include "screen/console.h"
#include "values/eval.h"
#include "values/ops.h"

namespace core {

namespace {

constexpr std::uint32_t kZoneWidth = 14;

void put_bytes(const char* p, std::uint32_t n) {
  for (std::uint32_t i = 0; i < n; ++i) screen::put_char(static_cast<std::uint8_t>(p[i]));
}

std::uint32_t column() { return screen::con.col - screen::text_region().left; }
std::uint32_t width() {
  const screen::Region r = screen::text_region();
  return r.right - r.left + 1;
}

void next_zone() {
  const std::uint32_t next = (column() / kZoneWidth + 1) * kZoneWidth;
  if (next >= width()) {
    screen::put_char(13);
    return;
  }
  while (column() < next) screen::put_char(' ');
}

bool is_print_end(const Token* t) { return t->kind == kTokEnd || t->kind == ':' || t->kind == KW_ELSE; }

}  // namespace

void stmt_print(const Token*& t) {
  ++t;  // PRINT or ?
  bool newline = true;
  while (!is_print_end(t)) {
    newline = true;
    if (t->kind == ';') {
      ++t;
      newline = false;
      continue;
    }
    if (t->kind == ',') {
      ++t;
      next_zone();
      newline = false;
      continue;
    }
    if (t->kind == kTokIdent && t[1].kind == '(' &&
        (std::strcmp(t->name(), "TAB") == 0 || std::strcmp(t->name(), "SPC") == 0)) {
      const bool tab = t->name()[0] == 'T';
      t += 2;
      std::int64_t n;
      if (!values::eval_int64(t, &n) || !values::expect(t, ')', "Expected )")) return;
      if (tab) {
        // TAB(n) moves to column n (1-based) of the region, on the next line if passed.
        if (n < 1) n = 1;
        const std::uint32_t target = static_cast<std::uint32_t>((n - 1) % width());
        if (column() > target) screen::put_char(13);
        while (column() < target) screen::put_char(' ');
      } else {
        for (std::int64_t i = 0; i < n; ++i) screen::put_char(' ');
      }
      newline = false;
      if (t->kind == ';') ++t;
      continue;
    }
    values::Value v;
    if (!values::eval(t, &v)) return;
    if (v.type == values::kString) {
      put_bytes(v.s.ptr, v.s.len);
    } else {
      char buf[512];
      std::uint32_t n = values::number_to_text(v, buf);
      buf[n++] = ' ';
      put_bytes(buf, n);
    }
    if (!is_print_end(t) && t->kind != ';' && t->kind != ',') {
      raise("Syntax error");
      return;
    }
  }
  if (newline) screen::put_char(13);
}

}  // namespace core
