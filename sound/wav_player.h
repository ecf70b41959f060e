// The 64 WAV playback channels on the audio thread: decoded 48 kHz float PCM
// played from slots, with 5 ms fades and gain ramps, the constant-power pan
// of mono slots and the balance of stereo ones.
#pragma once
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "sound/engine.h"

namespace sound {

constexpr int kWavSlots = 256;
constexpr int kWavChannels = 64;
constexpr unsigned kWavRampFrames = 240;  // 5 ms

// One loaded sound: 48 kHz float PCM, interleaved when stereo, and what it was.
struct WavData {
  int channels = 1;
  std::uint64_t frames = 0;
  std::vector<float> pcm;
  std::string codec;   // "RIFF WAV PCM", "FLAC", "Ogg Opus", ...
  std::string source;  // the format before decoding: "44100 Hz, 16-bit, stereo"
  std::uint32_t source_rate = 48000;
};

enum WavState { kWavIdle = 0, kWavPlaying = 1, kWavPaused = 2, kWavStopping = 3 };

// Written by the audio thread after each block (and by the calling thread
// when the engine is stopped). generation is the last command applied to the
// channel, so the statements know whether their own command has arrived.
struct WavStatus {
  std::atomic<int> state[kWavChannels] = {};
  std::atomic<int> slot[kWavChannels] = {};
  std::atomic<std::uint64_t> position[kWavChannels] = {};
  std::atomic<std::uint64_t> generation[kWavChannels] = {};
};
extern WavStatus wav_status;

// Gains of a channel: mono slots pan at constant power, stereo slots balance.
void wav_gains(int channels, double volume, double pan, double* left, double* right);

void wav_apply(const Command& c);
void wav_mix(double* block, unsigned n);

}  // namespace sound
