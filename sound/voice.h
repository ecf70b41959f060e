// Channel state and the wavetable voices: what the audio thread owns while
// the engine runs (and the interpreter thread while it is stopped).
#pragma once
#include <cstdint>

namespace sound {

// Add every active voice's next n frames (n <= 128) into the interleaved block.
void mix_voices(double* block, unsigned n);

// The shared sine: a 4,096-entry table per cycle with linear interpolation;
// the phase is in cycles and wrapped into 0..1 first.
double sine(double phase);

// An exponential that remembers its last argument and result.
struct RememberedExp {
  double arg = 0, result = 1;
  double operator()(double x);
};

}  // namespace sound
