// Built-in functions (the FUNCTIONS group and the memory and system ones)
// and the pseudo-variables that read live state.
#include "values/builtins.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/errors.h"
#include "core/input.h"
#include "core/numscan.h"
#include "core/tokenizer.h"
#include "files/file_functions.h"
#include "host/platform.h"
#include "net/net.h"
#include "sound/sound.h"
#include "host/shell.h"
#include "host/sysinfo.h"
#include "host/ui.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/graphics_statements.h"
#include "screen/keyqueue.h"
#include "screen/screen_statements.h"
#include "screen/snapshot.h"
#include "tools/tools.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/hyper.h"
#include "values/mathlib.h"
#include "values/memory.h"
#include "values/numtext.h"
#include "values/ops.h"
#include "values/rnd.h"
#include "values/store.h"
#include "values/strings.h"

namespace values {

int eval_depth = 0;
std::int64_t timer_interval_ms[8] = {};

namespace {

using core::Token;

bool fail(const char* m) {
  core::raise(m);
  return false;
}

// "(" a1, ..., an ")" with min <= n <= max.
bool args(const Token*& t, Value* a, int min, int max, int* count = nullptr) {
  if (!expect(t, '(', "Expected (")) return false;
  int n = 0;
  if (!(t->kind == ')' && min == 0)) {
    for (;;) {
      if (n == max) return fail("Expected )");
      if (!eval(t, &a[n])) return false;
      ++n;
      if (t->kind != ',') break;
      ++t;
    }
  }
  if (n < min) return fail(t->kind == ')' ? "Expected ," : "Expected )");
  if (!expect(t, ')', "Expected )")) return false;
  if (count) *count = n;
  return true;
}

bool as_int(const Value& v, std::int64_t* out) {
  if (v.type == kString || v.type == kHyper) return fail("Type mismatch");
  return value_to_int64(v, out);
}

bool as_num(const Value& v, double* out) { return value_to_double(v, out); }

bool as_str(const Value& v) {
  if (v.type != kString) return fail("Type mismatch");
  return true;
}

bool status(MathStatus s) {
  switch (s) {
    case MathStatus::Ok: return true;
    case MathStatus::Overflow: return fail("Overflow");
    case MathStatus::IllegalFunctionCall: return fail("Illegal function call");
    case MathStatus::DivisionByZero: return fail("Division by zero");
  }
  return false;
}

// One argument, a number or (where the function supports it) an @ value.
bool one_arg(const Token*& t, Value* a) { return args(t, a, 1, 1); }

using RealFn = MathStatus (*)(double, double*);

bool elementary(const Value& a, Value* out, RealFn fn, const char* hyper_name) {
  if (a.type == kHyper) {
    if (!hyper_name) return fail("Type mismatch");
    Hyper h;
    if (!hyper_function(hyper_name, a.h, &h)) return false;
    out->type = kHyper;
    out->h = h;
    return true;
  }
  double x, r;
  if (!as_num(a, &x) || !status(fn(x, &r))) return false;
  return make_float(r, float_result_type(a.type), out);
}

bool absolute(const Value& a, Value* out) {
  if (a.type == kHyper) {
    double r;
    (void)m_sqr(hyper_norm2(a.h), &r);
    return make_float(r, kDouble, out);
  }
  if (is_integer_type(a.type)) {
    if (a.i == INT64_MIN) return fail("Overflow");
    return make_int(a.i < 0 ? -a.i : a.i, a.type, out);
  }
  if (a.type == kString) return fail("Type mismatch");
  *out = Value::floating(a.d < 0 ? -a.d : (a.d == 0 ? 0.0 : a.d), a.type);
  return true;
}

bool rounding(const Value& a, Value* out, double (*fn)(double)) {
  if (is_integer_type(a.type)) {
    *out = a;
    return true;
  }
  if (a.type != kSingle && a.type != kDouble) return fail("Type mismatch");
  *out = Value::floating(fn(a.d), a.type);
  return true;
}

bool convert(const Value& a, Value* out, std::uint8_t type) {
  if (!is_numeric_type(a.type)) return fail("Type mismatch");
  std::uint8_t slot[8];
  if (!store_value(slot, type, a)) return false;
  *out = load_value(slot, type);
  return true;
}

template <NumFn F>
bool numeric_builtin(const Token*& t, Value* out) {
  Value a;
  return one_arg(t, &a) && numeric_function(F, a, out);
}

constexpr auto f_sin = numeric_builtin<NumFn::Sin>;
constexpr auto f_cos = numeric_builtin<NumFn::Cos>;
constexpr auto f_tan = numeric_builtin<NumFn::Tan>;
constexpr auto f_atn = numeric_builtin<NumFn::Atn>;
constexpr auto f_exp = numeric_builtin<NumFn::Exp>;
constexpr auto f_log = numeric_builtin<NumFn::Log>;
constexpr auto f_sqr = numeric_builtin<NumFn::Sqr>;
constexpr auto f_sinh = numeric_builtin<NumFn::Sinh>;
constexpr auto f_cosh = numeric_builtin<NumFn::Cosh>;
constexpr auto f_tanh = numeric_builtin<NumFn::Tanh>;
constexpr auto f_abs = numeric_builtin<NumFn::Abs>;
constexpr auto f_sgn = numeric_builtin<NumFn::Sgn>;
constexpr auto f_int = numeric_builtin<NumFn::Int>;
constexpr auto f_fix = numeric_builtin<NumFn::Fix>;
constexpr auto f_cint = numeric_builtin<NumFn::Cint>;
constexpr auto f_csng = numeric_builtin<NumFn::Csng>;
constexpr auto f_cdbl = numeric_builtin<NumFn::Cdbl>;

bool f_len(const Token*& t, Value* out) {
  Value a;
  if (!one_arg(t, &a) || !as_str(a)) return false;
  *out = Value::integer(a.s.len, kLong);
  return true;
}

bool f_asc(const Token*& t, Value* out) {
  Value a;
  if (!one_arg(t, &a) || !as_str(a)) return false;
  if (a.s.len == 0) return fail("Illegal function call");
  *out = Value::integer(static_cast<unsigned char>(a.s.ptr[0]));
  return true;
}

bool f_chr(const Token*& t, Value* out) {
  Value a;
  std::int64_t n;
  if (!one_arg(t, &a) || !as_int(a, &n)) return false;
  if (n < 0 || n > 255) return fail("Illegal function call");
  const char c = static_cast<char>(n);
  return make_string(&c, 1, out);
}

bool f_str(const Token*& t, Value* out) {
  Value a;
  if (!one_arg(t, &a)) return false;
  if (a.type == kString) return fail("Type mismatch");
  char buf[512];
  const std::uint32_t n = number_to_text(a, buf);
  return make_string(buf, n, out);
}

bool f_val(const Token*& t, Value* out) {
  Value a;
  if (!one_arg(t, &a) || !as_str(a)) return false;
  // The literal scanner wants a NUL-terminated text; VAL reads at most what
  // a number can be long, so a bounded copy is enough.
  char buf[512];
  std::uint32_t i = 0, n = a.s.len;
  while (i < n && (a.s.ptr[i] == ' ' || a.s.ptr[i] == '\t' || a.s.ptr[i] == '\r' || a.s.ptr[i] == '\n')) ++i;
  std::uint32_t k = 0;
  while (i < n && k < sizeof buf - 1) buf[k++] = a.s.ptr[i++];
  buf[k] = 0;
  const char* p = buf;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  while (*p == ' ') ++p;
  const bool starts = (*p >= '0' && *p <= '9') || (*p == '.' && p[1] >= '0' && p[1] <= '9') ||
                      (*p == '&' && ((p[1] & ~0x20) == 'H' || (p[1] & ~0x20) == 'O'));
  if (!starts) {
    *out = Value::integer(0);
    return true;
  }
  core::NumberLiteral lit;
  if (!core::scan_number(p, &lit)) return false;
  if (lit.type <= kInt64) {
    *out = Value::integer(lit.i, lit.type);
    return negative ? negate(*out, out) : true;
  }
  *out = Value::floating(negative ? -lit.d : lit.d, lit.type);
  return true;
}

bool based_text(const Token*& t, Value* out, int shift) {
  Value a;
  std::int64_t n;
  if (!one_arg(t, &a) || !as_int(a, &n)) return false;
  // A negative integer shows its two's complement in the width of its type.
  std::uint64_t u = static_cast<std::uint64_t>(n);
  if (n < 0 && a.type == kInteger) u &= 0xFFFF;
  else if (n < 0 && a.type == kLong) u &= 0xFFFFFFFF;
  char buf[24];
  int i = sizeof buf;
  const unsigned mask = (1u << shift) - 1;
  do {
    buf[--i] = "0123456789ABCDEF"[u & mask];
    u >>= shift;
  } while (u);
  return make_string(buf + i, sizeof buf - static_cast<std::size_t>(i), out);
}
bool f_hex(const Token*& t, Value* o) { return based_text(t, o, 4); }
bool f_oct_text(const Token*& t, Value* o) { return based_text(t, o, 3); }

bool string_and_count(const Token*& t, Value* a, std::int64_t* n) {
  Value v[2];
  if (!args(t, v, 2, 2) || !as_str(v[0]) || !as_int(v[1], n)) return false;
  if (*n < 0) return fail("Illegal function call");
  *a = v[0];
  return true;
}

bool f_left(const Token*& t, Value* out) {
  Value a;
  std::int64_t n;
  if (!string_and_count(t, &a, &n)) return false;
  *out = Value::string(a.s.ptr, static_cast<std::uint32_t>(n < a.s.len ? n : a.s.len));
  return true;
}

bool f_right(const Token*& t, Value* out) {
  Value a;
  std::int64_t n;
  if (!string_and_count(t, &a, &n)) return false;
  const std::uint32_t k = static_cast<std::uint32_t>(n < a.s.len ? n : a.s.len);
  *out = Value::string(a.s.ptr + (a.s.len - k), k);
  return true;
}

bool f_mid(const Token*& t, Value* out) {
  Value v[3];
  int n;
  std::int64_t start, len = INT64_MAX;
  if (!args(t, v, 2, 3, &n) || !as_str(v[0]) || !as_int(v[1], &start)) return false;
  if (n == 3 && !as_int(v[2], &len)) return false;
  if (start < 1 || len < 0) return fail("Illegal function call");
  const std::uint32_t size = v[0].s.len;
  if (static_cast<std::uint64_t>(start) > size) {
    *out = Value::string(v[0].s.ptr, 0);
    return true;
  }
  const std::uint64_t avail = size - static_cast<std::uint64_t>(start) + 1;
  const std::uint64_t k = static_cast<std::uint64_t>(len) < avail ? static_cast<std::uint64_t>(len) : avail;
  // Substrings share the bytes of their source: they are values of this statement only.
  *out = Value::string(v[0].s.ptr + start - 1, static_cast<std::uint32_t>(k));
  return true;
}

bool f_space(const Token*& t, Value* out) {
  Value a;
  std::int64_t n;
  if (!one_arg(t, &a) || !as_int(a, &n)) return false;
  if (n < 0 || n > 0xFFFFFFFFll) return fail("Illegal function call");
  char* p = string_temp(static_cast<std::uint32_t>(n));
  if (!p) return false;
  std::memset(p, ' ', static_cast<std::size_t>(n));
  *out = Value::string(p, static_cast<std::uint32_t>(n));
  return true;
}

bool f_string(const Token*& t, Value* out) {
  Value v[2];
  std::int64_t n, code;
  if (!args(t, v, 2, 2) || !as_int(v[0], &n)) return false;
  if (v[1].type == kString) {
    if (v[1].s.len == 0) return fail("Illegal function call");
    code = static_cast<unsigned char>(v[1].s.ptr[0]);
  } else if (!as_int(v[1], &code)) {
    return false;
  }
  if (n < 0 || n > 0xFFFFFFFFll || code < 0 || code > 255) return fail("Illegal function call");
  char* p = string_temp(static_cast<std::uint32_t>(n));
  if (!p) return false;
  std::memset(p, static_cast<int>(code), static_cast<std::size_t>(n));
  *out = Value::string(p, static_cast<std::uint32_t>(n));
  return true;
}

bool f_instr(const Token*& t, Value* out) {
  Value v[3];
  int n;
  if (!args(t, v, 2, 3, &n)) return false;
  std::int64_t start = 1;
  const Value* hay = &v[0];
  const Value* needle = &v[1];
  if (n == 3) {
    if (!as_int(v[0], &start)) return false;
    hay = &v[1];
    needle = &v[2];
  }
  if (!as_str(*hay) || !as_str(*needle)) return false;
  if (start < 1) return fail("Illegal function call");
  std::int64_t found = 0;
  if (static_cast<std::uint64_t>(start) <= hay->s.len + 1ull) {
    if (needle->s.len == 0) {
      found = start;
    } else {
      for (std::uint64_t i = static_cast<std::uint64_t>(start) - 1; i + needle->s.len <= hay->s.len; ++i)
        if (std::memcmp(hay->s.ptr + i, needle->s.ptr, needle->s.len) == 0) {
          found = static_cast<std::int64_t>(i) + 1;
          break;
        }
    }
  }
  *out = Value::integer(found, kLong);
  return true;
}

bool change_case(const Token*& t, Value* out, bool upper) {
  Value a;
  if (!one_arg(t, &a) || !as_str(a)) return false;
  char* p = string_temp(a.s.len);
  if (!p && a.s.len) return false;
  for (std::uint32_t i = 0; i < a.s.len; ++i) {
    char c = a.s.ptr[i];
    if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    p[i] = c;
  }
  *out = Value::string(p, a.s.len);
  return true;
}
bool f_ucase(const Token*& t, Value* o) { return change_case(t, o, true); }
bool f_lcase(const Token*& t, Value* o) { return change_case(t, o, false); }

bool f_crc32(const Token*& t, Value* out) {
  Value a;
  if (!one_arg(t, &a) || !as_str(a)) return false;
  *out = Value::integer(screen::crc32(reinterpret_cast<const std::uint8_t*>(a.s.ptr), a.s.len), kInt64);
  return true;
}

bool f_rnd(const Token*& t, Value* out) {
  double r;
  if (t->kind == '(') {
    Value a;
    int n;
    if (!args(t, &a, 0, 1, &n)) return false;
    double x = 1;
    if (n == 1 && !as_num(a, &x)) return false;
    if (x == 0) r = rnd_zero();
    else if (x < 0) r = rnd_reseed(x);
    else r = rnd_next();  // x > 0 or NaN
  } else {
    r = rnd_next();
  }
  *out = Value::floating(r, kSingle);
  return true;
}

bool hyper_from_args(const Token*& t, Value* out, int count) {
  Value v[8];
  if (!args(t, v, count, count)) return false;
  Hyper h{};
  h.kind = static_cast<std::uint64_t>(count);
  for (int i = 0; i < count; ++i)
    if (!as_num(v[i], &h.c[i])) return false;
  out->type = kHyper;
  out->h = h;
  return true;
}
bool f_cplx(const Token*& t, Value* o) { return hyper_from_args(t, o, 2); }
bool f_quat(const Token*& t, Value* o) { return hyper_from_args(t, o, 4); }
bool f_oct(const Token*& t, Value* o) { return hyper_from_args(t, o, 8); }

bool hyper_arg(const Token*& t, Hyper* h) {
  Value a;
  if (!one_arg(t, &a)) return false;
  if (!to_hyper(a, h)) return fail("Type mismatch");
  return true;
}

bool f_conj(const Token*& t, Value* out) {
  Hyper h;
  if (!hyper_arg(t, &h)) return false;
  out->type = kHyper;
  out->h = hyper_conj(h);
  return true;
}

bool f_inv(const Token*& t, Value* out) {
  Hyper h, r;
  if (!hyper_arg(t, &h) || !hyper_inverse(h, &r)) return false;
  out->type = kHyper;
  out->h = r;
  return true;
}

bool f_norm(const Token*& t, Value* out) {
  Hyper h;
  double r;
  if (!hyper_arg(t, &h)) return false;
  (void)m_sqr(hyper_norm2(h), &r);
  return make_float(r, kDouble, out);
}

bool f_norm2(const Token*& t, Value* out) {
  Hyper h;
  if (!hyper_arg(t, &h)) return false;
  return make_float(hyper_norm2(h), kDouble, out);
}

bool f_comp(const Token*& t, Value* out) {
  Value v[2];
  std::int64_t n;
  Hyper h;
  if (!args(t, v, 2, 2) || !as_int(v[1], &n)) return false;
  if (!to_hyper(v[0], &h)) return fail("Type mismatch");
  if (n < 0 || n > 7) return fail("Illegal function call");
  *out = Value::floating(static_cast<std::uint64_t>(n) < h.kind ? h.c[n] : 0.0, kDouble);
  return true;
}

bool f_iif(const Token*& t, Value* out) {
  if (!expect(t, '(', "Expected (")) return false;
  Value c;
  if (!eval(t, &c)) return false;
  if (c.type == kString) return fail("Type mismatch");
  bool truth;
  if (c.type == kHyper) truth = hyper_norm2(c.h) != 0;
  else truth = is_integer_type(c.type) ? c.i != 0 : c.d != 0;
  if (!expect(t, ',', "Expected ,")) return false;
  // Only the selected branch is evaluated.
  if (truth) {
    if (!eval(t, out)) return false;
    if (!expect(t, ',', "Expected ,")) return false;
    skip_expression(t);
  } else {
    skip_expression(t);
    if (!expect(t, ',', "Expected ,")) return false;
    if (!eval(t, out)) return false;
  }
  return expect(t, ')', "Expected )");
}

bool f_fre(const Token*& t, Value* out) {
  Value a;
  if (t->kind == '(' && !args(t, &a, 0, 1)) return false;
  const std::uint64_t f = fre();
  *out = Value::integer(f > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(f), kInt64);
  return true;
}

bool peek_n(const Token*& t, Value* out, int width, std::uint8_t type) {
  Value a;
  std::int64_t address, v;
  if (!one_arg(t, &a) || !as_int(a, &address) || !peek(static_cast<std::uint64_t>(address), width, &v)) return false;
  *out = Value::integer(v, type);
  return true;
}
bool f_peek(const Token*& t, Value* o) { return peek_n(t, o, 1, kInteger); }
bool f_peek16(const Token*& t, Value* o) { return peek_n(t, o, 2, kLong); }
bool f_peek32(const Token*& t, Value* o) { return peek_n(t, o, 4, kInt64); }
bool f_peek64(const Token*& t, Value* o) { return peek_n(t, o, 8, kInt64); }

bool f_varptr(const Token*& t, Value* out) {
  if (!expect(t, '(', "Expected (")) return false;
  LValue lv;
  if (!parse_lvalue(t, &lv) || !expect(t, ')', "Expected )")) return false;
  *out = Value::integer(static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(lv.slot)), kInt64);
  return true;
}

bool f_pos(const Token*& t, Value* out) {
  Value a;
  if (t->kind == '(' && !args(t, &a, 0, 1)) return false;
  *out = Value::integer(static_cast<std::int64_t>(screen::con.col) + 1, kLong);
  return true;
}

bool f_tab_spc(const Token*&, Value*) { return fail("Illegal function call"); }

bool f_commandlinearg(const Token*& t, Value* out) {
  Value a;
  std::int64_t n;
  if (!one_arg(t, &a) || !as_int(a, &n)) return false;
  if (n < 1 || n > host::shell.arg_count) return make_string("", 0, out);
  const char* s = host::shell.args[n - 1];
  return make_string(s, std::strlen(s), out);
}

bool f_environ(const Token*& t, Value* out) {
  Value a;
  if (!one_arg(t, &a)) return false;
  if (a.type != kString) return fail("Type mismatch");
  char name[512];
  const std::uint32_t n = a.s.len < sizeof name - 1 ? a.s.len : sizeof name - 1;
  std::memcpy(name, a.s.ptr, n);
  name[n] = 0;
  const char* v = std::getenv(name);
  return make_string(v ? v : "", v ? std::strlen(v) : 0, out);
}

// Microsoft Binary Format: the exponent byte last, biased by 129 with the
// mantissa read as 0.1xxx; the sign sits in the top bit of the byte before.
bool f_mki(const Token*& t, Value* out) {
  Value a;
  std::int64_t n;
  if (!one_arg(t, &a) || !as_int(a, &n)) return false;
  if (n < -32768 || n > 32767) return fail("Overflow");
  const char b[2] = {static_cast<char>(n & 0xFF), static_cast<char>((n >> 8) & 0xFF)};
  return make_string(b, 2, out);
}

bool f_mks(const Token*& t, Value* out) {
  Value a;
  double d;
  if (!one_arg(t, &a) || !as_num(a, &d)) return false;
  const float f = static_cast<float>(d);
  if (f - f != 0) return fail("Overflow");
  std::uint32_t ieee;
  std::memcpy(&ieee, &f, 4);
  const std::uint32_t exp = (ieee >> 23) & 0xFF;
  std::uint8_t b[4] = {0, 0, 0, 0};
  if (exp != 0) {
    if (exp + 2 > 255) return fail("Overflow");
    b[0] = static_cast<std::uint8_t>(ieee);
    b[1] = static_cast<std::uint8_t>(ieee >> 8);
    b[2] = static_cast<std::uint8_t>(((ieee >> 16) & 0x7F) | ((ieee >> 24) & 0x80));
    b[3] = static_cast<std::uint8_t>(exp + 2);
  }
  return make_string(reinterpret_cast<const char*>(b), 4, out);
}

bool f_mkd(const Token*& t, Value* out) {
  Value a;
  double d;
  if (!one_arg(t, &a) || !as_num(a, &d)) return false;
  if (d - d != 0) return fail("Overflow");
  std::uint64_t ieee;
  std::memcpy(&ieee, &d, 8);
  const std::int64_t exp = static_cast<std::int64_t>((ieee >> 52) & 0x7FF);
  std::uint8_t b[8] = {};
  const std::int64_t mexp = exp - 1023 + 129;
  if (exp != 0 && mexp > 0) {
    if (mexp > 255) return fail("Overflow");
    const std::uint64_t mant = (ieee & 0xFFFFFFFFFFFFFull) << 3;  // 52 bits into 55
    for (int i = 0; i < 7; ++i) b[i] = static_cast<std::uint8_t>(mant >> (8 * i));
    b[6] = static_cast<std::uint8_t>((b[6] & 0x7F) | ((ieee >> 56) & 0x80));
    b[7] = static_cast<std::uint8_t>(mexp);
  }
  return make_string(reinterpret_cast<const char*>(b), 8, out);
}

bool bytes_arg(const Token*& t, std::uint8_t* b, std::uint32_t n) {
  Value a;
  if (!one_arg(t, &a) || !as_str(a)) return false;
  if (a.s.len < n) return fail("Illegal function call");
  std::memcpy(b, a.s.ptr, n);
  return true;
}

bool f_cvi(const Token*& t, Value* out) {
  std::uint8_t b[2];
  if (!bytes_arg(t, b, 2)) return false;
  *out = Value::integer(static_cast<std::int16_t>(b[0] | (b[1] << 8)));
  return true;
}

bool f_cvs(const Token*& t, Value* out) {
  std::uint8_t b[4];
  if (!bytes_arg(t, b, 4)) return false;
  float f = 0;
  if (b[3] > 2) {
    const std::uint32_t ieee = (static_cast<std::uint32_t>(b[2] & 0x80) << 24) |
                               (static_cast<std::uint32_t>(b[3] - 2) << 23) |
                               (static_cast<std::uint32_t>(b[2] & 0x7F) << 16) | (b[1] << 8) | b[0];
    std::memcpy(&f, &ieee, 4);
  }
  *out = Value::floating(f, kSingle);
  return true;
}

bool f_cvd(const Token*& t, Value* out) {
  std::uint8_t b[8];
  if (!bytes_arg(t, b, 8)) return false;
  double d = 0;
  if (b[7] != 0) {
    std::uint64_t mant = 0;
    for (int i = 6; i >= 0; --i) mant = (mant << 8) | (i == 6 ? (b[i] & 0x7F) : b[i]);
    const std::uint64_t exp = static_cast<std::uint64_t>(b[7]) - 129 + 1023;
    const std::uint64_t ieee = (static_cast<std::uint64_t>(b[6] & 0x80) << 56) | (exp << 52) | (mant >> 3);
    std::memcpy(&d, &ieee, 8);
  }
  *out = Value::floating(d, kDouble);
  return true;
}

bool f_eval(const Token*& t, Value* out) {
  Value a;
  if (!one_arg(t, &a) || !as_str(a)) return false;
  std::uint32_t i = 0;
  while (i < a.s.len && (a.s.ptr[i] == ' ' || a.s.ptr[i] == '\t')) ++i;
  if (i == a.s.len) return fail("Empty EVAL expression");
  if (a.s.len > 4095) return fail("EVAL expression too long");
  if (eval_depth >= 16) return fail("EVAL nesting limit");
  // The text and its tokens live here: the tokenizer's scratch array and the
  // string heap are shared with the statement being evaluated.
  char text[4096];
  std::memcpy(text, a.s.ptr, a.s.len);
  text[a.s.len] = 0;
  const int n = core::tokenize(text);
  if (core::err.flag) return false;
  Token tokens[core::kMaxTokens + 1];
  std::memcpy(tokens, core::scratch_tokens, sizeof(Token) * static_cast<std::size_t>(n));
  ++eval_depth;
  const Token* p = tokens;
  const bool ok = eval(p, out);
  --eval_depth;
  if (!ok) return false;
  if (p->kind != core::kTokEnd) return fail("Syntax error");
  // A string result that points into `text` must outlive this frame.
  if (out->type == kString && out->s.ptr >= text && out->s.ptr < text + sizeof text)
    return make_string(out->s.ptr, out->s.len, out);
  return true;
}

// UBOUND(array[, dimension]) and LBOUND: the argument is an array's name.
// A dimension outside 1..the array's count is "Subscript out of range".
bool bound(const Token*& t, Value* out, bool upper) {
  if (!expect(t, '(', "Expected (")) return false;
  if (t->kind != core::kTokIdent) return fail("Expected array");
  const Token* name = t++;
  if (t->kind == '(' && t[1].kind == ')') t += 2;
  std::int64_t dim = 1;
  if (t->kind == ',') {
    ++t;
    if (!eval_int64(t, &dim)) return false;
  }
  if (!expect(t, ')', "Expected )")) return false;
  const Descriptor* d = find_descriptor(name->name(), true, type_of_name(name->name()));
  if (!d || !d->array_block()) return fail("Array not dimensioned");
  if (dim < 1 || dim > array_dims(d)) return fail("Subscript out of range");
  *out = Value::integer(upper ? array_upper(d, static_cast<int>(dim)) : option_base, kInt64);
  return true;
}
bool f_ubound(const Token*& t, Value* o) { return bound(t, o, true); }
bool f_lbound(const Token*& t, Value* o) { return bound(t, o, false); }

bool f_getvar(const Token*& t, Value* out) {
  if (!expect(t, '(', "Expected (")) return false;
  Value name;
  if (!eval(t, &name) || !as_str(name)) return false;
  std::int64_t subs[kMaxDimensions + 1];
  int n = 0;
  while (t->kind == ',') {
    ++t;
    std::int64_t s;
    if (!eval_int64(t, &s)) return false;
    if (n < kMaxDimensions + 1) subs[n++] = s;
  }
  if (!expect(t, ')', "Expected )")) return false;
  char id[40];
  if (!check_identifier(name.s.ptr, name.s.len, id)) return false;
  const std::uint8_t type = type_of_name(id);
  if (n > 0) {
    const Descriptor* d = find_descriptor(id, true, type);
    const void* slot = array_element(d, subs, n);
    if (!slot) return false;
    *out = load_value(slot, type);
    return true;
  }
  const Descriptor* d = find_descriptor(id, false, type);
  std::uint8_t zero[72] = {};
  *out = load_value(d ? d->value : zero, type);
  return true;
}

const Builtin kBuiltins[] = {
    {"ABS", f_abs}, {"ASC", f_asc}, {"ATN", f_atn}, {"CDBL", f_cdbl}, {"CHR$", f_chr}, {"CINT", f_cint},
    {"COMMANDLINEARG$", f_commandlinearg}, {"COMP", f_comp}, {"CONJ", f_conj}, {"COS", f_cos},
    {"COSH", f_cosh}, {"CPLX", f_cplx}, {"CRC32", f_crc32}, {"CSNG", f_csng}, {"CVD", f_cvd}, {"CVI", f_cvi},
    {"CVS", f_cvs}, {"ENVIRON$", f_environ}, {"EVAL", f_eval}, {"EXP", f_exp}, {"FIX", f_fix}, {"FRE", f_fre},
    {"GETVAR", f_getvar}, {"HEX$", f_hex}, {"IIF", f_iif}, {"INSTR", f_instr}, {"INT", f_int}, {"INV", f_inv},
    {"LBOUND", f_lbound}, {"LCASE$", f_lcase}, {"LEFT$", f_left}, {"LEN", f_len}, {"LOG", f_log}, {"MID$", f_mid}, {"MKD$", f_mkd},
    {"MKI$", f_mki}, {"MKS$", f_mks}, {"NORM", f_norm}, {"NORM2", f_norm2}, {"OCT", f_oct}, {"OCT$", f_oct_text},
    {"PEEK", f_peek}, {"PEEK16", f_peek16}, {"PEEK32", f_peek32}, {"PEEK64", f_peek64}, {"POS", f_pos},
    {"QUAT", f_quat}, {"RIGHT$", f_right}, {"RND", f_rnd}, {"SGN", f_sgn}, {"SIN", f_sin}, {"SINH", f_sinh},
    {"SPACE$", f_space}, {"SPC", f_tab_spc}, {"SQR", f_sqr}, {"SQRT", f_sqr}, {"STR$", f_str},
    {"STRING$", f_string}, {"TAB", f_tab_spc}, {"TAN", f_tan}, {"TANH", f_tanh}, {"UBOUND", f_ubound}, {"UCASE$", f_ucase},
    {"VAL", f_val}, {"VARPTR", f_varptr},
};

enum Pseudo {
  P_TIMER, P_TIME, P_DATE, P_INKEY, P_CSRLIN, P_ERL, P_ERR, P_ERROR, P_RND, P_GRAMAXX, P_GRAMAXY,
  P_TXTMAXX, P_TXTMAXY, P_SCRNADR, P_GRAPITCH, P_MOUSEPRESENT, P_KEYSTATE, P_PARTHREADS, P_PARWORKERS,
  P_ARGCOUNT, P_LOMEM, P_HIMEM, P_FREEBOT, P_FREETOP, P_CODEBASE, P_CODEEND, P_VARTABLE, P_FRAMEBUFFER,
  P_BACKBUFFER, P_IMAGEEND,
};
const char* const kPseudo[] = {
    "TIMER", "TIME$", "DATE$", "INKEY$", "CSRLIN", "ERL", "ERR", "ERROR$", "RND", "GRAMAXX", "GRAMAXY",
    "TXTMAXX", "TXTMAXY", "SCRNADR", "GRAPITCH", "MOUSEPRESENT", "KEYSTATEAVAILABLE", "PARTHREADS",
    "PARWORKERS", "COMMANDLINECOUNT", "LOMEM", "HIMEM", "FREEBOT", "FREETOP", "CODEBASE", "CODEEND",
    "VARTABLE", "FRAMEBUFFER", "BACKBUFFER", "IMAGEEND",
};

Value address(const void* p) { return Value::integer(static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(p)), kInt64); }

