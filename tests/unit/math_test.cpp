// The elementary functions against a binary128 reference, their fixed edge
// cases, and the RND generator. Accuracy bounds were measured over these
// samples and set a little above (figures in the comments). Where the fixed
// recipe itself limits accuracy (LOG's series, the Taylor sine and cosine,
// SINH's difference of exponentials) the bound is stated in terms of it.
#include <gtest/gtest.h>
#include <quadmath.h>

#include <algorithm>
#include <cmath>
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
constexpr int kSamples = 100000;

double ulp_of(Q ref) {  // one unit in the last place of a double near ref
  int e;
  frexpq(ref, &e);
  return static_cast<double>(ldexpq(1, std::max(e - 53, -1074)));
}
double abs_err(double got, Q ref) { return static_cast<double>(fabsq(static_cast<Q>(got) - ref)); }
double ulps(double got, Q ref) { return abs_err(got, ref) / ulp_of(ref); }

struct Sampler {  // xorshift64: the same samples on every run
  std::uint64_t s = 0x9E3779B97F4A7C15ull;
  double in(double lo, double hi) {
    s ^= s << 13, s ^= s >> 7, s ^= s << 17;
    return lo + (hi - lo) * (static_cast<double>(s >> 11) * 0x1p-53);
  }
  double wide(int elo, int ehi) {  // any binary exponent in [elo, ehi), either sign
    double x = static_cast<double>(ldexpq(in(1, 2), static_cast<int>(in(elo, ehi))));
    return in(0, 1) < 0.5 ? -x : x;
  }
};

// Largest ulp error of f against ref over kSamples arguments from gen.
template <class G, class F, class R>
double worst_ulps(G gen, F f, R ref) {
  double worst = 0;
  for (int i = 0; i < kSamples; ++i) {
    double x = gen();
    worst = std::max(worst, ulps(f(x), ref(x)));
  }
  return worst;
}

TEST(MathAccuracy, ExpAndLog) {
  Sampler s;
  EXPECT_LE(worst_ulps([&] { return s.in(-745, 709.78); }, exp_raw, expq), 1.2);  // 1.14
  // Deep in the subnormal range a result rounded once is the nearest point.
  EXPECT_LE(worst_ulps([&] { return s.in(-745, -720); }, exp_raw, expq), 0.51);
  EXPECT_LE(worst_ulps([&] { return s.wide(-1074, 3); }, expm1_raw, expm1q), 1.3);  // 1.24
  // LOG's series stops at s^15, leaving up to 2|s|^17/17 ~ 1.14e-14 absolute
  // for mantissas near sqrt(2): ~212 ulp on results near +-0.35, diluted in
  // large results.
  auto any = [&] { return std::abs(s.wide(-1074, 1024)); };
  EXPECT_LE(worst_ulps(any, log_raw, logq), 215.0);  // 212
  EXPECT_LE(worst_ulps([&] { return std::abs(s.wide(100, 1024)); }, log_raw, logq), 1.7);  // 1.64
  for (int i = 0; i < kSamples; ++i) {
    double x = any();
    EXPECT_LE(abs_err(log_raw(x), logq(x)), 1.15e-14 + 1.5 * ulp_of(logq(x))) << x;
  }
}

