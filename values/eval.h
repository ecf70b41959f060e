// The expression evaluator: token records in, one value record out. The
// cursor is left on the first token that does not belong to the expression.
#pragma once
#include <cstdint>

#include "core/token.h"
#include "values/types.h"
#include "values/variables.h"

namespace values {

using core::Token;

[[nodiscard]] bool eval(const Token*& t, Value* out);
[[nodiscard]] bool eval_numeric(const Token*& t, Value* out);
[[nodiscard]] bool eval_string(const Token*& t, Value* out);
[[nodiscard]] bool eval_int64(const Token*& t, std::int64_t* out);
[[nodiscard]] bool eval_double(const Token*& t, double* out);
// Consume a token of the given kind or raise `message`.
[[nodiscard]] bool expect(const Token*& t, std::uint8_t kind, const char* message);
// Advance past one expression without evaluating it (IIF's other branch).
void skip_expression(const Token*& t);

// An assignable place: a scalar, an array element, or a hypercomplex component.
struct LValue {
  void* slot = nullptr;
  std::uint8_t type = kNoType;
  Descriptor* descriptor = nullptr;
  int component = -1;  // 0..7 for X@.R and friends
  bool element = false;
};
// Parse a variable reference. Absent scalars are created (assignment, INPUT,
// READ); arrays must exist.
[[nodiscard]] bool parse_lvalue(const Token*& t, LValue* out);
// The scalar variable an identifier token names, found (or created) through
// the token's cache: the fast path for FOR and NEXT.
Descriptor* scalar_of_slow(const Token* t);
// The descriptor the token's cache holds when it is still valid, else null.
inline Descriptor* scalar_cached(const Token* t) {
  if (t->cache[1].b == table_generation() && (t->cache[0].a >> 32) == type_generation())
    return reinterpret_cast<Descriptor*>(t->cache[1].a);
  return nullptr;
}
inline Descriptor* scalar_of(const Token* t) {
  if (Descriptor* d = scalar_cached(t)) return d;
  return scalar_of_slow(t);
}
// Store through the store rule (component writes raise the kind as needed).
[[nodiscard]] bool assign(const LValue& lv, const Value& v);
// The assignment statement from its target on ("name = expression",
// "name(subscripts) = expression", "name.component = expression"); decoded
// once it has run twice. t is left behind the expression.
[[nodiscard]] bool assign_statement(const Token*& t);

// Subscripts "(" s1, ..., sn ")" converted to 64-bit integers; n <= 4 (a
// fifth is "Wrong number of subscripts" at addressing time).
[[nodiscard]] bool parse_subscripts(const Token*& t, std::int64_t* subs, int* n);

// DEF FN calls are resolved by the statement layer; the evaluator asks here.
using UserFunctionHook = bool (*)(const Token*& t, const char* name, Value* out);
extern UserFunctionHook user_function;

// A string result of the statement in hand (a temporary of the string heap).
[[nodiscard]] bool make_string(const char* p, std::uint64_t n, Value* out);

}  // namespace values
