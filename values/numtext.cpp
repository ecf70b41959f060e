// The digits come from plain double arithmetic (scaling by 10 one step at a
// time), not from the C library's printf, so every platform prints the same.
#include "values/numtext.h"

#include "values/mathlib.h"

namespace values {

namespace {

std::size_t put(char* out, const char* s) {
  std::size_t n = 0;
  while (s[n]) {
    out[n] = s[n];
    ++n;
  }
  out[n] = 0;
  return n;
}

}  // namespace

std::size_t number_text(double v, int digits, char exp_letter, char* out) {
  if (v != v) return put(out, "NaN");
  if (v < 0) v = -v;
  if (v == 0) return put(out, "0");
  if (v > 1.7976931348623157e308) return put(out, "INF");

  int e = 0;
  while (v >= 10) {
    v /= 10;
    ++e;
  }
  while (v < 1) {
    v *= 10;
    --e;
  }
  std::int64_t limit = 1;  // 10^digits
  double scale = 1;        // 10^(digits-1)
  for (int i = 0; i < digits; ++i) limit *= 10;
  for (int i = 1; i < digits; ++i) scale *= 10;
  std::int64_t m = static_cast<std::int64_t>(v * scale + 0.5);
  if (m >= limit) {
    m /= 10;
    ++e;
  }

  char dig[24];
  int n = digits;
  for (int i = n - 1; i >= 0; --i) {
    dig[i] = static_cast<char>('0' + m % 10);
    m /= 10;
  }
  while (n > 1 && dig[n - 1] == '0') --n;

  std::size_t len = 0;
  if (e < -4 || e > digits - 1) {
    out[len++] = dig[0];
    if (n > 1) {
      out[len++] = '.';
      for (int i = 1; i < n; ++i) out[len++] = dig[i];
    }
    out[len++] = exp_letter;
    out[len++] = e < 0 ? '-' : '+';
    int ae = e < 0 ? -e : e;
    if (ae >= 100) out[len++] = static_cast<char>('0' + ae / 100);
    out[len++] = static_cast<char>('0' + ae / 10 % 10);
    out[len++] = static_cast<char>('0' + ae % 10);
  } else if (e < 0) {
    out[len++] = '.';
    for (int i = 0; i < -e - 1; ++i) out[len++] = '0';
    for (int i = 0; i < n; ++i) out[len++] = dig[i];
  } else {
    for (int i = 0; i <= e; ++i) out[len++] = i < n ? dig[i] : '0';
    if (n > e + 1) {
      out[len++] = '.';
      for (int i = e + 1; i < n; ++i) out[len++] = dig[i];
    }
  }
  out[len] = 0;
  return len;
}

namespace {

std::size_t format_signed(double v, int digits, char letter, char* out) {
  if (v < 0) {
    out[0] = '-';
    return 1 + number_text(-v, digits, letter, out + 1);
  }
  return number_text(v, digits, letter, out);
}

}  // namespace

std::size_t format_single(double v, char* out) { return format_signed(v, 7, 'E', out); }
std::size_t format_double(double v, char* out) { return format_signed(v, 15, 'D', out); }

bool round_half_away_to_int64(double v, std::int64_t* out) {
  if (v != v) return false;
  // Working from the truncated value keeps 0.49999999999999994 at 0, which
  // adding 0.5 and flooring would round up.
  double t = trunc_own(v);
  double frac = v - t;  // exact
  if (frac >= 0.5) t += 1;
  else if (frac <= -0.5) t -= 1;
  if (!(t >= -9223372036854775808.0 && t < 9223372036854775808.0)) return false;
  *out = static_cast<std::int64_t>(t);
  return true;
}

}  // namespace values