const BuiltinGroup kGroups[] = {
    {kBuiltins, static_cast<int>(sizeof kBuiltins / sizeof kBuiltins[0])},
    core::input_builtins(),
    {screen::kScreenFunctions, screen::kScreenFunctionCount},
    {screen::kGraphicsFunctions, screen::kGraphicsFunctionCount},
    files::file_builtins(),
    net::net_builtins(),
    sound::sound_builtins(),
    tools::tool_builtins(),
    host::sysinfo_builtins(),
    {sound::kMidiFunctions, sound::kMidiFunctionCount},
    {sound::kWavFunctions, sound::kWavFunctionCount},
};

}  // namespace

bool parse_args(const Token*& t, Value* a, int min, int max, int* count) { return args(t, a, min, max, count); }
bool arg_int(const Value& v, std::int64_t* out) { return as_int(v, out); }
bool arg_string(const Value& v) { return as_str(v); }

// An index is group * 1024 + row.
bool numeric_function(NumFn f, const Value& a, Value* out) {
  switch (f) {
    case NumFn::Sqr: return elementary(a, out, m_sqr, "SQR");
    case NumFn::Sin: return elementary(a, out, m_sin, "SIN");
    case NumFn::Cos: return elementary(a, out, m_cos, "COS");
    case NumFn::Tan: return elementary(a, out, m_tan, "TAN");
    case NumFn::Atn: return elementary(a, out, m_atn, nullptr);
    case NumFn::Log: return elementary(a, out, m_log, "LOG");
    case NumFn::Exp: return elementary(a, out, m_exp, "EXP");
    case NumFn::Sinh: return elementary(a, out, m_sinh, "SINH");
    case NumFn::Cosh: return elementary(a, out, m_cosh, "COSH");
    case NumFn::Tanh: return elementary(a, out, m_tanh, "TANH");
    case NumFn::Abs: return absolute(a, out);
    case NumFn::Sgn: {
      int s;
      if (!value_sign(a, &s)) return false;
      *out = Value::integer(s);
      return true;
    }
    case NumFn::Int: return rounding(a, out, floor_own);
    case NumFn::Fix: return rounding(a, out, trunc_own);
    case NumFn::Cint: return convert(a, out, kInteger);
    case NumFn::Csng: return convert(a, out, kSingle);
    case NumFn::Cdbl: return convert(a, out, kDouble);
  }
  return fail("Type mismatch");
}

