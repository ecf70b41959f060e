// The evaluator's pieces that its pre-decoder shares: how an identifier
// resolved, its cached descriptor, one primary and the operator table.
#pragma once
#include <cstdint>

#include "values/eval.h"
#include "values/ops.h"

namespace values {

// Evaluate the expression at t through its pre-decoded form (made on the
// second evaluation and kept in the first token's evaluator cache).
[[nodiscard]] bool eval_predecoded(const Token*& t, Value* out);

namespace detail {

// What an identifier token resolved to (slot 0 of its evaluator cache).
enum : std::uint32_t { kUnresolved = 0, kPseudo = 1, kBuiltin = 2, kUserFn = 3, kArray = 4, kScalar = 5 };
std::uint32_t resolve(const Token* tok);
Descriptor* lookup(const Token* tok, bool array, bool create);
bool fail(const char* m);
[[nodiscard]] bool primary(const Token*& t, Value* v);
// The binary operator at t: its level (0 for none), operation and width in tokens.
int binary_level(const Token* t, Op* op, int* width);
// The whole expression, walked token by token.
[[nodiscard]] bool level_imp(const Token*& t, Value* v);
// A component selector (". name") after a hypercomplex primary.
[[nodiscard]] bool component_of(const Token*& t, int* index);

}  // namespace detail
}  // namespace values
