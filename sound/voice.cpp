// Channel state and the wavetable voices: note on and off, live controls,
// expressive keys, the console beep, and the per-sample voice (pitch with
// vibrato and bend, Catmull-Rom reading through loops, envelope, timbre
// sweep, pan).
#include "sound/voice.h"

#include <cstring>

#include "sound/bank.h"
#include "sound/engine.h"
#include "sound/midi_player.h"
#include "sound/wav_player.h"
#include "values/mathlib.h"

namespace sound {

namespace {

constexpr double kLn2 = 0.69314718055994530942;
constexpr double kLn10 = 2.30258509299404568402;
constexpr double kLn1000 = 6.90775527898213705205;
constexpr int kSineSize = 4096;

Channel channels[kChannels];
Voice voices[kMaxVoices];
VoiceSet notes{channels, voices, kMaxVoices, 0};
bool channels_ready = false;

struct Beep {
  std::int64_t left = 0, total = 0;
  double phase = 0, inc = 0;
} beep;

double sine_table[kSineSize + 1];
bool sine_ready = false;

void init_tables() {
  if (sine_ready) return;
  for (int i = 0; i <= kSineSize; ++i) {
    double s, c;
    if (!values::sincos_raw(2 * 3.14159265358979323846 * i / kSineSize, &s, &c)) s = 0;
    sine_table[i] = s;
  }
  sine_ready = true;
}

void ensure_channels() {
  if (channels_ready) return;
  for (Channel& c : channels) c.reset();
  init_tables();
  channels_ready = true;
}

double pow10(double x) { return values::exp_raw(x * kLn10); }

Voice* allocate_voice(VoiceSet& set) {
  Voice* best = nullptr;
  Voice* const first = set.voices;
  Voice* const last = set.voices + set.count;
  for (Voice* v = first; v != last; ++v)
    if (!v->active) return v;
  // All busy: the quietest released voice goes first, else the oldest.
  for (Voice* v = first; v != last; ++v)
    if (v->released && (!best || v->env < best->env)) best = v;
  if (best) return best;
  for (Voice* v = first; v != last; ++v)
    if (!best || v->started < best->started) best = v;
  return best;
}

}  // namespace

void release(VoiceSet& set, Voice& v) {
  if (v.released) return;
  v.released = true;
  v.sustained = false;
  if (v.loop_until_release) v.loop = false;
  double t = v.release_time;
  const double r = set.channels[v.channel].control[kRelease];
  if (r > 0.001) t *= r / 0.45 < 10 ? r / 0.45 : 10;
  if (t < 0.001) t = 0.001;
  v.release_mul = v.rexp(-kLn1000 / (t * kRate));
}

int strike(VoiceSet& set, int channel, int note, int velocity, std::uint32_t key, double bend, double pressure,
           double x, double y) {
  const Bank* b = loaded_bank();
  if (!b) return 0;
  Channel& ch = set.channels[channel];
  const Zone* zones[8];
  const int n = find_zones(*b, ch.program, note, velocity, zones, 8);
  Voice* const first = set.voices;
  Voice* const last = set.voices + set.count;
  // A note struck again on its channel releases its earlier voice.
  for (Voice* v = first; v != last; ++v)
    if (v->active && v->channel == channel && v->note == note && v->key == kNoKey && key == kNoKey) release(set, *v);
  for (int i = 0; i < n; ++i) {
    const Zone& z = *zones[i];
    if (z.exclusive)
      for (Voice* v = first; v != last; ++v)
        if (v->active && v->channel == channel && v->exclusive == z.exclusive) release(set, *v);
  }
  for (int i = 0; i < n; ++i) {
    const Zone& z = *zones[i];
    const SampleInfo& s = b->samples[z.sample];
    Voice* vp = allocate_voice(set);
    Voice& v = *vp;
    v = Voice{};
    v.active = true;
    v.channel = static_cast<std::uint8_t>(channel);
    v.note = static_cast<std::uint8_t>(note);
    v.key = key;
    v.started = ++set.clock;
    v.pcm = b->sample_pcm(z.sample);
    v.end = z.end <= s.frames ? z.end : s.frames;
    v.loop_start = z.loop_start;
    v.loop_end = z.loop_end <= v.end ? z.loop_end : v.end;
    v.loop = (z.flags & (kZoneLoop | kZoneLoopUntilRelease)) && v.loop_end > v.loop_start + 1;
    v.loop_until_release = (z.flags & kZoneLoopUntilRelease) != 0;
    v.pos = z.start;
    v.src_ratio = static_cast<double>(s.rate) / kRate;
    v.base_cents = (note - z.root_key) * 100.0 + z.tune_cents;
    v.bend_cents = bend;
    const double vel = velocity / 127.0;
    v.gain = vel * vel * pow10(-z.attenuation_cb / 200.0);
    v.key_gain = pressure;
    v.key_x = x;
    v.key_brightness = (y + 1) / 2;
    v.zone_pan = z.pan / 500.0;
    double attack = z.attack;
    if (ch.control[kAttack] > attack) attack = ch.control[kAttack];
    v.attack_inc = attack > 0.0005 ? 1.0 / (attack * kRate) : 1.0;
    v.sustain = z.sustain;
    const double decay = z.decay * ch.decay_scale;
    v.decay_mul = decay > 0 ? values::exp_raw(-kLn1000 / (decay * kRate)) : 1;
    v.release_time = z.release;
    v.exclusive = z.exclusive;
  }
  return n;
}

namespace {

void apply_key(const Command& c) {
  bool found = false;
  for (Voice& v : voices) {
    if (!v.active || v.channel != c.channel || v.key != c.key || v.released) continue;
    found = true;
    if (c.gate == 0) {
      release(notes, v);
    } else {
      v.bend_cents = (c.pitch - v.note) * 100.0;
      v.key_gain = c.pressure;
      v.key_x = c.x;
      v.key_brightness = (c.y + 1) / 2;
    }
  }
  if (found || c.gate == 0) return;
  int note = static_cast<int>(c.pitch + 0.5);
  if (note > 127) note = 127;
  (void)strike(notes, c.channel, note, 100, c.key, (c.pitch - note) * 100.0, c.pressure, c.x, c.y);
}

// p0..p3 around position i (p1 = sample i), wrapping through the loop.
inline double at(const Voice& v, std::int64_t k) {
  if (v.loop) {
    if (k >= v.loop_end) k -= v.loop_end - v.loop_start;
  } else if (k >= v.end) {
    return 0;
  }
  if (k < 0) k = 0;
  return v.pcm[k];
}

}  // namespace

void render_voice(const VoiceSet& set, Voice& v, double* block, unsigned n) {
  const Channel& ch = set.channels[v.channel];
  const bool mute = ch.control[kMute] != 0;
  double pan = ch.control[kPan] + v.zone_pan + v.key_x;
  pan = pan < -1 ? -1 : pan > 1 ? 1 : pan;
  const double gain =
      v.gain * v.key_gain * ch.control[kVolume] * ch.control[kPressure] * ch.part_gain * (mute ? 0 : 1) / 32768.0;
  const double gl = 0.7071 * (1 - 0.78 * pan) * gain * ch.side_l;
  const double gr = 0.7071 * (1 + 0.78 * pan) * gain * ch.side_r;
  double sweep = ch.control[kTimbre];
  const double kx = v.key_x < 0 ? -v.key_x : v.key_x;
  if (v.key != kNoKey && kx > sweep) sweep = kx;
  sweep = sweep < 0 ? 0 : sweep > 1 ? 1 : sweep;
  double bright = ch.control[kBrightness];
  if (v.key != kNoKey && v.key_brightness < bright) bright = v.key_brightness;
  const bool dull = bright < 1;
  const double bright_c = bright <= 0 ? 0.02 : 0.02 + 0.98 * bright;
  const double depth = ch.control[kVibrato] + v.key_vibrato;
  const double vib_delay = ch.vibrato_delay * kRate;
  const double vib_inc = ch.control[kVibrate] / kRate;
  const double bend = v.bend_cents + ch.control[kDetune] + ch.part_cents;
  const std::int64_t limit = v.loop ? v.loop_end : v.end;
  unsigned i = 0;
  while (i < n) {
    if (v.countdown <= 0) {
      v.countdown = 16;
      // A vibrato delay holds the vibrato back, then fades it in over 100 ms.
      double vib = depth;
      if (vib_delay > 0 && v.age < vib_delay + 4800) vib *= v.age < vib_delay ? 0 : (v.age - vib_delay) / 4800;
      const double cents = v.base_cents + sine(v.vib_phase) * vib * 100 + bend + v.glide_cents;
      const double step = v.rexp(cents * kLn2 / 1200) * v.src_ratio;
      if (v.glide_cents != 0) {
        // Portamento: the offset shrinks linearly to the note's own pitch.
        const double left = v.glide_cents < 0 ? -v.glide_cents : v.glide_cents;
        const double move = v.glide_rate * 16;
        v.glide_cents = move >= left ? 0 : v.glide_cents < 0 ? v.glide_cents + move : v.glide_cents - move;
      }
      v.step = step < 0.01 ? 0.01 : step > 32 ? 32 : step;
      if (sweep > 0) v.sweep_g = 0.45 + 0.3 * sine(v.age / kRate * 0.35);
    }
    // Up to the next pitch update the step is fixed: the inner loop is the
    // voice's whole per-sample work.
    const unsigned run = n - i < static_cast<unsigned>(v.countdown) ? n - i : static_cast<unsigned>(v.countdown);
    v.countdown -= static_cast<int>(run);
    v.vib_phase += vib_inc * run;
    if (v.vib_phase >= 1) v.vib_phase -= 1;
    v.age += run;
    const double step = v.step;
    const bool may_end = v.released || (!v.attacking && v.sustain < 0.00001);
    for (const unsigned stop = i + run; i < stop; ++i) {
      const std::int64_t k = static_cast<std::int64_t>(v.pos);
      const double t = v.pos - static_cast<double>(k);
      double p0, p1, p2, p3;
      if (k >= 1 && k + 2 < limit) {
        p0 = v.pcm[k - 1];
        p1 = v.pcm[k];
        p2 = v.pcm[k + 1];
        p3 = v.pcm[k + 2];
      } else {
        p0 = at(v, k - 1);
        p1 = at(v, k);
        p2 = at(v, k + 1);
        p3 = at(v, k + 2);
      }
      double x = p1 + 0.5 * t * (p2 - p0 + t * (2 * p0 - 5 * p1 + 4 * p2 - p3 + t * (3 * (p1 - p2) + p3 - p0)));
      // Envelope: attack ramp, fall towards the sustain level, release fall.
      if (v.released) {
        v.env *= v.release_mul;
      } else if (v.attacking) {
        v.env += v.attack_inc;
        if (v.env >= 1) {
          v.env = 1;
          v.attacking = false;
        }
      } else if (v.decay_mul < 1) {
        v.env = v.sustain + (v.env - v.sustain) * v.decay_mul;
      }
      x *= v.env;
      if (sweep > 0) {
        const double g = v.sweep_g;
        double y = x;
        for (double& s : v.lp) y = s += g * (y - s);
        x = x * (1 - sweep) + y * sweep;
      }
      if (dull) x = v.bright_state += bright_c * (x - v.bright_state);
      block[2 * i] += x * gl;
      block[2 * i + 1] += x * gr;
      v.pos += step;
      if (v.loop) {
        while (v.pos >= static_cast<double>(v.loop_end)) v.pos -= static_cast<double>(v.loop_end - v.loop_start);
      } else if (v.pos >= static_cast<double>(v.end)) {
        v.active = false;
        return;
      }
      if (may_end && v.env < 0.00001) {
        v.active = false;
        return;
      }
    }
  }
}

namespace {

void render_beep(double* block, unsigned n) {
  for (unsigned i = 0; i < n && beep.left > 0; ++i, --beep.left) {
    // 5 ms ramps at both ends keep the beep from clicking.
    const std::int64_t done = beep.total - beep.left;
    double ramp = 1;
    if (done < 240) ramp = done / 240.0;
    if (beep.left < 240) ramp = beep.left / 240.0;
    const double x = 0.25 * ramp * sine(beep.phase);
    beep.phase += beep.inc;
    if (beep.phase >= 1) beep.phase -= 1;
    block[2 * i] += x;
    block[2 * i + 1] += x;
  }
}

}  // namespace

double RememberedExp::operator()(double x) {
  if (x < -700 || x > 700) return values::exp_raw(x);
  if (x != arg) {
    arg = x;
    result = values::exp_raw(x);
  }
  return result;
}

double sine(double phase) {
  phase -= static_cast<double>(static_cast<std::int64_t>(phase));
  if (phase < 0) phase += 1;
  const double f = phase * kSineSize;
  int i = static_cast<int>(f);
  if (i >= kSineSize) i = kSineSize - 1;
  const double frac = f - i;
  return sine_table[i] + (sine_table[i + 1] - sine_table[i]) * frac;
}

void apply(const Command& c) {
  ensure_channels();
  if (c.kind >= kCmdMidiPlay && c.kind <= kCmdMidiForget) return midi_apply(c);
  if (c.kind >= kCmdWavPlay && c.kind <= kCmdWavForget) return wav_apply(c);
  if (c.channel >= kChannels) return;
  switch (c.kind) {
    case kCmdNoteOn:
      (void)strike(notes, c.channel, c.note, c.velocity, kNoKey, 0, 1, 0, 1);
      break;
    case kCmdNoteOff:
      for (Voice& v : voices)
        if (v.active && v.channel == c.channel && v.note == c.note && v.key == kNoKey) release(notes, v);
      break;
    case kCmdInstrument:
      channels[c.channel].program = static_cast<int>(c.value);
      break;
    case kCmdReset:
      for (Channel& ch : channels) ch.reset();
      for (Voice& v : voices) v.active = false;
      beep.left = 0;
      master_gain = 1.0;
      break;
    case kCmdControl:
      if (c.control < kControlCount) channels[c.channel].control[c.control] = c.value;
      break;
    case kCmdMaster:
      master_gain = c.value;
      break;
    case kCmdKey:
      apply_key(c);
      break;
    case kCmdBeep:
      beep.total = beep.left = static_cast<std::int64_t>(c.pitch * kRate / 1000);
      beep.phase = 0;
      beep.inc = c.value / kRate;
      break;
    default:
      break;
  }
}

void mix_voices(double* block, unsigned n) {
  ensure_channels();
  for (Voice& v : voices)
    if (v.active) render_voice(notes, v, block, n);
  if (beep.left > 0) render_beep(block, n);
}

int active_voices() {
  int n = 0;
  for (const Voice& v : voices) n += v.active ? 1 : 0;
  return n;
}

// SOUNDCTL and the statements read back what they set.
double channel_control(int channel, int control) {
  ensure_channels();
  return channels[channel].control[control];
}

}  // namespace sound
