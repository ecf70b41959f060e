// Arithmetic, comparison and logic on value records.
#include "values/ops.h"

#include <cstring>

#include "core/errors.h"
#include "values/hyper.h"
#include "values/mathlib.h"
#include "values/numeric_ops.h"
#include "values/numtext.h"
#include "values/store.h"
#include "values/strings.h"

namespace values {

namespace {

bool raise(const char* m) {
  core::raise(m);
  return false;
}

bool compare_strings(const Value& a, const Value& b, int* out) {
  const std::uint32_t n = a.s.len < b.s.len ? a.s.len : b.s.len;
  int c = n ? std::memcmp(a.s.ptr, b.s.ptr, n) : 0;
  if (c == 0) c = a.s.len < b.s.len ? -1 : a.s.len > b.s.len ? 1 : 0;
  *out = c < 0 ? -1 : c > 0 ? 1 : 0;
  return true;
}

}  // namespace

bool op_fail(const char* message) {
  core::raise(message);
  return false;
}

bool math_status(MathStatus s) {
  switch (s) {
    case MathStatus::Ok: return true;
    case MathStatus::Overflow: return raise("Overflow");
    case MathStatus::IllegalFunctionCall: return raise("Illegal function call");
    case MathStatus::DivisionByZero: return raise("Division by zero");
  }
  return false;
}

bool negate(const Value& a, Value* out) {
  if (a.type == kHyper) return hyper_negate(a, out);
  if (is_integer_type(a.type)) {
    if (a.i == INT64_MIN) return raise("Overflow");
    return make_int(-a.i, a.type, out);
  }
  if (a.type == kSingle || a.type == kDouble) {
    set_float(out, -a.d, a.type);
    return true;
  }
  return raise("Type mismatch");
}

bool logical_not(const Value& a, Value* out) {
  std::int64_t v;
  if (a.type == kString || a.type == kHyper) return raise("Type mismatch");
  if (!value_to_int64(a, &v)) return false;
  set_int(out, ~v, int_op_type(a.type));
  return true;
}

bool binary_op(Op op, const Value& a, const Value& b, Value* out) {
  const bool sa = a.type == kString, sb = b.type == kString;
  if (sa || sb) {
    if (!(sa && sb)) return raise("Type mismatch");
    int c;
    switch (op) {
      case Op::Add: {
        const std::uint64_t n = static_cast<std::uint64_t>(a.s.len) + b.s.len;
        if (n > 0xFFFFFFFFull) return raise("String too long");
        char* p = string_temp(static_cast<std::uint32_t>(n));
        if (!p) return false;
        if (a.s.len) std::memmove(p, a.s.ptr, a.s.len);
        if (b.s.len) std::memmove(p + a.s.len, b.s.ptr, b.s.len);
        *out = Value::string(p, static_cast<std::uint32_t>(n));
        return true;
      }
      case Op::Eq: compare_strings(a, b, &c); set_int(out, c == 0 ? -1 : 0); return true;
      case Op::Ne: compare_strings(a, b, &c); set_int(out, c != 0 ? -1 : 0); return true;
      case Op::Lt: compare_strings(a, b, &c); set_int(out, c < 0 ? -1 : 0); return true;
      case Op::Le: compare_strings(a, b, &c); set_int(out, c <= 0 ? -1 : 0); return true;
      case Op::Gt: compare_strings(a, b, &c); set_int(out, c > 0 ? -1 : 0); return true;
      case Op::Ge: compare_strings(a, b, &c); set_int(out, c >= 0 ? -1 : 0); return true;
      default: return raise("Type mismatch");
    }
  }
  if (a.type == kHyper || b.type == kHyper) return hyper_binary(op, a, b, out);
  if (!is_numeric_type(a.type) || !is_numeric_type(b.type)) return raise("Type mismatch");

  switch (op) {
    case Op::Add: return numeric_binary<Op::Add>(a, b, out);
    case Op::Sub: return numeric_binary<Op::Sub>(a, b, out);
    case Op::Mul: return numeric_binary<Op::Mul>(a, b, out);
    case Op::Div: return numeric_binary<Op::Div>(a, b, out);
    case Op::IntDiv: return numeric_binary<Op::IntDiv>(a, b, out);
    case Op::Mod: return numeric_binary<Op::Mod>(a, b, out);
    case Op::Pow: return numeric_binary<Op::Pow>(a, b, out);
    case Op::Eq: return numeric_binary<Op::Eq>(a, b, out);
    case Op::Ne: return numeric_binary<Op::Ne>(a, b, out);
    case Op::Lt: return numeric_binary<Op::Lt>(a, b, out);
    case Op::Le: return numeric_binary<Op::Le>(a, b, out);
    case Op::Gt: return numeric_binary<Op::Gt>(a, b, out);
    case Op::Ge: return numeric_binary<Op::Ge>(a, b, out);
    case Op::And: return numeric_binary<Op::And>(a, b, out);
    case Op::Or: return numeric_binary<Op::Or>(a, b, out);
    case Op::Xor: return numeric_binary<Op::Xor>(a, b, out);
    case Op::Eqv: return numeric_binary<Op::Eqv>(a, b, out);
    case Op::Imp: return numeric_binary<Op::Imp>(a, b, out);
  }
  return raise("Type mismatch");
}

std::uint32_t number_to_text(const Value& v, char* out) {
  if (v.type == kHyper) return hyper_to_text(v.h, out);
  if (is_integer_type(v.type)) {
    char buf[24];
    int i = sizeof buf;
    std::uint64_t m = v.i < 0 ? 0 - static_cast<std::uint64_t>(v.i) : static_cast<std::uint64_t>(v.i);
    do {
      buf[--i] = static_cast<char>('0' + m % 10);
      m /= 10;
    } while (m);
    std::uint32_t n = 0;
    out[n++] = v.i < 0 ? '-' : ' ';
    std::memcpy(out + n, buf + i, sizeof buf - static_cast<std::size_t>(i));
    return n + static_cast<std::uint32_t>(sizeof buf - static_cast<std::size_t>(i));
  }
  // Negative zero prints as 0, with the blank of a non-negative number.
  const bool negative = v.d < 0;
  out[0] = negative ? '-' : ' ';
  const double mag = negative ? -v.d : v.d;
  return 1 + static_cast<std::uint32_t>(number_text(mag, v.type == kSingle ? 7 : 15, v.type == kSingle ? 'E' : 'D', out + 1));
}

}  // namespace values