TEST(MathAccuracy, SinCosTan) {
  // The Taylor sine (to r^13) and cosine (to r^14) leave up to
  // (pi/4)^15/15! ~ 2.0e-14 absolute; the reduction adds k * 2.03e-21, the
  // amount by which its three parts of pi/2 exceed pi/2.
  Sampler s;
  for (int i = 0; i < kSamples; ++i) {
    double x = s.in(-1e6, 1e6), sn, cs, tn;
    ASSERT_TRUE(sincos_raw(x, &sn, &cs));
    ASSERT_EQ(m_tan(x, &tn), MathStatus::Ok);
    double slack = 2.05e-14 + 1.3e-21 * std::abs(x);
    EXPECT_LE(abs_err(sn, sinq(x)), slack) << x;
    EXPECT_LE(abs_err(cs, cosq(x)), slack) << x;
    Q t = tanq(x);  // a tangent's error grows with its derivative 1 + tan^2
    EXPECT_LE(abs_err(tn, t), static_cast<double>(2 * slack * (1 + t * t)) + ulp_of(t)) << x;
  }
  auto sin_only = [](double x) { double sn, cs; sincos_raw(x, &sn, &cs); return sn; };
  EXPECT_LE(worst_ulps([&] { return s.in(-0.785, 0.785); }, sin_only, sinq), 200.0);  // 184
  // Next to a multiple of pi/2 the result is tiny and its error is the
  // reduction's; the other function is exactly +-1 there.
  Q pio2 = 2 * atanq(1);
  for (std::int64_t k = -200000; k <= 200000; k += 997) {
    double x0 = static_cast<double>(k * pio2);
    for (double x : {x0, __builtin_nextafter(x0, -kInf), __builtin_nextafter(x0, kInf)}) {
      double sn, cs, bound = 2.1e-21 * static_cast<double>(std::abs(k)) + 1e-30;
      ASSERT_TRUE(sincos_raw(x, &sn, &cs));
      int quadrant = static_cast<int>(k & 3);
      EXPECT_LE(k % 2 ? abs_err(cs, cosq(x)) : abs_err(sn, sinq(x)), bound) << k;
      EXPECT_EQ(k % 2 ? sn : cs, quadrant < 2 ? 1.0 : -1.0) << k;
    }
  }
}

TEST(MathAccuracy, AtnAndPrincipalArgument) {
  Sampler s;
  EXPECT_LE(worst_ulps([&] { return s.wide(-1074, 1024); }, atan_raw, atanq), 0.55);  // 0.50
  EXPECT_LE(worst_ulps([&] { return s.in(-3, 3); }, atan_raw, atanq), 0.55);  // table and 1/x seams
  double worst = 0;
  for (int i = 0; i < kSamples; ++i) {
    double y = s.wide(-300, 300), x = s.wide(-300, 300);
    worst = std::max(worst, ulps(atan2_own(y, x), atan2q(y, x)));
  }
  EXPECT_LE(worst, 0.55);  // 0.50
  double pi = static_cast<double>(4 * atanq(1));
  EXPECT_EQ(atan2_own(0.0, -1.0), pi);
  EXPECT_EQ(atan2_own(-0.0, -1.0), -pi);
  EXPECT_EQ(atan2_own(-1e308, 1e-308), -pi / 2);
  EXPECT_EQ(atan2_own(0.0, 0.0), 0.0);
  EXPECT_EQ(atan2_own(kInf, -kInf), 3 * pi / 4);
  EXPECT_EQ(atan2_own(kMinSub, 1.0), kMinSub);
}

TEST(MathAccuracy, Hyperbolics) {
  Sampler s;
  EXPECT_LE(worst_ulps([&] { return s.in(-700, 700); }, cosh_raw, coshq), 1.3);  // 1.24
  EXPECT_LE(worst_ulps([&] { return s.in(1, 700) * (s.in(0, 1) < .5 ? -1 : 1); }, sinh_raw, sinhq), 1.5);  // 1.43
  EXPECT_LE(worst_ulps([&] { return s.in(-1e-5, 1e-5); }, sinh_raw, sinhq), 1.5);  // series: 1.44
  EXPECT_LE(worst_ulps([&] { return s.in(-25, 25); }, tanh_raw, tanhq), 0.75);  // 0.69
  EXPECT_LE(worst_ulps([&] { return s.wide(-1074, 6); }, tanh_raw, tanhq), 0.75);
  // (E - 1/E) / 2 cancels for small x: the error stays near E's own, ~1.8e-16.
  for (int i = 0; i < kSamples; ++i) {
    double x = s.in(1e-5, 1);
    EXPECT_LE(abs_err(sinh_raw(x), sinhq(x)), 2.3e-16 + 1.5 * ulp_of(sinhq(x))) << x;
  }
}

