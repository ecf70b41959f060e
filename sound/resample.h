// The rational polyphase windowed-sinc resampler that brings every loaded
// sound to 48 kHz: 48,000 / gcd(rate, 48,000) phases, Blackman-windowed sinc
// taps stored as floats, each phase normalised to unity gain.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace sound {

struct ResampleFilter {
  std::uint32_t rate = 0;    // source rate
  std::uint32_t g = 1;       // gcd(rate, 48,000)
  std::uint32_t phases = 1;  // 48,000 / g
  std::uint32_t half = 32;   // h
  std::uint32_t taps = 64;   // 2h per phase
  double cutoff = 0.94;      // after the 0.94 lowering
  std::vector<float> coef;   // phases x taps
};

// Build the filter for a source rate (4,000..192,000 Hz).
bool make_resample_filter(std::uint32_t rate, ResampleFilter* f);

// Output frames for `frames` source frames: ceil(frames x 48,000 / rate).
std::uint64_t resampled_frames(std::uint64_t frames, std::uint32_t rate);

// Resample interleaved float PCM of `channels` channels. `cancel` is asked
// now and then and ends the work when it returns true. Errors: "WAV exceeds
// float32 range after resampling", "Out of memory resampling WAV", "WAV load
// cancelled".
bool resample(const ResampleFilter& f, const float* in, std::uint64_t frames, int channels, std::vector<float>* out,
              bool (*cancel)(), std::string* error);

}  // namespace sound
