// RND and RANDOMIZE: one 24-bit linear congruential generator for the whole
// interpreter. A program sees the same sequence on every run until it calls
// RANDOMIZE, so the start state is fixed.
#pragma once
#include <cstdint>

namespace values {

// Back to the start-up state (state 327680, last value 0).
void rnd_reset();
// RND, RND() and RND(x) for x > 0 or NaN: advance and return the new value,
// rounded to SINGLE.
double rnd_next();
// RND(0): the last value again, rounded to SINGLE.
double rnd_zero();
// RND(x) for x < 0: reseed from x and return the value of the new state.
double rnd_reseed(double x);
// RANDOMIZE without an argument, from the local time of day.
void randomize_clock(int hours, int minutes, int seconds);
// RANDOMIZE n, after the caller has made n an integer.
void randomize_value(std::int64_t n);
// The raw 24-bit state, for tests and the debugger.
std::uint32_t rnd_state();

}  // namespace values