TEST(MathAccuracy, Power) {
  Sampler s;
  for (int i = 0; i < kSamples / 4; ++i) {
    // EXP(LOG(x) * y): LOG's absolute error times y is the relative error.
    double x = s.in(1e-3, 1e3), y = s.in(-40, 40), got;
    if (m_pow(x, y, &got) != MathStatus::Ok) continue;
    double bound = std::abs(y) * (1.15e-14 + std::abs(static_cast<double>(logq(x))) * 3.5e-16) + 2.6e-16;
    EXPECT_LE(static_cast<double>(fabsq(got / powq(x, y) - 1)), bound) << x << " ^ " << y;
  }
  double worst = 0;
  for (int i = 0; i < kSamples / 4; ++i) {
    double x = s.in(-3, 3), got;
    int n = static_cast<int>(s.in(-12, 13));
    ASSERT_EQ(m_pow(x, n, &got), MathStatus::Ok);
    worst = std::max(worst, ulps(got, powq(x, n)));
  }
  EXPECT_LE(worst, 8.0);  // 7.25: each squaring doubles the error so far
}

// ---------------------------------------------------------------------------

struct Edge {
  MathStatus (*f)(double, double*);
  double x;
  MathStatus status;
};

TEST(MathEdges, RangeChecks) {
  using S = MathStatus;
  for (Edge e : {Edge{m_exp, 709.78, S::Ok}, Edge{m_exp, 709.79, S::Overflow}, Edge{m_exp, kInf, S::Overflow},
                 Edge{m_log, 0, S::IllegalFunctionCall}, Edge{m_log, -0.0, S::IllegalFunctionCall},
                 Edge{m_log, -1, S::IllegalFunctionCall}, Edge{m_sin, 8e15, S::Overflow},
                 Edge{m_sin, 7e15, S::Ok}, Edge{m_cos, -8e15, S::Overflow}, Edge{m_sin, kNaN, S::Overflow},
                 Edge{m_tan, kInf, S::Overflow}, Edge{m_cosh, -709.79, S::Overflow}, Edge{m_cosh, 709.78, S::Ok},
                 Edge{m_sinh, 709.79, S::Overflow}, Edge{m_sqr, -1e-300, S::IllegalFunctionCall}}) {
    double v = 0;
    EXPECT_EQ(e.f(e.x, &v), e.status) << e.x;
    if (e.status == S::Ok) {
      EXPECT_LT(std::abs(v), kInf) << e.x;
    }
  }
}

