// Loading a sound file's bytes into a WAV slot: recognised by content (RIFF
// WAV with WAVEFORMATEXTENSIBLE, native FLAC, Ogg Opus), decoded to float
// and resampled to 48 kHz. Pure apart from the cancel callback, so the
// parsers run in unit tests and under the fuzzer.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sound/wav_player.h"

namespace sound {

// Decoded audio at its own rate, interleaved float.
struct SourceAudio {
  std::uint32_t rate = 0;
  int channels = 0;
  std::vector<float> pcm;
  std::string codec, format;
};

// RIFF WAV only, with every rule and its message.
bool parse_riff_wav(const std::uint8_t* data, std::size_t size, SourceAudio* out, std::string* error);
// Ogg Opus through the Opus file library.
bool decode_ogg_opus(const std::uint8_t* data, std::size_t size, SourceAudio* out, bool (*cancel)(), std::string* error);

// The whole load: recognise, decode, resample. `cancel` is asked now and
// then ("WAV load cancelled").
bool decode_audio(const std::uint8_t* data, std::size_t size, WavData* out, bool (*cancel)(), std::string* error);

}  // namespace sound