int find_builtin(const char* name) {
  for (std::size_t g = 0; g < sizeof kGroups / sizeof kGroups[0]; ++g)
    for (int i = 0; i < kGroups[g].count; ++i)
      if (std::strcmp(kGroups[g].rows[i].name, name) == 0) return static_cast<int>(g) * 1024 + i;
  return -1;
}

bool call_builtin(int index, const Token*& t, Value* out) { return kGroups[index / 1024].rows[index % 1024].fn(t, out); }

int find_pseudo(const char* name) {
  for (std::size_t i = 0; i < sizeof kPseudo / sizeof kPseudo[0]; ++i)
    if (std::strcmp(kPseudo[i], name) == 0) return static_cast<int>(i);
  return -1;
}

const char* pseudo_name(int index) {
  constexpr int n = static_cast<int>(sizeof kPseudo / sizeof kPseudo[0]);
  return index >= 0 && index < n ? kPseudo[index] : nullptr;
}

bool pseudo_value(int index, const Token*& t, Value* out) {
  switch (index) {
    case P_TIMER: {
      if (t->kind == '(') {  // TIMER(n): the interval of a programmable timer
        Value a;
        std::int64_t n;
        if (!one_arg(t, &a) || !as_int(a, &n)) return false;
        if (n < 0 || n > 7) return fail("Illegal function call");
        *out = Value::integer(timer_interval_ms[n], kInt64);
        return true;
      }
      const double s = static_cast<double>(host::perf_counter()) / static_cast<double>(host::perf_frequency());
      *out = Value::floating(s, kDouble);
      return true;
    }
    case P_TIME:
    case P_DATE: {
      const std::time_t now = std::time(nullptr);
      const std::tm* tm = std::localtime(&now);
      char buf[16];
      if (index == P_TIME) std::strftime(buf, sizeof buf, "%H:%M:%S", tm);
      else std::strftime(buf, sizeof buf, "%m-%d-%Y", tm);
      return make_string(buf, std::strlen(buf), out);
    }
    case P_INKEY: {
      screen::KeyEntry k;
      for (;;) {
        if (!screen::keys.poll(&k)) return make_string("", 0, out);
        const std::uint16_t code = k.code & 0xFF;
        if (code == screen::kKeyDebugger || code == screen::kKeyReset) continue;  // never reach INKEY$
        if (code == 0) {
          const char c = static_cast<char>(k.ch);
          return make_string(&c, 1, out);
        }
        if (code == screen::kKeyEsc) {
          const char c = 27;
          return make_string(&c, 1, out);
        }
        const char two[2] = {0, static_cast<char>(screen::scan_code_for(code))};
        return make_string(two, 2, out);
      }
    }
    case P_CSRLIN: *out = Value::integer(static_cast<std::int64_t>(screen::con.row) + 1, kLong); return true;
    case P_ERL: *out = Value::integer(core::err.line, kInt64); return true;
    case P_ERR: *out = Value::integer(core::err_number()); return true;
    case P_ERROR: return make_string(core::err.message, core::err.has_message ? std::strlen(core::err.message) : 0, out);
    case P_RND: return f_rnd(t, out);
    case P_GRAMAXX: *out = Value::integer(static_cast<std::int64_t>(screen::fb.width) - 1, kLong); return true;
    case P_GRAMAXY: *out = Value::integer(static_cast<std::int64_t>(screen::fb.height) - 1, kLong); return true;
    case P_TXTMAXX: *out = Value::integer(screen::text_columns(), kLong); return true;
    case P_TXTMAXY: *out = Value::integer(screen::text_rows(), kLong); return true;
    case P_SCRNADR: case P_FRAMEBUFFER: *out = address(screen::fb.front); return true;
    case P_BACKBUFFER: *out = address(screen::fb.back); return true;
    case P_GRAPITCH: *out = Value::integer(screen::fb.pitch, kLong); return true;
    case P_MOUSEPRESENT: *out = Value::integer(host::ui && !host::ui->headless() ? -1 : 0); return true;
    case P_KEYSTATE: *out = Value::integer(host::ui && !host::ui->headless() ? -1 : 0); return true;
    case P_PARTHREADS: *out = Value::integer(host::parfor_cap, kLong); return true;
    case P_PARWORKERS: *out = Value::integer(host::parfor_last_workers, kLong); return true;
    case P_ARGCOUNT: *out = Value::integer(host::shell.arg_count, kLong); return true;
    case P_LOMEM: case P_VARTABLE: *out = address(arena.lomem); return true;
    case P_HIMEM: *out = address(arena.himem); return true;
    case P_FREEBOT: *out = address(arena.freebot); return true;
    case P_FREETOP: *out = address(arena.freetop); return true;
    case P_CODEBASE: *out = address(host::shell.program_arena); return true;
    case P_CODEEND: *out = address(host::shell.program_arena ? host::shell.program_arena + host::kProgramArenaBytes : nullptr); return true;
    case P_IMAGEEND: *out = Value::integer(static_cast<std::int64_t>(host::image_end()), kInt64); return true;
    default: return fail("Syntax error");
  }
}

}  // namespace values
