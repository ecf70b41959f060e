#include "values/rnd.h"

namespace values {

namespace {

constexpr std::uint32_t kStartState = 327680;  // 0x50000
constexpr std::uint32_t kMask = 0xFFFFFF;
constexpr double kScale = 5.9604644775390625e-08;  // 2^-24

std::uint32_t g_state = kStartState;
double g_last = 0;

double as_single(double v) { return static_cast<double>(static_cast<float>(v)); }

}  // namespace

void rnd_reset() {
  g_state = kStartState;
  g_last = 0;
}

double rnd_next() {
  // Unsigned 32-bit arithmetic wraps, and masking afterwards is the same as
  // reducing modulo 2^24 throughout.
  g_state = (g_state * 16598013u + 12820163u) & kMask;
  g_last = g_state * kScale;
  return as_single(g_last);
}

double rnd_zero() { return as_single(g_last); }

double rnd_reseed(double x) {
  // Truncate toward zero; arguments beyond the 64-bit range saturate.
  std::int64_t t;
  if (x != x) t = 0;
  else if (x <= -9223372036854775808.0) t = INT64_MIN;
  else if (x >= 9223372036854775808.0) t = INT64_MAX;
  else t = static_cast<std::int64_t>(x);
  // The multiplier has the opposite sign from the advance step's
  // -(state * 179203) form; seeds made this way must keep producing the
  // sequences existing programs rely on.
  g_state = (static_cast<std::uint32_t>(t) * 179203u - 3957053u) & kMask;
  g_last = g_state * kScale;
  return as_single(g_last);
}

void randomize_clock(int hours, int minutes, int seconds) {
  std::uint32_t s = static_cast<std::uint32_t>(hours * 3600 + minutes * 60 + seconds);
  g_state = ((s << 8) & 0xFFFF00u) | 80u;
}

void randomize_value(std::int64_t n) {
  g_state = ((static_cast<std::uint32_t>(n) & 0xFFFFu) << 8) | 80u;
}

std::uint32_t rnd_state() { return g_state; }

}  // namespace values
