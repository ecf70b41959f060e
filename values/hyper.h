// Hypercomplex values: complex (kind 2), quaternion (4) and octonion (8)
// numbers in one 72-byte record, multiplied by Cayley-Dickson doubling.
#pragma once
#include <cstdint>

#include "values/ops.h"
#include "values/types.h"

namespace values {

// The kind as stored values treat it: 4 and 8 are themselves, anything else 2.
inline std::uint64_t hyper_kind(const Hyper& h) { return h.kind == 4 || h.kind == 8 ? h.kind : 2; }
// A number or @ value as a record (numbers become kind 2); false for strings.
bool to_hyper(const Value& v, Hyper* out);

[[nodiscard]] bool hyper_binary(Op op, const Value& a, const Value& b, Value* out);
[[nodiscard]] bool hyper_negate(const Value& a, Value* out);
void hyper_multiply(const Hyper& x, const Hyper& y, Hyper* out);
Hyper hyper_conj(const Hyper& x);
double hyper_norm2(const Hyper& x);
[[nodiscard]] bool hyper_inverse(const Hyper& x, Hyper* out);

// Component names after the dot: R, I/E1, J/E2, K/E3, E4..E7; -1 when unknown.
int component_index(const char* name);

// The transcendental functions as principal values. `fn` is one of
// "EXP", "LOG", "SQR", "SIN", "COS", "TAN", "SINH", "COSH", "TANH".
[[nodiscard]] bool hyper_function(const char* fn, const Hyper& x, Hyper* out);
// x ^ r for a real exponent r: EXP(r * LOG(x)); 0 ^ r is 0 for r > 0.
[[nodiscard]] bool hyper_power(const Hyper& x, double r, Hyper* out);

// Text form: c0, then each further component with its sign and unit
// (" 1+2i", "-1-0.5j+..."). A leading blank for non-negative c0 when asked.
std::uint32_t hyper_to_text(const Hyper& h, char* out, bool sign_position = true);

}  // namespace values
