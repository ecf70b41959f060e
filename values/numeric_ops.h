// The arithmetic, comparison and logic of two numeric operands (types 1..5),
// inline so that the general operator routine and the pre-decoded expressions
// run the same code: one definition of every result type and every error.
#pragma once
#include <cstdint>

#include "values/mathlib.h"
#include "values/ops.h"
#include "values/store.h"

namespace values {

bool math_status(MathStatus s);

inline double numeric_as_double(const Value& v) { return is_integer_type(v.type) ? static_cast<double>(v.i) : v.d; }

// Integer type for \ MOD and the logical operators: a floating operand counts as INT64.
inline std::uint8_t int_op_type(std::uint8_t t) { return is_integer_type(t) ? t : static_cast<std::uint8_t>(kInt64); }

// Exact mixed comparison: integers with integers as integers, otherwise as
// binary64. Returns -1, 0, 1, or 2 when unordered (NaN).
inline int compare_numbers(const Value& a, const Value& b) {
  if (is_integer_type(a.type) && is_integer_type(b.type)) return a.i < b.i ? -1 : a.i > b.i ? 1 : 0;
  const double x = numeric_as_double(a), y = numeric_as_double(b);
  if (x < y) return -1;
  if (x > y) return 1;
  if (x == y) return 0;
  return 2;
}

// The 64-bit integer form of an operand of \ MOD and the logical operators.
[[gnu::always_inline]] inline bool int_operand(const Value& v, std::int64_t* out) {
  if (is_integer_type(v.type)) {
    *out = v.i;
    return true;
  }
  return value_to_int64(v, out);
}

// a op b for numeric a and b (the caller has checked both types are 1..5).
template <Op op>
[[gnu::always_inline]] inline bool numeric_binary(const Value& a, const Value& b, Value* out) {
  if constexpr (op == Op::Add || op == Op::Sub || op == Op::Mul) {
    const std::uint8_t t = wider_type(a.type, b.type);
    if (is_integer_type(t)) {
      std::int64_t r;
      bool ovf;
      if constexpr (op == Op::Add) ovf = __builtin_add_overflow(a.i, b.i, &r);
      else if constexpr (op == Op::Sub) ovf = __builtin_sub_overflow(a.i, b.i, &r);
      else ovf = __builtin_mul_overflow(a.i, b.i, &r);
      if (ovf) return op_fail("Overflow");
      return make_int(r, t, out);
    }
    const double x = numeric_as_double(a), y = numeric_as_double(b);
    if constexpr (op == Op::Add) return make_float(x + y, t, out);
    else if constexpr (op == Op::Sub) return make_float(x - y, t, out);
    else return make_float(x * y, t, out);
  } else if constexpr (op == Op::Div) {
    const std::uint8_t t = float_result_type(wider_type(a.type, b.type));
    const double y = numeric_as_double(b);
    if (y == 0) return op_fail("Division by zero");
    return make_float(numeric_as_double(a) / y, t, out);
  } else if constexpr (op == Op::Pow) {
    const std::uint8_t t = float_result_type(wider_type(a.type, b.type));
    double r;
    if (!math_status(m_pow(numeric_as_double(a), numeric_as_double(b), &r))) return false;
    return make_float(r, t, out);
  } else if constexpr (op == Op::IntDiv || op == Op::Mod) {
    std::int64_t x, y;
    if (!int_operand(a, &x) || !int_operand(b, &y)) return false;
    if (y == 0) return op_fail("Division by zero");
    const std::uint8_t t = wider_type(int_op_type(a.type), int_op_type(b.type));
    if constexpr (op == Op::IntDiv) {
      if (x == INT64_MIN && y == -1) return op_fail("Overflow");
      return make_int(x / y, t, out);  // truncates toward zero
    } else {
      return make_int(y == -1 ? 0 : x % y, t, out);  // the sign of the dividend
    }
  } else if constexpr (op == Op::Eq || op == Op::Ne || op == Op::Lt || op == Op::Le || op == Op::Gt ||
                       op == Op::Ge) {
    const int c = compare_numbers(a, b);
    bool r;
    if constexpr (op == Op::Eq) r = c == 0;
    else if constexpr (op == Op::Ne) r = c != 0;
    else if constexpr (op == Op::Lt) r = c == -1;
    else if constexpr (op == Op::Le) r = c == -1 || c == 0;
    else if constexpr (op == Op::Gt) r = c == 1;
    else r = c == 1 || c == 0;
    set_int(out, r ? -1 : 0);
    return true;
  } else {
    std::int64_t x, y;
    if (!int_operand(a, &x) || !int_operand(b, &y)) return false;
    const std::uint8_t t = wider_type(int_op_type(a.type), int_op_type(b.type));
    std::int64_t r;
    if constexpr (op == Op::And) r = x & y;
    else if constexpr (op == Op::Or) r = x | y;
    else if constexpr (op == Op::Xor) r = x ^ y;
    else if constexpr (op == Op::Eqv) r = ~(x ^ y);
    else r = ~x | y;
    // Bitwise results of in-range operands stay in range of the wider type.
    set_int(out, r, t);
    return true;
  }
}

}  // namespace values
