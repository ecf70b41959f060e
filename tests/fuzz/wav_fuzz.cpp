// libFuzzer target for LOADWAV's decoding: RIFF WAV, FLAC and Ogg Opus by
// content, then the resampler. Any bytes either become a slot of finite
// 48 kHz float PCM of one or two channels, or are refused with a message.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sound/wav_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  sound::WavData w;
  std::string error;
  if (!sound::decode_audio(data, size, &w, nullptr, &error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  if ((w.channels != 1 && w.channels != 2) || w.pcm.size() != w.frames * w.channels || w.codec.empty()) std::abort();
  for (float f : w.pcm)
    if (!std::isfinite(f)) std::abort();
  return 0;
}
