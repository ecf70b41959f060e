// The elementary functions. EXP, LOG, power, the trigonometric reduction and
// the hyperbolic functions follow fixed recipes whose constants and operation
// order decide every bit of the result; ATN and TANH are built the same way
// (reduction plus a polynomial) but carry a little extra precision so they
// stay within about one unit in the last place. Only +, -, *, / and the IEEE
// square root are used, so the results do not depend on the C library.
#include "values/mathlib.h"

#include <bit>
#include <cmath>  // std::sqrt only: IEEE-754 requires it to be correctly rounded
#include <cstdint>
#include <limits>

namespace values {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// ln 2 and pi/2 split into parts; the high parts have enough trailing zero
// bits that k * high is exact for every k the reductions produce.
constexpr double kLn2Hi = 0.6931471803691238;
constexpr double kLn2Lo = 1.9082149292705877e-10;
constexpr double kInvLn2 = 1.4426950408889634;
constexpr double kTwoOverPi = 0.6366197723675814;
constexpr double kPio2Part1 = 1.5707963267341256;
constexpr double kPio2Part2 = 6.077100506506192e-11;
constexpr double kPio2Part3 = 2.0222662487959506e-21;

// pi/2 and pi as double-double (high part is the nearest double).
constexpr double kPio2Hi = 0x1.921fb54442d18p+0;
constexpr double kPio2Lo = 0x1.1a62633145c07p-54;
constexpr double kPiHi = 0x1.921fb54442d18p+1;
constexpr double kPiLo = 0x1.1a62633145c07p-53;

std::uint64_t bits_of(double x) { return std::bit_cast<std::uint64_t>(x); }
double from_bits(std::uint64_t b) { return std::bit_cast<double>(b); }

double abs_own(double x) { return from_bits(bits_of(x) & ~(std::uint64_t{1} << 63)); }
bool sign_bit(double x) { return (bits_of(x) >> 63) != 0; }
bool is_nan(double x) { return x != x; }

// 2^n for n in [-1022, 1023], straight from the exponent field.
double pow2(int n) { return from_bits(static_cast<std::uint64_t>(n + 1023) << 52); }

// Error-free transformations (Knuth's two-sum, Dekker's product). They rely on
// each operation being rounded on its own, which holds without FMA contraction.
void two_sum(double a, double b, double* s, double* e) {
  *s = a + b;
  double bb = *s - a;
  *e = (a - (*s - bb)) + (b - bb);
}

void split(double a, double* hi, double* lo) {
  double c = 134217729.0 * a;  // 2^27 + 1
  *hi = c - (c - a);
  *lo = a - *hi;
}

void two_prod(double a, double b, double* p, double* e) {
  *p = a * b;
  double ah, al, bh, bl;
  split(a, &ah, &al);
  split(b, &bh, &bl);
  *e = ((ah * bh - *p) + ah * bl + al * bh) + al * bl;
}

// ---------------------------------------------------------------------------
// Sine and cosine of a reduced argument |r| <= pi/4: Taylor polynomials with
// coefficients 1/n!, sine through r^13 and cosine through r^14.

constexpr double inv_fact(int n) {
  double f = 1;
  for (int i = 2; i <= n; ++i) f *= i;  // exact up to 22!
  return 1.0 / f;
}

double sin_poly(double r) {
  double z = r * r;
  double p = -inv_fact(13);
  p = p * z + inv_fact(11);
  p = p * z - inv_fact(9);
  p = p * z + inv_fact(7);
  p = p * z - inv_fact(5);
  p = p * z + inv_fact(3);
  // p now holds 1/3! - z/5! + ...; sin r = r - r z p.
  return r - r * z * p;
}

double cos_poly(double r) {
  double z = r * r;
  double p = inv_fact(14);
  p = p * z - inv_fact(12);
  p = p * z + inv_fact(10);
  p = p * z - inv_fact(8);
  p = p * z + inv_fact(6);
  p = p * z - inv_fact(4);
  p = p * z + inv_fact(2);
  // p = 1/2! - z/4! + ...; cos r = 1 - z p.
  return 1 - z * p;
}

// Reduce x to r in about [-pi/4, pi/4] and the quadrant k mod 4.
bool reduce_quadrant(double x, double* r, int* quadrant) {
  if (!(abs_own(x) <= 7e15)) return false;  // also rejects NaN and infinities
  double k = floor_own(x * kTwoOverPi + 0.5);
  *r = x - k * kPio2Part1 - k * kPio2Part2 - k * kPio2Part3;
  *quadrant = static_cast<int>(static_cast<std::int64_t>(k) & 3);
  return true;
}

// ---------------------------------------------------------------------------
// Arctangent of v = vh + vl in [0, 1], as a double-double.
//
// v is moved next to the nearest c = i/8 and atan(v) = atan(c) + atan(t) with
// t = (v - c) / (1 + v c), so |t| <= 1/16 and the odd Taylor series through
// t^15 is exact to 2^-64. t is formed in double-double, and atan(c) is stored
// as a double-double, so the only error worth counting is the final rounding.

struct DD {
  double hi, lo;
};

constexpr DD kAtanEighths[9] = {
    {0.0, 0.0},
    {0x1.fd5ba9aac2f6ep-4, -0x1.cd37686760c17p-59},
    {0x1.f5b75f92c80ddp-3, 0x1.8ab6e3cf7afbdp-57},
    {0x1.6f61941e4def1p-2, -0x1.c63aae6f6e918p-56},
    {0x1.dac670561bb4fp-2, 0x1.a2b7f222f65e2p-56},
    {0x1.1e00babdefeb4p-1, -0x1.928df287a668fp-58},
    {0x1.4978fa3269ee1p-1, 0x1.2419a87f2a458p-56},
    {0x1.700a7c5784634p-1, -0x1.8c34d25aadef6p-56},
    {0x1.921fb54442d18p-1, 0x1.1a62633145c07p-55},
};

DD atan_unit(double vh, double vl) {
  int i = static_cast<int>(vh * 8 + 0.5);
  if (i > 8) i = 8;
  double th = vh, tl = vl;
  if (i > 0) {
    double c = i * 0.125;
    double nh = vh - c;  // exact: vh lies within [c/2, 2c]
    double p, pe, dh, de;
    two_prod(vh, c, &p, &pe);
    two_sum(1.0, p, &dh, &de);
    double dl = de + pe + vl * c;
    double q = nh / dh, qh, ql;
    two_prod(q, dh, &qh, &ql);
    th = q;
    tl = (((nh - qh) - ql) + vl - q * dl) / dh;
  }
  double z = th * th;
  double p = -1.0 / 15;
  p = p * z + 1.0 / 13;
  p = p * z - 1.0 / 11;
  p = p * z + 1.0 / 9;
  p = p * z - 1.0 / 7;
  p = p * z + 1.0 / 5;
  p = p * z - 1.0 / 3;
  double tail = th * z * p;  // atan(t) - t
  const DD& a = kAtanEighths[i];
  double s, se;
  two_sum(a.hi, th, &s, &se);
  double lo = se + a.lo + tl + tail;
  DD out;
  two_sum(s, lo, &out.hi, &out.lo);
  return out;
}

// (ah + al) - (bh + bl), renormalised.
DD dd_sub(double ah, double al, double bh, double bl) {
  double s, e;
  two_sum(ah, -bh, &s, &e);
  DD out;
  two_sum(s, e + al - bl, &out.hi, &out.lo);
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// Bit-level helpers.

double floor_own(double x) {
  if (!(abs_own(x) < 4503599627370496.0)) return x;  // 2^52: already whole, or NaN
  double t = static_cast<double>(static_cast<std::int64_t>(x));
  return t > x ? t - 1 : t;
}

double trunc_own(double x) {
  if (!(abs_own(x) < 4503599627370496.0)) return x;
  return static_cast<double>(static_cast<std::int64_t>(x));
}

double scale2(double x, int n) {
  if (n > 1023) {
    x *= pow2(1023);
    n -= 1023;
    if (n > 1023) {
      x *= pow2(1023);
      n -= 1023;
      if (n > 1023) n = 1023;
    }
  } else if (n < -1022) {
    // Stay clear of the subnormal range in the first step (2^-969 keeps a
    // value near 1 normal and exact), so a subnormal result is rounded once.
    x *= pow2(-1022 + 53);
    n += 1022 - 53;
    if (n < -1022) {
      x *= pow2(-1022 + 53);
      n += 1022 - 53;
      if (n < -1022) n = -1022;
    }
  }
  return x * pow2(n);
}

// ---------------------------------------------------------------------------
// EXP and LOG.

double exp_raw(double x) {
  if (is_nan(x)) return x;
  if (x > 709.78) return kInf;
  if (x < -745.0) return 0.0;
  double k = floor_own(x * kInvLn2 + 0.5);
  double r = x - k * kLn2Hi - k * kLn2Lo;
  double p = r / 13 + 1;
  for (int n = 12; n >= 1; --n) p = p * r / n + 1;
  return scale2(p, static_cast<int>(k));
}

namespace {

// e^x - 1 as a double-double. The reduced argument keeps its rounding error
// (rl), and e^r - 1 is split into r plus the small remainder h, so the large
// terms are added exactly and the total error stays well under one ulp.
DD expm1_dd(double x) {
  double k = floor_own(x * kInvLn2 + 0.5);
  double rk = x - k * kLn2Hi;  // exact
  double klo = k * kLn2Lo;
  double r = rk - klo;
  double rl = (rk - r) - klo;
  double z = r * r;
  double p = inv_fact(13);
  for (int n = 12; n >= 3; --n) p = p * r + inv_fact(n);
  double h = z * 0.5 + r * z * p + rl * (1 + r);  // e^r - 1 - r, with r's tail
  int ki = static_cast<int>(k);
  DD out;
  if (ki == 0) {
    two_sum(r, h, &out.hi, &out.lo);
  } else if (ki >= -53 && ki <= 53) {
    // e^x - 1 = (2^k - 1) + 2^k r + 2^k h; the first two are exact.
    double s, e;
    two_sum(scale2(1.0, ki) - 1, scale2(r, ki), &s, &e);
    two_sum(s, e + scale2(h, ki), &out.hi, &out.lo);
  } else {
    out.hi = scale2(1 + (r + h), ki) - 1;
    out.lo = 0;
  }
  return out;
}

}  // namespace

double expm1_raw(double x) {
  if (is_nan(x) || x == 0) return x;
  return expm1_dd(x).hi;
}

double log_raw(double x) {
  if (is_nan(x) || x == kInf) return x;
  int e = 0;
  if ((bits_of(x) >> 52) == 0) {  // subnormal (x > 0 is the caller's business)
    x *= 18014398509481984.0;     // 2^54
    e = -54;
  }
  std::uint64_t b = bits_of(x);
  e += static_cast<int>(b >> 52) - 1023;
  double m = from_bits((b & 0x000FFFFFFFFFFFFFull) | 0x3FF0000000000000ull);
  if (m > 1.4142135623730951) {
    m *= 0.5;
    e += 1;
  }
  double s = (m - 1) / (m + 1);
  double z = s * s;
  double S = 1.0 / 15;
  S = S * z + 1.0 / 13;
  S = S * z + 1.0 / 11;
  S = S * z + 1.0 / 9;
  S = S * z + 1.0 / 7;
  S = S * z + 1.0 / 5;
  S = S * z + 1.0 / 3;
  double ed = e;
  return ed * kLn2Hi + 2 * s * (1 + z * S) + ed * kLn2Lo;
}

MathStatus m_exp(double x, double* out) {
  if (x > 709.78) return MathStatus::Overflow;
  *out = exp_raw(x);
  return MathStatus::Ok;
}

MathStatus m_log(double x, double* out) {
  if (x <= 0) return MathStatus::IllegalFunctionCall;
  *out = log_raw(x);
  return MathStatus::Ok;
}

// ---------------------------------------------------------------------------
// Power.

MathStatus m_pow(double x, double y, double* out) {
  if (y == 0) {
    *out = 1;
    return MathStatus::Ok;
  }
  if (x == 0) {
    if (y > 0) {
      *out = 0;
      return MathStatus::Ok;
    }
    if (y < 0) return MathStatus::DivisionByZero;
  }
  double ay = abs_own(y);
  if (ay <= 65536 && floor_own(y) == y) {
    // Square-and-multiply over the bits of |y|, lowest bit first.
    unsigned n = static_cast<unsigned>(ay);
    double base = x, acc = 1;
    for (;;) {
      if (n & 1) acc *= base;
      n >>= 1;
      if (n == 0) break;
      base *= base;
    }
    if (y < 0) acc = 1 / acc;
    if (abs_own(acc) == kInf) return MathStatus::Overflow;
    *out = acc;
    return MathStatus::Ok;
  }
  if (x > 0) return m_exp(log_raw(x) * y, out);
  if (x < 0) return MathStatus::IllegalFunctionCall;
  *out = kNaN;  // x is NaN (x = 0 with a NaN exponent lands here too)
  return MathStatus::Ok;
}

// ---------------------------------------------------------------------------
// SIN, COS, TAN.

bool sincos_raw(double x, double* s, double* c) {
  double r;
  int q;
  if (!reduce_quadrant(x, &r, &q)) return false;
  double sr = sin_poly(r), cr = cos_poly(r);
  switch (q) {
    case 0: *s = sr, *c = cr; break;
    case 1: *s = cr, *c = -sr; break;
    case 2: *s = -sr, *c = -cr; break;
    default: *s = -cr, *c = sr; break;
  }
  return true;
}

MathStatus m_sin(double x, double* out) {
  double s, c;
  if (!sincos_raw(x, &s, &c)) return MathStatus::Overflow;
  *out = s;
  return MathStatus::Ok;
}

MathStatus m_cos(double x, double* out) {
  double s, c;
  if (!sincos_raw(x, &s, &c)) return MathStatus::Overflow;
  *out = c;
  return MathStatus::Ok;
}

MathStatus m_tan(double x, double* out) {
  double s, c;
  if (!sincos_raw(x, &s, &c) || c == 0) return MathStatus::Overflow;
  *out = s / c;
  return MathStatus::Ok;
}

// ---------------------------------------------------------------------------
// ATN and the principal argument.

double atan_raw(double x) {
  if (is_nan(x)) return x;
  double a = abs_own(x), r;
  if (a < 0x1p-27) return x;  // x^3/3 is below half an ulp of x
  if (a <= 1) {
    r = atan_unit(a, 0).hi;
  } else if (a < 0x1p54) {
    // atan(a) = pi/2 - atan(1/a), with 1/a carried as a double-double.
    double yh = 1 / a, p, pe;
    two_prod(yh, a, &p, &pe);
    double yl = ((1 - p) - pe) / a;
    DD t = atan_unit(yh, yl);
    r = dd_sub(kPio2Hi, kPio2Lo, t.hi, t.lo).hi;
  } else {
    r = kPio2Hi;  // 1/a is below half an ulp of pi/2
  }
  return sign_bit(x) ? -r : r;
}

MathStatus m_atn(double x, double* out) {
  *out = atan_raw(x);
  return MathStatus::Ok;
}

double atan2_own(double y, double x) {
  if (is_nan(x) || is_nan(y)) return kNaN;
  bool neg = sign_bit(y), left = x < 0;
  double ax = abs_own(x), ay = abs_own(y);
  DD a;
  if (ax == 0 && ay == 0) return 0.0;
  if (ax == kInf || ay == kInf) {
    if (ax == kInf && ay == kInf) a = {kPio2Hi / 2, kPio2Lo / 2};
    else if (ay == kInf) a = {kPio2Hi, kPio2Lo};
    else a = {0.0, 0.0};
  } else {
    // Scale so the larger magnitude lies in [1, 2): the ratio is then formed
    // as a double-double without overflow in Dekker's product.
    bool steep = ay > ax;
    double big = steep ? ay : ax, small = steep ? ax : ay;
    int e = static_cast<int>(bits_of(big) >> 52) - 1023;
    if (e == -1023) {  // subnormal: normalise first
      big *= 18014398509481984.0;
      small *= 18014398509481984.0;
      e = static_cast<int>(bits_of(big) >> 52) - 1023;
    }
    big = scale2(big, -e);
    small = scale2(small, -e);
    double qh = small / big, p, pe;
    two_prod(qh, big, &p, &pe);
    double ql = ((small - p) - pe) / big;
    a = atan_unit(qh, ql);
    if (steep) a = dd_sub(kPio2Hi, kPio2Lo, a.hi, a.lo);
  }
  if (left) a = dd_sub(kPiHi, kPiLo, a.hi, a.lo);
  return neg ? -a.hi : a.hi;
}

// ---------------------------------------------------------------------------
// Hyperbolic functions.

double cosh_raw(double x) {
  double a = abs_own(x);
  if (a < 1e-5) {
    double z = x * x;
    return 1 + z / 2 + z * z / 24 + z * z * z / 720;
  }
  double e = exp_raw(a);
  return (e + 1 / e) / 2;
}

double sinh_raw(double x) {
  double a = abs_own(x);
  if (a < 1e-5) {
    double z = x * x;
    return x * (1 + z / 6 + z * z / 120 + z * z * z / 5040);
  }
  double e = exp_raw(a);
  double r = (e - 1 / e) / 2;
  return sign_bit(x) ? -r : r;
}

double tanh_raw(double x) {
  if (is_nan(x)) return x;
  double a = abs_own(x), r;
  if (a < 0x1p-28) {
    r = a;  // the series x - x^3/3 + ... has settled at its first term
  } else if (a >= 22) {
    r = 1;  // 1 - tanh(22) < 2^-62
  } else {
    // tanh a = u / (u + 2) with u = e^(2a) - 1, divided in double-double so
    // that neither the sum nor the quotient adds a rounding of its own.
    DD u = expm1_dd(2 * a);
    double dh, de;
    two_sum(u.hi, 2.0, &dh, &de);
    double dl = de + u.lo;
    double th = u.hi / dh, p, pe;
    two_prod(th, dh, &p, &pe);
    double tl = (((u.hi - p) - pe) + u.lo - th * dl) / dh;
    r = th + tl;
  }
  return sign_bit(x) ? -r : r;
}

MathStatus m_cosh(double x, double* out) {
  if (abs_own(x) > 709.78) return MathStatus::Overflow;
  *out = cosh_raw(x);
  return MathStatus::Ok;
}

MathStatus m_sinh(double x, double* out) {
  if (abs_own(x) > 709.78) return MathStatus::Overflow;
  *out = sinh_raw(x);
  return MathStatus::Ok;
}

MathStatus m_tanh(double x, double* out) {
  *out = tanh_raw(x);
  return MathStatus::Ok;
}

MathStatus m_sqr(double x, double* out) {
  if (x < 0) return MathStatus::IllegalFunctionCall;
  *out = std::sqrt(x);
  return MathStatus::Ok;
}

}  // namespace values
