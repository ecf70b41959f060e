// The elementary functions against a binary128 reference, the fixed edge
// cases of power, EXP, LOG and the trigonometric reduction, and the RND
// generator. The accuracy bounds were measured over the samples below and set
// a little above; where the prescribed recipe itself limits the accuracy
// (LOG's series, the Taylor sine and cosine, SINH's difference of
// exponentials) the bound is expressed in terms of that limit.
#include <gtest/gtest.h>
#include <quadmath.h>

#include <cstdint>
#include <limits>

#include "values/mathlib.h"
#include "values/rnd.h"

using namespace values;

namespace {

using Q = __float128;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kMinSub = std::numeric_limits<double>::denorm_min();

// Size of one unit in the last place of a double near |ref|.
Q ulp_of(Q ref) {
  if (ref < 0) ref = -ref;
  int e;
  frexpq(ref, &e);  // ref = f * 2^e, f in [0.5, 1)
  int ue = e - 53;
  if (ue < -1074) ue = -1074;
  return ldexpq(1, ue);
}

double ulps(double got, Q ref) {
  Q d = static_cast<Q>(got) - ref;
  if (d < 0) d = -d;
  return static_cast<double>(d / ulp_of(ref));
}

double abs_err(double got, Q ref) {
  Q d = static_cast<Q>(got) - ref;
  return static_cast<double>(d < 0 ? -d : d);
}

// xorshift64: the samples are the same on every run.
struct Sampler {
  std::uint64_t s = 0x9E3779B97F4A7C15ull;
  double unit() {  // [0, 1)
    s ^= s << 13, s ^= s >> 7, s ^= s << 17;
    return static_cast<double>(s >> 11) * 0x1p-53;
  }
  double in(double lo, double hi) { return lo + (hi - lo) * unit(); }
  // Any magnitude with binary exponent in [elo, ehi), either sign.
  double wide(int elo, int ehi) {
    double m = 1 + unit();
    int e = elo + static_cast<int>(unit() * (ehi - elo));
    double x = static_cast<double>(ldexpq(m, e));
    return unit() < 0.5 ? -x : x;
  }
};

constexpr int kSamples = 100000;

double status_value(MathStatus (*f)(double, double*), double x) {
  double out = -12345;
  EXPECT_EQ(f(x, &out), MathStatus::Ok) << "x = " << x;
  return out;
}

// ---------------------------------------------------------------------------
// Accuracy

TEST(MathAccuracy, ExpOverItsWholeRange) {
  Sampler s;
  double worst = 0, worst_sub = 0;
  for (int i = 0; i < kSamples; ++i) {
    double x = s.in(-745, 709.78);
    worst = std::max(worst, ulps(exp_raw(x), expq(x)));
  }
  // Deep in the subnormal range the polynomial's error is far below the grid
  // spacing, so a result rounded once (not twice) is the nearest grid point.
  for (int i = 0; i < kSamples / 4; ++i) {
    double x = s.in(-745, -720);
    worst_sub = std::max(worst_sub, ulps(exp_raw(x), expq(x)));
  }
  EXPECT_LE(worst, 1.2);      // measured 1.14
  EXPECT_LE(worst_sub, 0.51);
}

TEST(MathAccuracy, LogOverEveryExponentIncludingSubnormals) {
  // The series stops at s^15, which leaves up to 2|s|^17/17 ~ 1.14e-14 absolute
  // when the mantissa is near the square root of 2: about 212 ulp for results
  // near +-0.35. Large results dilute it.
  Sampler s;
  double worst = 0, worst_far = 0;
  for (int i = 0; i < kSamples; ++i) {
    double x = s.wide(-1074, 1024);
    if (x < 0) x = -x;
    Q ref = logq(x);
    double got = status_value(m_log, x);
    worst = std::max(worst, ulps(got, ref));
    EXPECT_LE(abs_err(got, ref), 1.15e-14 + 1.5 * static_cast<double>(ulp_of(ref))) << x;
    if (x > 0x1p100 || x < 0x1p-100) worst_far = std::max(worst_far, ulps(got, ref));
  }
  EXPECT_LE(worst, 215.0);     // measured 212
  EXPECT_LE(worst_far, 2.5);
}

// The Taylor sine (through r^13) and cosine (through r^14) leave up to
// (pi/4)^15/15! ~ 2.0e-14 absolute; the reduction adds k * 2.03e-21, the amount
// by which its three parts of pi/2 exceed pi/2.
constexpr double kTrigAbs = 2.05e-14;

TEST(MathAccuracy, SinCosTanOverAWideRange) {
  Sampler s;
  double worst_near = 0;
  for (int i = 0; i < kSamples; ++i) {
    double x = s.in(-1e6, 1e6);
    double sn = status_value(m_sin, x), cs = status_value(m_cos, x), tn = status_value(m_tan, x);
    double slack = kTrigAbs + 2.1e-21 * (x < 0 ? -x : x) / 1.57;
    EXPECT_LE(abs_err(sn, sinq(x)), slack) << x;
    EXPECT_LE(abs_err(cs, cosq(x)), slack) << x;
    // A tangent's error grows with its derivative 1 + tan^2.
    Q t = tanq(x);
    EXPECT_LE(abs_err(tn, t), static_cast<double>(2 * slack * (1 + t * t)) + static_cast<double>(ulp_of(t))) << x;
  }
  for (int i = 0; i < kSamples; ++i) {
    double x = s.in(-0.785, 0.785);  // no reduction: a relative bound holds
    worst_near = std::max(worst_near, ulps(status_value(m_sin, x), sinq(x)));
  }
  EXPECT_LE(worst_near, 200.0);
}

TEST(MathAccuracy, TrigNearMultiplesOfHalfPi) {
  // Here the result is tiny and its error is the reduction's: at most the
  // excess of the three-part pi/2 per multiple plus roundings far below it.
  Q pio2 = 2 * atanq(1);
  for (std::int64_t k = -200000; k <= 200000; k += 997) {
    double x0 = static_cast<double>(k * pio2);
    for (double x : {x0, __builtin_nextafter(x0, -kInf), __builtin_nextafter(x0, kInf)}) {
      double sn, cs;
      ASSERT_TRUE(sincos_raw(x, &sn, &cs));
      double bound = 2.1e-21 * static_cast<double>(k < 0 ? -k : k) + 1e-30 + 1.2e-16 * 1e-14;
      if (k % 2 == 0) {
        EXPECT_LE(abs_err(sn, sinq(x)), bound) << k;
        EXPECT_EQ(cs, k % 4 == 0 ? 1.0 : -1.0);
      } else {
        EXPECT_LE(abs_err(cs, cosq(x)), bound) << k;
        EXPECT_EQ(sn, (k % 4 + 4) % 4 == 1 ? 1.0 : -1.0);
      }
    }
  }
}

TEST(MathAccuracy, AtnAtAllMagnitudes) {
  Sampler s;
  double worst = 0;
  for (int i = 0; i < kSamples; ++i) {
    double x = s.wide(-1074, 1024);
    worst = std::max(worst, ulps(status_value(m_atn, x), atanq(x)));
  }
  for (int i = 0; i < kSamples; ++i) {  // the table breakpoints and 1/x switch
    double x = s.in(-3, 3);
    worst = std::max(worst, ulps(atan_raw(x), atanq(x)));
  }
  EXPECT_LE(worst, 0.55);  // measured 0.50
}

TEST(MathAccuracy, PrincipalArgument) {
  Sampler s;
  double worst = 0;
  for (int i = 0; i < kSamples; ++i) {
    double y = s.wide(-300, 300), x = s.wide(-300, 300);
    if (i % 4 == 0) x = s.in(-1, 1), y = s.in(-1, 1);
    worst = std::max(worst, ulps(atan2_own(y, x), atan2q(y, x)));
  }
  EXPECT_LE(worst, 0.55);  // measured 0.50
  double pi = static_cast<double>(4 * atanq(1));
  EXPECT_EQ(atan2_own(0.0, -1.0), pi);
  EXPECT_EQ(atan2_own(-0.0, -1.0), -pi);
  EXPECT_EQ(atan2_own(1.0, 0.0), pi / 2);
  EXPECT_EQ(atan2_own(-1e308, 1e-308), -pi / 2);
  EXPECT_EQ(atan2_own(0.0, 0.0), 0.0);
  EXPECT_EQ(atan2_own(kInf, -kInf), 3 * pi / 4);
  EXPECT_EQ(atan2_own(kMinSub, 1.0), kMinSub);
}

TEST(MathAccuracy, Hyperbolics) {
  Sampler s;
  double worst_sinh = 0, worst_cosh = 0, worst_tanh = 0, worst_series = 0;
  for (int i = 0; i < kSamples; ++i) {
    double x = s.in(-700, 700);
    worst_cosh = std::max(worst_cosh, ulps(status_value(m_cosh, x), coshq(x)));
    if (x > 1 || x < -1) worst_sinh = std::max(worst_sinh, ulps(status_value(m_sinh, x), sinhq(x)));
  }
  for (int i = 0; i < kSamples; ++i) {
    // (E - 1/E) / 2 cancels for small x: the absolute error stays near that
    // of E itself, about 1.8e-16.
    double x = s.in(-1, 1);
    double got = sinh_raw(x);
    Q ref = sinhq(x);
    if (x > 1e-5 || x < -1e-5) {
      EXPECT_LE(abs_err(got, ref), 2.3e-16 + 1.5 * static_cast<double>(ulp_of(ref))) << x;
    }
    double t = s.in(-1e-5, 1e-5);
    worst_series = std::max(worst_series, ulps(sinh_raw(t), sinhq(t)));
    worst_series = std::max(worst_series, ulps(cosh_raw(t), coshq(t)));
  }
  for (int i = 0; i < kSamples; ++i) {
    double x = i % 2 ? s.in(-25, 25) : s.wide(-1074, 6);
    worst_tanh = std::max(worst_tanh, ulps(status_value(m_tanh, x), tanhq(x)));
  }
  EXPECT_LE(worst_sinh, 1.5);    // measured 1.43
  EXPECT_LE(worst_cosh, 1.3);    // measured 1.24
  EXPECT_LE(worst_series, 1.5);  // measured 1.44: 1 + x^2/6 rounds, then the product
  EXPECT_LE(worst_tanh, 0.75);   // measured 0.69
}

TEST(MathAccuracy, Expm1KeepsSmallResults) {
  Sampler s;
  double worst = 0;
  for (int i = 0; i < kSamples; ++i) {
    double x = i % 2 ? s.in(-40, 40) : s.wide(-1074, 3);
    worst = std::max(worst, ulps(expm1_raw(x), expm1q(x)));
  }
  EXPECT_LE(worst, 1.3);  // measured 1.24
}

TEST(MathAccuracy, PowerFollowsLogError) {
  // Fractional exponents go through EXP(LOG(x) * y): LOG's absolute error
  // (series plus rounding), multiplied by y, becomes the relative error of
  // the result.
  Sampler s;
  for (int i = 0; i < kSamples / 4; ++i) {
    double x = s.in(1e-3, 1e3), y = s.in(-40, 40);
    double got;
    if (y == static_cast<double>(static_cast<std::int64_t>(y))) continue;
    if (m_pow(x, y, &got) != MathStatus::Ok) continue;
    Q ref = powq(x, y);
    double rel = static_cast<double>(((static_cast<Q>(got) - ref) / ref));
    double ay = y < 0 ? -y : y, lx = static_cast<double>(logq(x));
    double bound = ay * 1.15e-14 + ay * (lx < 0 ? -lx : lx) * 3.5e-16 + 2.6e-16;
    EXPECT_LE(rel < 0 ? -rel : rel, bound) << x << " ^ " << y;
  }
  // Whole exponents multiply; small ones stay within a few roundings.
  double worst = 0;
  for (int i = 0; i < kSamples / 4; ++i) {
    double x = s.in(-3, 3), got;
    int n = static_cast<int>(s.in(-12, 13));
    ASSERT_EQ(m_pow(x, n, &got), MathStatus::Ok);
    worst = std::max(worst, ulps(got, powq(x, n)));
  }
  EXPECT_LE(worst, 8.0);  // measured 7.25: each squaring doubles the error so far
}

// ---------------------------------------------------------------------------
// Edge cases

TEST(MathEdges, Power) {
  double v = -1;
  EXPECT_EQ(m_pow(0, 0, &v), MathStatus::Ok);
  EXPECT_EQ(v, 1.0);
  EXPECT_EQ(m_pow(kNaN, 0, &v), MathStatus::Ok);
  EXPECT_EQ(v, 1.0);
  EXPECT_EQ(m_pow(0, 2.5, &v), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  EXPECT_EQ(m_pow(0, -1, &v), MathStatus::DivisionByZero);
  EXPECT_EQ(m_pow(0, -0.5, &v), MathStatus::DivisionByZero);
  EXPECT_EQ(m_pow(-8, 1.0 / 3, &v), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(m_pow(-2, 3, &v), MathStatus::Ok);
  EXPECT_EQ(v, -8.0);
  EXPECT_EQ(m_pow(-2, -1, &v), MathStatus::Ok);
  EXPECT_EQ(v, -0.5);
  EXPECT_EQ(m_pow(3, 20, &v), MathStatus::Ok);
  EXPECT_EQ(v, 3486784401.0);
  EXPECT_EQ(m_pow(0.5, 1074, &v), MathStatus::Ok);
  EXPECT_EQ(v, kMinSub);
  EXPECT_EQ(m_pow(2, 1023, &v), MathStatus::Ok);
  EXPECT_EQ(v, 0x1p1023);
  EXPECT_EQ(m_pow(2, 1024, &v), MathStatus::Overflow);
  EXPECT_EQ(m_pow(10, 400, &v), MathStatus::Overflow);
  EXPECT_EQ(m_pow(10, -400, &v), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  EXPECT_EQ(m_pow(1, 65536, &v), MathStatus::Ok);
  EXPECT_EQ(v, 1.0);
  // Past 65536 a whole exponent goes through LOG, so a negative base fails.
  EXPECT_EQ(m_pow(-1, 65536, &v), MathStatus::Ok);
  EXPECT_EQ(m_pow(-1, 65537, &v), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(m_pow(2, 1e6, &v), MathStatus::Overflow);
  // A fractional exponent is EXP(LOG(x) * y), bit for bit.
  EXPECT_EQ(m_pow(2, 0.5, &v), MathStatus::Ok);
  EXPECT_EQ(v, exp_raw(log_raw(2) * 0.5));
  EXPECT_NEAR(v, 1.4142135623730951, 1e-15);
  EXPECT_EQ(m_pow(kNaN, 0.5, &v), MathStatus::Ok);
  EXPECT_NE(v, v);
}

TEST(MathEdges, Exp) {
  double v = -1;
  EXPECT_EQ(m_exp(709.78, &v), MathStatus::Ok);
  EXPECT_LT(v, kInf);
  EXPECT_GT(v, 1.79e308);
  EXPECT_EQ(m_exp(709.79, &v), MathStatus::Overflow);
  EXPECT_EQ(m_exp(kInf, &v), MathStatus::Overflow);
  EXPECT_EQ(m_exp(-746, &v), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  EXPECT_EQ(m_exp(-kInf, &v), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  EXPECT_EQ(m_exp(-745, &v), MathStatus::Ok);
  EXPECT_EQ(v, kMinSub);  // e^-745 is 0.57 of the smallest subnormal
  // Subnormal results land on the nearest grid point.
  for (double x : {-740.0, -740.5, -735.25, -720.0, -709.0, -708.5}) {
    EXPECT_EQ(exp_raw(x), static_cast<double>(expq(x))) << x;
  }
  EXPECT_EQ(exp_raw(0), 1.0);
  EXPECT_LE(ulps(exp_raw(1), expq(1)), 1.2);
}

TEST(MathEdges, Log) {
  double v = -1;
  EXPECT_EQ(m_log(0, &v), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(m_log(-0.0, &v), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(m_log(-1, &v), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(m_log(-kInf, &v), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(m_log(1, &v), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  EXPECT_EQ(log_raw(2), 0.6931471805599453);
  EXPECT_EQ(log_raw(kMinSub), -744.4400719213812);
  EXPECT_LE(ulps(log_raw(3e-310), logq(3e-310)), 1.0);
  EXPECT_LE(ulps(log_raw(1.7976931348623157e308), logq(1.7976931348623157e308)), 1.0);
}

TEST(MathEdges, TrigReductionLimits) {
  double v = -1;
  EXPECT_EQ(m_sin(8e15, &v), MathStatus::Overflow);
  EXPECT_EQ(m_cos(-8e15, &v), MathStatus::Overflow);
  EXPECT_EQ(m_tan(7.0000000000001e15, &v), MathStatus::Overflow);
  EXPECT_EQ(m_sin(kNaN, &v), MathStatus::Overflow);
  EXPECT_EQ(m_cos(kInf, &v), MathStatus::Overflow);
  EXPECT_EQ(m_tan(-kInf, &v), MathStatus::Overflow);
  EXPECT_EQ(m_sin(7e15, &v), MathStatus::Ok);
  EXPECT_LE(v < 0 ? -v : v, 1.0);
  EXPECT_EQ(m_sin(0, &v), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  EXPECT_EQ(m_cos(0, &v), MathStatus::Ok);
  EXPECT_EQ(v, 1.0);
  // Next to the pole the tangent is huge but finite: the reduced argument of
  // the nearest double to pi/2 is tiny, never exactly zero.
  EXPECT_EQ(m_tan(1.5707963267948966, &v), MathStatus::Ok);
  EXPECT_GT(v, 1.6e16);
  EXPECT_EQ(m_tan(-1.5707963267948966, &v), MathStatus::Ok);
  EXPECT_LT(v, -1.6e16);
  // pi/4 reduces to -pi/4 in the next quadrant, where the Taylor sine is at
  // its weakest (about 2e-14).
  EXPECT_EQ(m_tan(0.7853981633974483, &v), MathStatus::Ok);
  EXPECT_NEAR(v, 1.0, 4e-14);
}

TEST(MathEdges, HyperbolicsAndRoots) {
  double v = -1;
  // The series branch: 1 + 5e-13, which still shows as 1 in SINGLE.
  EXPECT_EQ(m_cosh(1e-6, &v), MathStatus::Ok);
  EXPECT_EQ(v, static_cast<double>(coshq(1e-6)));
  EXPECT_EQ(static_cast<float>(v), 1.0f);
  EXPECT_EQ(cosh_raw(0), 1.0);
  EXPECT_EQ(m_sinh(-1e-6, &v), MathStatus::Ok);
  EXPECT_EQ(v, static_cast<double>(sinhq(-1e-6)));
  EXPECT_EQ(sinh_raw(-0.0), 0.0);
  EXPECT_EQ(m_cosh(709.78, &v), MathStatus::Ok);
  EXPECT_LT(v, kInf);
  EXPECT_EQ(m_cosh(-709.79, &v), MathStatus::Overflow);
  EXPECT_EQ(m_sinh(709.79, &v), MathStatus::Overflow);
  EXPECT_EQ(m_sinh(-709.78, &v), MathStatus::Ok);
  EXPECT_LT(v, -8.9e307);  // e^709.78 / 2
  EXPECT_EQ(tanh_raw(30), 1.0);
  EXPECT_EQ(tanh_raw(-kInf), -1.0);
  EXPECT_EQ(tanh_raw(1e-300), 1e-300);
  EXPECT_NE(tanh_raw(kNaN), tanh_raw(kNaN));
  EXPECT_EQ(m_sqr(-1e-300, &v), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(m_sqr(2, &v), MathStatus::Ok);
  EXPECT_EQ(v, 1.4142135623730951);
  EXPECT_EQ(atan_raw(kInf), 1.5707963267948966);
  EXPECT_EQ(atan_raw(-1), -0.7853981633974483);
}

TEST(MathEdges, HelpersRoundAndScale) {
  EXPECT_EQ(floor_own(-0.5), -1.0);
  EXPECT_EQ(floor_own(2.0), 2.0);
  EXPECT_EQ(floor_own(-4503599627370497.0), -4503599627370497.0);
  EXPECT_EQ(trunc_own(-2.75), -2.0);
  EXPECT_EQ(scale2(1.5, -1074), kMinSub * 2);  // 1.5 * 2^-1074 ties to even
  EXPECT_EQ(scale2(1.0, 1024), kInf);
  EXPECT_EQ(scale2(0x1p-1074, 2000), 0x1p926);
}

// ---------------------------------------------------------------------------
// RND

// The advance step written the other way round: -(s * 179203) - 3957053.
std::uint32_t advanced(std::uint32_t s) {
  std::int64_t v = -(static_cast<std::int64_t>(s) * 179203) - 3957053;
  return static_cast<std::uint32_t>(((v % 16777216) + 16777216) % 16777216);
}

TEST(Rnd, SequenceFromTheStartState) {
  rnd_reset();
  EXPECT_EQ(rnd_zero(), 0.0);
  // 327680 * 16598013 + 12820163 = 5438923649603 = 324184 * 2^24 + 11837123
  EXPECT_EQ(rnd_next(), 11837123 / 16777216.0);
  EXPECT_EQ(rnd_next(), 8949370 / 16777216.0);
  EXPECT_EQ(rnd_next(), 9722709 / 16777216.0);
  EXPECT_EQ(rnd_zero(), 9722709 / 16777216.0);
  EXPECT_EQ(rnd_zero(), 9722709 / 16777216.0) << "RND(0) does not advance";
  std::uint32_t s = rnd_state();
  for (int i = 0; i < 1000; ++i) {
    s = advanced(s);
    double v = rnd_next();
    ASSERT_EQ(v, s / 16777216.0);
    ASSERT_LT(v, 1.0);
    ASSERT_EQ(v, static_cast<double>(static_cast<float>(v)));
  }
  rnd_reset();
  EXPECT_EQ(rnd_next(), 11837123 / 16777216.0) << "reset restores the start state";
}

TEST(Rnd, NegativeArgumentReseeds) {
  rnd_reset();
  rnd_next();
  // (0xFFFFFFFF * 179203 - 3957053) mod 2^24 = 12640960
  EXPECT_EQ(rnd_reseed(-1), 12640960 / 16777216.0);
  EXPECT_EQ(rnd_zero(), 12640960 / 16777216.0);
  double after = rnd_next();
  EXPECT_EQ(rnd_reseed(-1.9), 12640960 / 16777216.0) << "truncated toward zero";
  EXPECT_EQ(rnd_next(), after) << "the same seed gives the same sequence";
  EXPECT_EQ(rnd_reseed(-7), 11565742 / 16777216.0);
  EXPECT_LT(rnd_reseed(-1e300), 1.0);
  EXPECT_LT(rnd_reseed(-kInf), 1.0);
}

TEST(Rnd, Randomize) {
  randomize_value(1);
  EXPECT_EQ(rnd_state(), 336u);
  randomize_value(-1);
  EXPECT_EQ(rnd_state(), 0xFFFF50u);
  randomize_value(0x12345);
  EXPECT_EQ(rnd_state(), 0x234550u) << "only the low 16 bits count";
  randomize_value(1);
  double a = rnd_next();
  randomize_value(0x10001);
  EXPECT_EQ(rnd_next(), a);
  randomize_clock(1, 2, 3);  // 3723 seconds
  EXPECT_EQ(rnd_state(), 953168u);
  randomize_clock(23, 59, 59);  // 86399 seconds: bit 16 falls off
  EXPECT_EQ(rnd_state(), 5341008u);
  rnd_reset();
}

}  // namespace
