// Decimal, &H and &O literals. Decimal digits are kept twice: exactly in 64
// bits (for the integer types) and as an 18-digit decimal mantissa with an
// exponent (for the floating types), so that neither path loses the other's
// precision.
#include "core/numscan.h"

#include <charconv>

#include "core/errors.h"

namespace core {

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

const char* scan_based(const char* p, NumberLiteral* out) {
  const char base_letter = static_cast<char>(p[1] & ~0x20);
  const unsigned base = base_letter == 'H' ? 16 : 8;
  p += 2;
  std::uint64_t v = 0;
  int digits = 0;
  for (;; ++p) {
    unsigned d;
    const char c = *p;
    if (c >= '0' && c <= '9') d = static_cast<unsigned>(c - '0');
    else if (base == 16 && c >= 'A' && c <= 'F') d = static_cast<unsigned>(c - 'A' + 10);
    else if (base == 16 && c >= 'a' && c <= 'f') d = static_cast<unsigned>(c - 'a' + 10);
    else break;
    if (d >= base) break;
    if (v > (UINT64_MAX >> (base == 16 ? 4 : 3))) {
      raise("Overflow");
      return nullptr;
    }
    v = v * base + d;
    ++digits;
  }
  if (digits == 0) {
    raise("Overflow");
    return nullptr;
  }
  // The value is kept as scanned: a suffix chooses the type without a range check.
  out->i = static_cast<std::int64_t>(v);
  if (p[0] == '%') {
    out->type = kTypeInteger;
    return p + 1;
  }
  if (p[0] == '&' && p[1] == '&') {
    out->type = kTypeInt64;
    return p + 2;
  }
  if (p[0] == '&') {
    out->type = kTypeLong;
    return p + 1;
  }
  out->type = v < 32768 ? kTypeInteger : v <= 0x7FFFFFFF ? kTypeLong : kTypeInt64;
  return p;
}

}  // namespace

// The decimal text [start, end) (digits, point, E or D exponent) correctly
// rounded to T; false when it is out of T's range (the caller's own
// arithmetic decides then).
template <typename T>
bool nearest(const char* start, const char* end, T* out) {
  char buf[64];
  std::size_t n = 0;
  for (const char* q = start; q < end; ++q) {
    if (n + 1 >= sizeof buf) return false;
    const char c = *q;
    buf[n++] = c == 'D' || c == 'd' ? 'E' : c;
  }
  T v;
  const auto r = std::from_chars(buf, buf + n, v, std::chars_format::general);
  if (r.ec != std::errc() || r.ptr != buf + n) return false;
  *out = v;
  return true;
}

const char* scan_number(const char* p, NumberLiteral* out) {
  if (p[0] == '&') return scan_based(p, out);
  const char* start = p;
  std::uint64_t exact = 0;
  bool overflow = false;
  std::uint64_t mantissa = 0;
  int held = 0;   // significant digits in the mantissa (at most 18)
  int given = 0;  // significant digits written, held or not
  int exponent = 0;
  bool point = false, has_exp = false, d_letter = false;
  for (; is_digit(*p); ++p) {
    const unsigned d = static_cast<unsigned>(*p - '0');
    if (!overflow) {
      if (exact > (UINT64_MAX - d) / 10) overflow = true;
      else exact = exact * 10 + d;
    }
    if (mantissa == 0 && d == 0) continue;  // leading zeros are not significant
    ++given;
    if (held < 18) {
      mantissa = mantissa * 10 + d;
      ++held;
    } else {
      ++exponent;
    }
  }
  if (*p == '.') {
    point = true;
    for (++p; is_digit(*p); ++p) {
      const unsigned d = static_cast<unsigned>(*p - '0');
      if (mantissa != 0 || d != 0) ++given;
      if (held < 18) {
        if (mantissa != 0 || d != 0) ++held;
        mantissa = mantissa * 10 + d;
        --exponent;
      }
    }
  }
  const char e = static_cast<char>(*p & ~0x20);
  if (e == 'E' || e == 'D') {
    const char* q = p + 1;
    int sign = 1;
    if (*q == '+' || *q == '-') {
      if (*q == '-') sign = -1;
      ++q;
    }
    if (is_digit(*q)) {  // without a digit the letter is not part of the number
      int v = 0;
      for (; is_digit(*q); ++q) {
        v = v * 10 + (*q - '0');
        if (v > 10000) v = 10000;
      }
      has_exp = true;
      d_letter = e == 'D';
      exponent += sign * v;
      p = q;
    }
  }
  if (exponent >= 401) {
    raise("Overflow");
    return nullptr;
  }
  double value = 0;
  if (exponent >= -400) {
    value = static_cast<double>(mantissa);
    int n = exponent;
    for (; n >= 8; n -= 8) value *= 1e8;
    for (; n > 0; --n) value *= 10;
    for (; n <= -8; n += 8) value /= 1e8;
    for (; n < 0; ++n) value /= 10;
  }
  if (value - value != 0) {  // infinite
    raise("Overflow");
    return nullptr;
  }
  // The digits were kept to 18 and scaled step by step; the value of the
  // whole text, rounded once, is what the floating types get.
  (void)nearest(start, p, &value);
  out->nearest = value;
  const bool whole = !point && !has_exp;
  if (*p == '%' || *p == '&') {
    if (!whole) {
      raise("Type mismatch");
      return nullptr;
    }
    std::uint64_t limit;
    if (*p == '%') {
      out->type = kTypeInteger;
      limit = 32767;
      ++p;
    } else if (p[1] == '&') {
      out->type = kTypeInt64;
      limit = 0x7FFFFFFFFFFFFFFFull;
      p += 2;
    } else {
      out->type = kTypeLong;
      limit = 2147483647;
      ++p;
    }
    if (overflow || exact > limit) {
      raise("Overflow");
      return nullptr;
    }
    out->i = static_cast<std::int64_t>(exact);
    return p;
  }
  float single = static_cast<float>(value);
  (void)nearest(start, p, &single);
  if (*p == '!') {
    const float f = single;
    if (f - f != 0) {
      raise("Overflow");
      return nullptr;
    }
    out->type = kTypeSingle;
    out->d = f;
    return p + 1;
  }
  if (*p == '#') {
    out->type = kTypeDouble;
    out->d = value;
    return p + 1;
  }
  if (whole && !overflow && exact < 32768) {
    out->type = kTypeInteger;
    out->i = static_cast<std::int64_t>(exact);
    return p;
  }
  if (d_letter || given > 7) {
    out->type = kTypeDouble;
    out->d = value;
  } else {
    const float f = single;
    if (f - f != 0) {
      raise("Overflow");
      return nullptr;
    }
    out->type = kTypeSingle;
    out->d = f;
  }
  return p;
}

}  // namespace core
