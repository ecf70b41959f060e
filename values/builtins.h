// Built-in functions and pseudo-variables, resolved by name once per token.
#pragma once
#include "values/eval.h"

namespace values {

// A group of built-in functions; each subsystem (screen, files, ...) brings
// its own and the evaluator searches them in order.
struct Builtin {
  const char* name;
  bool (*fn)(const Token*& t, Value* out);
};
struct BuiltinGroup {
  const Builtin* rows;
  int count;
};

// Helpers for functions that parse their own arguments.
// "(" a1, ..., an ")" with min <= n <= max.
[[nodiscard]] bool parse_args(const Token*& t, Value* a, int min, int max, int* count = nullptr);
[[nodiscard]] bool arg_int(const Value& v, std::int64_t* out);   // numbers only ("Type mismatch")
[[nodiscard]] bool arg_string(const Value& v);                   // "Type mismatch" unless a string

// The one-argument numeric functions on an evaluated argument: the same
// routine serves the evaluator and compiled code.
enum class NumFn : std::uint8_t { Sqr, Sin, Cos, Tan, Atn, Log, Exp, Abs, Sgn, Int, Fix, Cint, Csng, Cdbl, Sinh, Cosh, Tanh };
[[nodiscard]] bool numeric_function(NumFn f, const Value& a, Value* out);

// Index into the function tables, or -1.
int find_builtin(const char* name);
// t is just past the function name; parses its own arguments.
[[nodiscard]] bool call_builtin(int index, const Token*& t, Value* out);

// Index of a pseudo-variable (TIMER, ERR, FREETOP, ...), or -1.
int find_pseudo(const char* name);
[[nodiscard]] bool pseudo_value(int index, const Token*& t, Value* out);
// The pseudo-variable names by index; nullptr past the end.
const char* pseudo_name(int index);

// EVAL's nesting depth (16 at most).
extern int eval_depth;
// TIMER(n): the interval in ms of each of the eight programmable timers.
extern std::int64_t timer_interval_ms[8];

}  // namespace values
