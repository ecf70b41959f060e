// Built-in functions and pseudo-variables, resolved by name once per token.
#pragma once
#include "values/eval.h"

namespace values {

// Index into the function table, or -1.
int find_builtin(const char* name);
// t is just past the function name; parses its own arguments.
[[nodiscard]] bool call_builtin(int index, const Token*& t, Value* out);

// Index of a pseudo-variable (TIMER, ERR, FREETOP, ...), or -1.
int find_pseudo(const char* name);
[[nodiscard]] bool pseudo_value(int index, const Token*& t, Value* out);

// EVAL's nesting depth (16 at most).
extern int eval_depth;

}  // namespace values
