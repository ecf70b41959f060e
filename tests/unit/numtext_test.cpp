// Number to text and the half-away-from-zero rounding of the store rule.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "values/numtext.h"

using namespace values;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

std::string single(double v) {
  char buf[kNumberTextMax];
  std::size_t n = format_single(static_cast<double>(static_cast<float>(v)), buf);
  EXPECT_EQ(n, std::string(buf).size());
  return buf;
}

std::string dbl(double v) {
  char buf[kNumberTextMax];
  std::size_t n = format_double(v, buf);
  EXPECT_EQ(n, std::string(buf).size());
  return buf;
}

std::string raw(double v, int digits, char letter) {
  char buf[kNumberTextMax];
  number_text(v, digits, letter, buf);
  return buf;
}

TEST(NumberText, SpecialValues) {
  EXPECT_EQ(dbl(std::numeric_limits<double>::quiet_NaN()), "NaN");
  EXPECT_EQ(dbl(kInf), "INF");
  EXPECT_EQ(dbl(-kInf), "-INF");
  EXPECT_EQ(dbl(0.0), "0");
  EXPECT_EQ(dbl(-0.0), "0");
  EXPECT_EQ(single(-0.0), "0");
}

TEST(NumberText, FixedForm) {
  EXPECT_EQ(single(0.5), ".5");
  EXPECT_EQ(single(0.00125), ".00125");
  EXPECT_EQ(single(0.0001), ".0001");
  EXPECT_EQ(single(123.25), "123.25");
  EXPECT_EQ(single(-123.25), "-123.25");
  EXPECT_EQ(single(1200), "1200");
  EXPECT_EQ(single(100000), "100000");
  EXPECT_EQ(single(1000000), "1000000");
  EXPECT_EQ(single(1.0 / 3), ".3333333");
  EXPECT_EQ(single(2.0 / 3), ".6666667");
  EXPECT_EQ(dbl(1.0 / 3), ".333333333333333");
  EXPECT_EQ(dbl(-2.0 / 3), "-.666666666666667");
  EXPECT_EQ(dbl(123456789), "123456789");
  EXPECT_EQ(dbl(1e14), "100000000000000");
  EXPECT_EQ(dbl(0.1), ".1");
  EXPECT_EQ(dbl(3.14159265358979), "3.14159265358979");
  EXPECT_EQ(single(3.14159265358979), "3.141593");
}

TEST(NumberText, ScientificForm) {
  EXPECT_EQ(single(1e20), "1E+20");
  EXPECT_EQ(single(10000000), "1E+07");
  EXPECT_EQ(single(12345678), "1.234568E+07");
  EXPECT_EQ(single(0.00001), "1E-05");
  EXPECT_EQ(single(-0.000015), "-1.5E-05");
  EXPECT_EQ(dbl(1.5e-7), "1.5D-07");
  EXPECT_EQ(dbl(1e15), "1D+15");
  EXPECT_EQ(dbl(1e100), "1D+100");
  EXPECT_EQ(dbl(-2.5e-200), "-2.5D-200");
  EXPECT_EQ(dbl(1.7976931348623157e308), "1.79769313486232D+308");
  std::string tiny = dbl(std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(tiny.substr(0, 8), "4.940656");
  EXPECT_EQ(tiny.substr(tiny.size() - 5), "D-324");
}

TEST(NumberText, RoundingCarriesIntoTheNextDecade) {
  EXPECT_EQ(raw(9999999.5, 7, 'E'), "1E+07");
  EXPECT_EQ(raw(999999.95, 7, 'E'), "1000000");
  EXPECT_EQ(raw(0.99999996, 7, 'E'), "1");
  EXPECT_EQ(raw(0.000099999999, 7, 'E'), ".0001");
  EXPECT_EQ(raw(9.9999999999999995, 15, 'D'), "10");
  EXPECT_EQ(raw(2.5, 7, 'E'), "2.5");
}

TEST(RoundHalfAway, StoreRule) {
  std::int64_t v = 0;
  struct Case {
    double in;
    std::int64_t out;
  };
  for (Case c : {Case{2.5, 3}, Case{-2.5, -3}, Case{0.5, 1}, Case{-0.5, -1}, Case{1.4999999999999998, 1},
                 Case{0.49999999999999994, 0}, Case{-0.49999999999999994, 0}, Case{4503599627370497.0, 4503599627370497},
                 Case{-9223372036854775808.0, INT64_MIN}, Case{9223372036854774784.0, 9223372036854774784}}) {
    ASSERT_TRUE(round_half_away_to_int64(c.in, &v)) << c.in;
    EXPECT_EQ(v, c.out) << c.in;
  }
  EXPECT_FALSE(round_half_away_to_int64(9223372036854775808.0, &v));
  EXPECT_FALSE(round_half_away_to_int64(-9223372036854777856.0, &v));
  EXPECT_FALSE(round_half_away_to_int64(kInf, &v));
  EXPECT_FALSE(round_half_away_to_int64(std::numeric_limits<double>::quiet_NaN(), &v));
}

}  // namespace
