// Operators and their result types, shared by the interpreter's evaluator and
// the compiled-code runtime so both give the same value for every expression.
#pragma once
#include <cstdint>

#include "values/types.h"

namespace values {

enum class Op : std::uint8_t {
  Add, Sub, Mul, Div, IntDiv, Mod, Pow,
  Eq, Ne, Lt, Le, Gt, Ge,
  And, Or, Xor, Eqv, Imp,
};

// The wider of two numeric types for + - * (INT64 with SINGLE gives DOUBLE).
inline std::uint8_t wider_type(std::uint8_t a, std::uint8_t b) {
  if ((a == kInt64 && b == kSingle) || (a == kSingle && b == kInt64)) return kDouble;
  return a > b ? a : b;
}
// Result type of / ^ and the elementary functions: at least SINGLE, INT64 counts as DOUBLE.
inline std::uint8_t float_result_type(std::uint8_t a) { return a == kInt64 || a == kDouble ? kDouble : kSingle; }

// a op b into out; raises and returns false on failure.
[[nodiscard]] bool binary_op(Op op, const Value& a, const Value& b, Value* out);
[[nodiscard]] bool negate(const Value& a, Value* out);
[[nodiscard]] bool logical_not(const Value& a, Value* out);

// Raises message and returns false: the failure exit of the inline routines.
bool op_fail(const char* message);

// A floating result of type t: SINGLE is rounded to binary32 and raises
// "Overflow" when infinite or NaN; DOUBLE follows IEEE.
[[nodiscard]] inline bool make_float(double d, std::uint8_t t, Value* out) {
  if (t == kSingle) {
    const float f = static_cast<float>(d);
    if (f - f != 0) return op_fail("Overflow");
    set_float(out, f, kSingle);
    return true;
  }
  set_float(out, d, kDouble);
  return true;
}

inline bool int_in_range(std::int64_t v, std::uint8_t t) {
  if (t == kInteger) return v >= -32768 && v <= 32767;
  if (t == kLong) return v >= -2147483648LL && v <= 2147483647LL;
  return true;
}

// An integer result of type t. One that leaves its type widens to the next
// integer type that holds it (INTEGER -> LONG -> INT64), as classic
// interpreters print 365*24*60.
[[nodiscard]] inline bool make_int(std::int64_t v, std::uint8_t t, Value* out) {
  while (!int_in_range(v, t)) ++t;
  set_int(out, v, t);
  return true;
}

// Number to text as STR$ gives it: a leading blank for non-negative numbers.
// Hypercomplex values use their component form. Returns the length.
std::uint32_t number_to_text(const Value& v, char* out);

}  // namespace values
