// Elementary mathematics. Every routine here is the system's own: the same
// sequence of IEEE double operations on every machine, so a program prints the
// same digits on Linux and Windows. Nothing here prints or raises; the m_*
// functions return a status and the evaluator turns it into the message.
#pragma once
#include <cstdint>

namespace values {

enum class MathStatus { Ok, Overflow, IllegalFunctionCall, DivisionByZero };

// x ^ y for the "^" operator and the integer-power instruction alike.
MathStatus m_pow(double x, double y, double* out);

MathStatus m_exp(double x, double* out);   // Overflow above 709.78
MathStatus m_log(double x, double* out);   // IllegalFunctionCall for x <= 0
MathStatus m_sin(double x, double* out);   // Overflow for non-finite or |x| > 7e15
MathStatus m_cos(double x, double* out);
MathStatus m_tan(double x, double* out);   // also Overflow on a zero denominator
MathStatus m_atn(double x, double* out);   // always Ok
MathStatus m_sinh(double x, double* out);  // Overflow for |x| > 709.78
MathStatus m_cosh(double x, double* out);
MathStatus m_tanh(double x, double* out);  // always Ok
MathStatus m_sqr(double x, double* out);   // IllegalFunctionCall for x < 0

// Raw forms for the hypercomplex functions, which check their own ranges.
// exp_raw gives +INF above 709.78, 0 below -745 and NaN for NaN.
double exp_raw(double x);
// Natural logarithm of x > 0 (also of +INF and NaN, which come back as is).
double log_raw(double x);
// Sine and cosine with the shared argument reduction; false (outputs untouched)
// when the argument is not finite or |x| > 7e15.
bool sincos_raw(double x, double* s, double* c);
double atan_raw(double x);
// Principal argument of the point (x, y), in [-pi, pi]; atan2_own(0, 0) is 0.
double atan2_own(double y, double x);
// e^x - 1 without the cancellation near 0; needs |x| < 709.
double expm1_raw(double x);
// Hyperbolic functions without the overflow checks (they give +-INF instead).
double sinh_raw(double x);
double cosh_raw(double x);
double tanh_raw(double x);

// Helpers shared with the number printer and the store rule.
double floor_own(double x);
double trunc_own(double x);
// x * 2^n for any int n, correctly rounded when the result is subnormal.
double scale2(double x, int n);

}  // namespace values
