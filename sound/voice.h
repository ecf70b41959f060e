// Channel state and the wavetable voices: what the audio thread owns while
// the engine runs (and the interpreter thread while it is stopped). The note
// channels of NOTE/SOUNDKEY and the MIDI player's 16 parts are two voice sets
// played by the same voice code.
#pragma once
#include <cstdint>
#include <cstring>

#include "sound/engine.h"

namespace sound {

// An exponential that remembers its last argument and result.
struct RememberedExp {
  double arg = 0, result = 1;
  double operator()(double x);
};

enum ControlNo {
  kVolume = 0, kPan = 1, kBrightness = 2, kAttack = 4, kRelease = 5, kPressure = 6, kTimbre = 7,
  kVibrato = 9, kVibrate = 10, kDetune = 17, kMute = 23,
};

constexpr std::uint32_t kNoKey = 0xFFFFFFFF;

struct Channel {
  int program = 0;  // 0..131
  double control[kControlCount] = {};
  // MIDI parts only; neutral for the note channels.
  double part_gain = 1;           // volume, expression and the soft pedal
  double side_l = 1, side_r = 1;  // the 14-bit pan law and balance
  double part_cents = 0;          // pitch bend and tuning
  double vibrato_delay = 0;       // seconds before a voice's vibrato fades in
  double decay_scale = 1;         // stretches the zones' decay times
  void reset() {
    *this = Channel{};
    control[kVolume] = 1;
    control[kBrightness] = 1;
    control[kPressure] = 1;
    control[kVibrate] = 5.5;
  }
};

struct Voice {
  bool active = false;
  bool released = false;
  bool sustained = false;   // note off while a MIDI part's pedal holds it
  bool loop = false;
  bool loop_until_release = false;
  std::uint8_t channel = 0, note = 0;
  std::uint32_t key = kNoKey;   // SOUNDKEY's key, kNoKey for NOTE voices
  std::uint64_t started = 0;    // allocation order, for stealing the oldest
  const std::int16_t* pcm = nullptr;
  std::int64_t end = 0, loop_start = 0, loop_end = 0;
  double pos = 0, step = 1, src_ratio = 1;
  double base_cents = 0, bend_cents = 0;
  double glide_cents = 0, glide_rate = 0;  // portamento: offset left, cents per sample
  double key_vibrato = 0;                  // extra vibrato depth in semitones (key pressure)
  double vib_phase = 0;
  int countdown = 0;
  double gain = 1;          // velocity and the zone's attenuation
  double key_gain = 1;      // SOUNDKEY pressure
  double key_x = 0, key_brightness = 1;
  double zone_pan = 0;
  double env = 0;           // envelope level
  double attack_inc = 1;    // per sample while attacking
  bool attacking = true;
  double sustain = 1, decay_mul = 1;
  double release_time = 0.1, release_mul = 1;
  std::uint16_t exclusive = 0;
  double age = 0;           // samples
  double sweep_g = 0.45;
  double lp[4] = {};
  double bright_state = 0;
  RememberedExp rexp;
};

struct VoiceSet {
  Channel* channels;
  Voice* voices;
  int count;
  std::uint64_t clock;
};

// Start the zones of a note on a channel of the set: the number of voices
// started (0 when the bank or the instrument lacks the note).
int strike(VoiceSet& set, int channel, int note, int velocity, std::uint32_t key, double bend, double pressure,
           double x, double y);
// Begin a voice's release fall (the channel's release setting applies).
void release(VoiceSet& set, Voice& v);
// Add one voice's next n frames into the interleaved block; false once it ended.
void render_voice(const VoiceSet& set, Voice& v, double* block, unsigned n);

// Add every active note voice's next n frames (n <= 128) into the interleaved block.
void mix_voices(double* block, unsigned n);

// The shared sine: a 4,096-entry table per cycle with linear interpolation;
// the phase is in cycles and wrapped into 0..1 first.
double sine(double phase);

}  // namespace sound
