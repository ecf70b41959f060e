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
std::uint8_t wider_type(std::uint8_t a, std::uint8_t b);
// Result type of / ^ and the elementary functions: at least SINGLE, INT64 counts as DOUBLE.
std::uint8_t float_result_type(std::uint8_t a);

// a op b into out; raises and returns false on failure.
[[nodiscard]] bool binary_op(Op op, const Value& a, const Value& b, Value* out);
[[nodiscard]] bool negate(const Value& a, Value* out);
[[nodiscard]] bool logical_not(const Value& a, Value* out);

// A floating result of type t: SINGLE is rounded to binary32 and raises
// "Overflow" when infinite or NaN; DOUBLE follows IEEE.
[[nodiscard]] bool make_float(double d, std::uint8_t t, Value* out);
// An integer result checked against the range of type t.
[[nodiscard]] bool make_int(std::int64_t v, std::uint8_t t, Value* out);

// Number to text as STR$ gives it: a leading blank for non-negative numbers.
// Hypercomplex values use their component form. Returns the length.
std::uint32_t number_to_text(const Value& v, char* out);

}  // namespace values
