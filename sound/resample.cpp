// The resampler: filter design and the convolution, one output frame at a
// time from the phase its position falls on.
#include "sound/resample.h"

#include <cfloat>
#include <cmath>
#include <new>

#include "host/platform.h"

namespace sound {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr std::uint32_t kOut = 48000;

std::uint32_t gcd(std::uint32_t a, std::uint32_t b) {
  while (b) {
    const std::uint32_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

}  // namespace

bool make_resample_filter(std::uint32_t rate, ResampleFilter* f) {
  if (rate == 0) return false;
  f->rate = rate;
  f->g = gcd(rate, kOut);
  f->phases = kOut / f->g;
  double c = 1;
  if (rate <= kOut) {
    f->half = 32;
  } else {
    f->half = static_cast<std::uint32_t>((static_cast<std::uint64_t>(rate) * 32 + kOut - 1) / kOut);
    c = static_cast<double>(kOut) / rate;
  }
  f->taps = 2 * f->half;
  f->cutoff = c * 0.94;
  try {
    f->coef.assign(static_cast<std::size_t>(f->phases) * f->taps, 0.0f);
  } catch (const std::bad_alloc&) {
    return false;
  }
  const double h = f->half;
  for (std::uint32_t p = 0; p < f->phases; ++p) {
    const double frac = static_cast<double>(p) / f->phases;
    float* row = f->coef.data() + static_cast<std::size_t>(p) * f->taps;
    double sum = 0;
    for (std::uint32_t k = 0; k < f->taps; ++k) {
      const double x = (static_cast<double>(k) - h + 1) - frac;
      const double w = std::fabs(x) > h ? 0 : 0.42 + 0.5 * std::cos(kPi * x / h) + 0.08 * std::cos(2 * kPi * x / h);
      const double kernel = std::fabs(x) < 1e-12 ? f->cutoff : std::sin(kPi * f->cutoff * x) / (kPi * x);
      row[k] = static_cast<float>(kernel * w);
      sum += row[k];
    }
    for (std::uint32_t k = 0; k < f->taps; ++k) row[k] = static_cast<float>(row[k] / sum);
  }
  return true;
}

std::uint64_t resampled_frames(std::uint64_t frames, std::uint32_t rate) {
  return (frames * kOut + rate - 1) / rate;
}

bool resample(const ResampleFilter& f, const float* in, std::uint64_t frames, int channels, std::vector<float>* out,
              bool (*cancel)(), std::string* error) {
  const std::uint64_t n_out = resampled_frames(frames, f.rate);
  try {
    out->clear();
    out->reserve(static_cast<std::size_t>(n_out * channels));
    host::advise_large_buffer(out->data(), n_out * channels * sizeof(float));
    out->assign(static_cast<std::size_t>(n_out * channels), 0.0f);
  } catch (const std::bad_alloc&) {
    *error = "Out of memory resampling WAV";
    return false;
  }
  const std::int64_t taps = f.taps, lead = static_cast<std::int64_t>(f.half) - 1;
  const std::int64_t last = static_cast<std::int64_t>(frames);
  float* o = out->data();
  for (std::uint64_t n = 0; n < n_out; ++n) {
    if ((n & 0xFFFF) == 0 && cancel && cancel()) {
      *error = "WAV load cancelled";
      return false;
    }
    // Source position n x rate / 48,000: its whole frame and the phase of its fraction.
    const std::uint64_t pos = n * f.rate;
    const std::int64_t base = static_cast<std::int64_t>(pos / kOut);
    const std::uint32_t phase = static_cast<std::uint32_t>((pos % kOut) / f.g);
    const float* row = f.coef.data() + static_cast<std::size_t>(phase) * f.taps;
    const std::int64_t first = base - lead;  // source frame of tap 0
    const std::int64_t k0 = first < 0 ? -first : 0;
    const std::int64_t k1 = last - first < taps ? last - first : taps;
    for (int ch = 0; ch < channels; ++ch) {
      double acc = 0;
      const float* src = in + (first + k0) * channels + ch;
      for (std::int64_t k = k0; k < k1; ++k, src += channels) acc += static_cast<double>(row[k]) * *src;
      if (!(std::fabs(acc) <= FLT_MAX)) {
        *error = "WAV exceeds float32 range after resampling";
        return false;
      }
      o[n * channels + ch] = static_cast<float>(acc);
    }
  }
  return true;
}

}  // namespace sound