TEST(MathEdges, Power) {
  double v = -1;
  auto pw = [&](double x, double y) { return m_pow(x, y, &v); };
  EXPECT_EQ(pw(0, 0), MathStatus::Ok);
  EXPECT_EQ(v, 1.0);
  EXPECT_EQ(pw(kNaN, 0), MathStatus::Ok);
  EXPECT_EQ(v, 1.0);
  EXPECT_EQ(pw(0, 2.5), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  EXPECT_EQ(pw(0, -1), MathStatus::DivisionByZero);
  EXPECT_EQ(pw(-8, 1.0 / 3), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(pw(-2, 3), MathStatus::Ok);
  EXPECT_EQ(v, -8.0);
  EXPECT_EQ(pw(-2, -1), MathStatus::Ok);
  EXPECT_EQ(v, -0.5);
  EXPECT_EQ(pw(3, 20), MathStatus::Ok);
  EXPECT_EQ(v, 3486784401.0);
  EXPECT_EQ(pw(0.5, 1074), MathStatus::Ok);
  EXPECT_EQ(v, kMinSub);
  EXPECT_EQ(pw(2, 1024), MathStatus::Overflow);
  EXPECT_EQ(pw(10, -400), MathStatus::Ok);
  EXPECT_EQ(v, 0.0);
  // Past 65536 a whole exponent goes through LOG, so a negative base fails.
  EXPECT_EQ(pw(-1, 65536), MathStatus::Ok);
  EXPECT_EQ(pw(-1, 65537), MathStatus::IllegalFunctionCall);
  EXPECT_EQ(pw(2, 0.5), MathStatus::Ok);
  EXPECT_EQ(v, exp_raw(log_raw(2) * 0.5));
}

TEST(MathEdges, Values) {
  EXPECT_EQ(exp_raw(-746), 0.0);
  EXPECT_EQ(exp_raw(-745), kMinSub);  // e^-745 is 0.57 of the smallest subnormal
  for (double x : {-740.0, -735.25, -709.0, -708.5}) EXPECT_EQ(exp_raw(x), static_cast<double>(expq(x))) << x;
  EXPECT_EQ(log_raw(1), 0.0);
  EXPECT_EQ(log_raw(2), 0.6931471805599453);
  EXPECT_EQ(log_raw(kMinSub), -744.4400719213812);
  EXPECT_LE(ulps(log_raw(3e-310), logq(3e-310)), 1.0);
  double v;
  // The nearest double to pi/2 reduces to a tiny argument, never exactly 0.
  EXPECT_EQ(m_tan(-1.5707963267948966, &v), MathStatus::Ok);
  EXPECT_LT(v, -1.6e16);
  // COSH(1E-6) takes the series: 1 + 5e-13, which is 1 as a SINGLE.
  EXPECT_EQ(cosh_raw(1e-6), static_cast<double>(coshq(1e-6)));
  EXPECT_EQ(static_cast<float>(cosh_raw(1e-6)), 1.0f);
  EXPECT_EQ(sinh_raw(-1e-6), static_cast<double>(sinhq(-1e-6)));
  EXPECT_EQ(tanh_raw(-kInf), -1.0);
  EXPECT_EQ(tanh_raw(1e-300), 1e-300);
  EXPECT_EQ(atan_raw(kInf), 1.5707963267948966);
  EXPECT_EQ(scale2(1.5, -1074), 2 * kMinSub);  // ties to even, rounded once
  EXPECT_EQ(floor_own(-0.5), -1.0);
}

// ---------------------------------------------------------------------------

// The advance step the other way round: -(s * 179203) - 3957053 mod 2^24.
std::uint32_t advanced(std::uint32_t s) {
  std::int64_t v = -(static_cast<std::int64_t>(s) * 179203) - 3957053;
  return static_cast<std::uint32_t>(((v % 16777216) + 16777216) % 16777216);
}

TEST(Rnd, SequenceReseedAndRandomize) {
  rnd_reset();
  EXPECT_EQ(rnd_zero(), 0.0);
  // 327680 * 16598013 + 12820163 = 324184 * 2^24 + 11837123
  EXPECT_EQ(rnd_next(), 11837123 / 16777216.0);
  EXPECT_EQ(rnd_next(), 8949370 / 16777216.0);
  EXPECT_EQ(rnd_zero(), 8949370 / 16777216.0);
  EXPECT_EQ(rnd_zero(), 8949370 / 16777216.0) << "RND(0) does not advance";
  std::uint32_t s = rnd_state();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(rnd_next(), (s = advanced(s)) / 16777216.0);
  // (0xFFFFFFFF * 179203 - 3957053) mod 2^24 = 12640960
  EXPECT_EQ(rnd_reseed(-1), 12640960 / 16777216.0);
  double after = rnd_next();
  EXPECT_EQ(rnd_reseed(-1.9), 12640960 / 16777216.0) << "truncated toward zero";
  EXPECT_EQ(rnd_next(), after);
  EXPECT_LT(rnd_reseed(-kInf), 1.0);
  randomize_value(-1);
  EXPECT_EQ(rnd_state(), 0xFFFF50u);
  randomize_value(0x12345);
  EXPECT_EQ(rnd_state(), 0x234550u) << "only the low 16 bits count";
  randomize_clock(23, 59, 59);  // 86399 seconds: bit 16 falls off
  EXPECT_EQ(rnd_state(), 5341008u);
  rnd_reset();
  EXPECT_EQ(rnd_next(), 11837123 / 16777216.0);
}

}  // namespace
