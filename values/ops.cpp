// Arithmetic, comparison and logic on value records.
#include "values/ops.h"

#include <cstring>

#include "core/errors.h"
#include "values/hyper.h"
#include "values/mathlib.h"
#include "values/numtext.h"
#include "values/store.h"
#include "values/strings.h"

namespace values {

namespace {

bool raise(const char* m) {
  core::raise(m);
  return false;
}

bool in_range(std::int64_t v, std::uint8_t t) {
  if (t == kInteger) return v >= -32768 && v <= 32767;
  if (t == kLong) return v >= -2147483648LL && v <= 2147483647LL;
  return true;
}

double as_double(const Value& v) { return is_integer_type(v.type) ? static_cast<double>(v.i) : v.d; }

bool math_status(MathStatus s) {
  switch (s) {
    case MathStatus::Ok: return true;
    case MathStatus::Overflow: return raise("Overflow");
    case MathStatus::IllegalFunctionCall: return raise("Illegal function call");
    case MathStatus::DivisionByZero: return raise("Division by zero");
  }
  return false;
}

// Integer type for \ MOD and the logical operators: a floating operand counts as INT64.
std::uint8_t int_op_type(std::uint8_t t) { return is_integer_type(t) ? t : static_cast<std::uint8_t>(kInt64); }

bool compare_strings(const Value& a, const Value& b, int* out) {
  const std::uint32_t n = a.s.len < b.s.len ? a.s.len : b.s.len;
  int c = n ? std::memcmp(a.s.ptr, b.s.ptr, n) : 0;
  if (c == 0) c = a.s.len < b.s.len ? -1 : a.s.len > b.s.len ? 1 : 0;
  *out = c < 0 ? -1 : c > 0 ? 1 : 0;
  return true;
}

// Exact mixed comparison: integers with integers as integers, otherwise as
// binary64. Returns -1, 0, 1, or 2 when unordered (NaN).
int compare_numbers(const Value& a, const Value& b) {
  if (is_integer_type(a.type) && is_integer_type(b.type)) return a.i < b.i ? -1 : a.i > b.i ? 1 : 0;
  const double x = as_double(a), y = as_double(b);
  if (x < y) return -1;
  if (x > y) return 1;
  if (x == y) return 0;
  return 2;
}

}  // namespace

std::uint8_t wider_type(std::uint8_t a, std::uint8_t b) {
  if ((a == kInt64 && b == kSingle) || (a == kSingle && b == kInt64)) return kDouble;
  return a > b ? a : b;
}

std::uint8_t float_result_type(std::uint8_t a) {
  if (a == kInt64 || a == kDouble) return kDouble;
  return kSingle;
}

bool make_float(double d, std::uint8_t t, Value* out) {
  if (t == kSingle) {
    const float f = static_cast<float>(d);
    if (f - f != 0) return raise("Overflow");
    set_float(out, f, kSingle);
    return true;
  }
  set_float(out, d, kDouble);
  return true;
}

bool make_int(std::int64_t v, std::uint8_t t, Value* out) {
  // A result that leaves its type widens to the next integer type that holds
  // it (INTEGER -> LONG -> INT64), as classic interpreters print 365*24*60.
  while (!in_range(v, t)) ++t;
  set_int(out, v, t);
  return true;
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
    case Op::Add:
    case Op::Sub:
    case Op::Mul: {
      const std::uint8_t t = wider_type(a.type, b.type);
      if (is_integer_type(t)) {
        std::int64_t r;
        bool ovf;
        if (op == Op::Add) ovf = __builtin_add_overflow(a.i, b.i, &r);
        else if (op == Op::Sub) ovf = __builtin_sub_overflow(a.i, b.i, &r);
        else ovf = __builtin_mul_overflow(a.i, b.i, &r);
        if (ovf) return raise("Overflow");
        return make_int(r, t, out);
      }
      const double x = as_double(a), y = as_double(b);
      return make_float(op == Op::Add ? x + y : op == Op::Sub ? x - y : x * y, t, out);
    }
    case Op::Div: {
      const std::uint8_t t = float_result_type(wider_type(a.type, b.type));
      const double y = as_double(b);
      if (y == 0) return raise("Division by zero");
      return make_float(as_double(a) / y, t, out);
    }
    case Op::Pow: {
      const std::uint8_t t = float_result_type(wider_type(a.type, b.type));
      double r;
      if (!math_status(m_pow(as_double(a), as_double(b), &r))) return false;
      return make_float(r, t, out);
    }
    case Op::IntDiv:
    case Op::Mod: {
      std::int64_t x, y;
      if (!value_to_int64(a, &x) || !value_to_int64(b, &y)) return false;
      if (y == 0) return raise("Division by zero");
      const std::uint8_t t = wider_type(int_op_type(a.type), int_op_type(b.type));
      if (op == Op::IntDiv) {
        if (x == INT64_MIN && y == -1) return raise("Overflow");
        return make_int(x / y, t, out);  // truncates toward zero
      }
      return make_int(y == -1 ? 0 : x % y, t, out);  // the sign of the dividend
    }
    case Op::Eq:
    case Op::Ne:
    case Op::Lt:
    case Op::Le:
    case Op::Gt:
    case Op::Ge: {
      const int c = compare_numbers(a, b);
      bool r;
      switch (op) {
        case Op::Eq: r = c == 0; break;
        case Op::Ne: r = c != 0; break;
        case Op::Lt: r = c == -1; break;
        case Op::Le: r = c == -1 || c == 0; break;
        case Op::Gt: r = c == 1; break;
        default: r = c == 1 || c == 0; break;
      }
      set_int(out, r ? -1 : 0);
      return true;
    }
    case Op::And:
    case Op::Or:
    case Op::Xor:
    case Op::Eqv:
    case Op::Imp: {
      std::int64_t x, y;
      if (!value_to_int64(a, &x) || !value_to_int64(b, &y)) return false;
      const std::uint8_t t = wider_type(int_op_type(a.type), int_op_type(b.type));
      std::int64_t r;
      switch (op) {
        case Op::And: r = x & y; break;
        case Op::Or: r = x | y; break;
        case Op::Xor: r = x ^ y; break;
        case Op::Eqv: r = ~(x ^ y); break;
        default: r = ~x | y; break;
      }
      // Bitwise results of in-range operands stay in range of the wider type.
      set_int(out, r, t);
      return true;
    }
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
