// Number to text for PRINT, STR$ and every other place a SINGLE or DOUBLE is
// shown to the user, and the rounding rule that turns a floating value into
// an integer.
#pragma once
#include <cstddef>
#include <cstdint>

namespace values {

// Enough for the longest rendering ("-1.23456789012345D-308" is 22) and a NUL.
constexpr std::size_t kNumberTextMax = 32;

// Render the magnitude of v (the sign is the caller's) with the given number
// of significant digits (7 for SINGLE, 15 for DOUBLE) and exponent letter
// ('E' or 'D'). Writes a NUL-terminated string and returns its length.
std::size_t number_text(double magnitude, int digits, char exp_letter, char* out);

// The whole value with a "-" in front of negatives; negative zero is "0".
std::size_t format_single(double v, char* out);
std::size_t format_double(double v, char* out);

// Round halves away from zero. False for NaN and for results outside the
// signed 64-bit range.
bool round_half_away_to_int64(double v, std::int64_t* out);

}  // namespace values
