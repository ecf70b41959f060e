// Number to text and the half-away-from-zero rounding of the store rule.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "values/numtext.h"

using namespace values;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

struct Case {
  double v;
  int digits;  // 7: SINGLE (the value is rounded to binary32 first), 15: DOUBLE
  const char* text;
};

TEST(NumberText, Renderings) {
  for (Case c : {
           Case{std::numeric_limits<double>::quiet_NaN(), 15, "NaN"}, {-kInf, 15, "-INF"}, {-0.0, 7, "0"},
           {0.5, 7, ".5"}, {0.00125, 7, ".00125"}, {0.0001, 7, ".0001"}, {-123.25, 7, "-123.25"}, {1200, 7, "1200"},
           {100000, 7, "100000"}, {1000000, 7, "1000000"}, {1.0 / 3, 7, ".3333333"}, {2.0 / 3, 7, ".6666667"},
           {1.0 / 3, 15, ".333333333333333"}, {-2.0 / 3, 15, "-.666666666666667"}, {1e14, 15, "100000000000000"},
           {3.14159265358979, 7, "3.141593"}, {1e20, 7, "1E+20"}, {10000000, 7, "1E+07"},
           {12345678, 7, "1.234568E+07"}, {-0.000015, 7, "-1.5E-05"}, {1.5e-7, 15, "1.5D-07"}, {1e15, 15, "1D+15"},
           {1e100, 15, "1D+100"}, {-2.5e-200, 15, "-2.5D-200"},
           {1.7976931348623157e308, 15, "1.79769313486232D+308"}}) {
    char buf[kNumberTextMax];
    std::size_t n = c.digits == 7 ? format_single(static_cast<double>(static_cast<float>(c.v)), buf)
                                  : format_double(c.v, buf);
    EXPECT_STREQ(buf, c.text) << c.v;
    EXPECT_EQ(n, std::string(c.text).size());
  }
}

TEST(NumberText, RoundingCarriesIntoTheNextDecade) {
  for (Case c : {Case{9999999.5, 7, "1E+07"}, {999999.95, 7, "1000000"}, {0.99999996, 7, "1"},
                 {0.000099999999, 7, ".0001"}, {9.9999999999999995, 15, "10"}}) {
    char buf[kNumberTextMax];
    number_text(c.v, c.digits, c.digits == 7 ? 'E' : 'D', buf);
    EXPECT_STREQ(buf, c.text) << c.v;
  }
}

TEST(RoundHalfAway, StoreRule) {
  std::int64_t v = 0;
  for (auto [in, out] : {std::pair{2.5, std::int64_t{3}}, {-2.5, -3}, {-0.5, -1}, {1.4999999999999998, 1},
                         {0.49999999999999994, 0}, {4503599627370497.0, 4503599627370497},
                         {-9223372036854775808.0, INT64_MIN}}) {
    ASSERT_TRUE(round_half_away_to_int64(in, &v)) << in;
    EXPECT_EQ(v, out) << in;
  }
  EXPECT_FALSE(round_half_away_to_int64(9223372036854775808.0, &v));
  EXPECT_FALSE(round_half_away_to_int64(-kInf, &v));
  EXPECT_FALSE(round_half_away_to_int64(std::numeric_limits<double>::quiet_NaN(), &v));
}

}  // namespace
