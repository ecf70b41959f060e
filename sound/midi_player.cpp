// The MIDI player: the song's events applied at their frames (a render block
// is split at each event, so a note starts on its own frame), the 16 parts'
// programs, drum kits, controllers, RPNs, GS NRPNs, pressure, portamento and
// pedals, each part's tremolo and phaser, the release tails after the score,
// looping, and the effect sends with their meters.
#include "sound/midi_player.h"

#include <cmath>
#include <cstring>

#include "sound/bank.h"
#include "sound/midi_file.h"
#include "sound/midi_fx.h"
#include "sound/voice.h"
#include "values/mathlib.h"

namespace sound {

MidiStatus midi_status;

namespace {

constexpr int kNullRpn = 0x3FFF;
constexpr int kVoices = 256;
enum { kReverb = 0, kChorus = 1, kDelay = 2 };

struct Part {
  std::uint8_t cc[128];
  int program = 0, kit = 0;
  bool drum = false;
  int rpn = kNullRpn;
  bool nrpn = false;
  double bend_range = 2;  // semitones
  int bend = 8192;
  double fine_cents = 0, coarse = 0;
  std::uint8_t file_send[3] = {};
  bool sostenuto_note[128] = {};
  std::uint32_t note_ons = 0;
  int pressure = 0;          // channel pressure
  bool breath_used = false;  // the breath controller sets the level once it has been sent
  int last_note = -1;        // where portamento glides from
  int glide_from = -1;       // CC84: the next note glides from this note
  int velocity_lsb = -1;     // CC88: the next note's velocity fraction
  // GS drum NRPNs per key: pitch in semitones, level, pan (0 leaves the kit's).
  std::int8_t drum_pitch[128] = {};
  std::uint8_t drum_level[128] = {}, drum_pan[128] = {};
};

// Each part's own tremolo and phaser, after its voices are summed.
struct PartFx {
  double tremolo_phase = 0, phaser_phase = 0;
  double coef = 0;
  int countdown = 0;
  double ap_in[2][4] = {}, ap_out[2][4] = {};
};

struct Player {
  const Song* song = nullptr;
  int slot = -1;
  bool loop = false;
  std::size_t next = 0;        // the next event
  std::uint32_t pos = 0;       // frames into the score
  std::uint32_t tail = 0;      // frames of release tails so far
  int state = 0;
  double master = 1;           // the file's master volume
  int return_level[3] = {64, 64, 64};
  // MIDFX: 0 follows the file, 1 manual sends for every part, 2 no effects.
  int fx_mode = 0;
  int fx_manual[3] = {};
  std::uint32_t missed = 0, ignored = 0;
} pl;

Channel channels[kMidiParts];
Voice voices[kVoices];
VoiceSet set{channels, voices, kVoices, 0};
Part parts[kMidiParts];
PartFx part_fx[kMidiParts];
bool ready = false;

Reverb* reverb = nullptr;
Chorus* chorus = nullptr;
Echo* echo = nullptr;
double part_buf[kMidiParts][2 * kBlockFrames];
double send_buf[3][2 * kBlockFrames];
double wet_buf[3][2 * kBlockFrames];
double send_peak[3], wet_peak[3];
bool fx_quiet = true;  // nothing in the effect lines worth rendering

// The 14-bit pan law: below the centre the right side falls, above it the left.
void side_gains(int v, double* l, double* r) {
  *l = *r = 1;
  if (v < 8192) *r = v / 8192.0;
  else *l = (16256 - v) / 8064.0;
  *l = *l < 0 ? 0 : *l > 1 ? 1 : *l;
  *r = *r < 0 ? 0 : *r > 1 ? 1 : *r;
}

// A controller with its fine part (the LSB controller) as 0..1.
double fine_value(const Part& pt, int msb) {
  const double v = (pt.cc[msb] + pt.cc[msb + 32] / 128.0) / 127.0;
  return v > 1 ? 1 : v;
}

void update_part(int p) {
  Part& pt = parts[p];
  Channel& ch = channels[p];
  const double vol = pt.cc[7] / 127.0, expr = pt.cc[11] / 127.0;
  double gain = vol * vol * expr * expr * (pt.cc[67] >= 64 ? 0.7 : 1.0);
  if (pt.breath_used) {
    const double b = fine_value(pt, 2);
    gain *= b * b;
  }
  ch.part_gain = gain;
  double pl_, pr_, bl, br;
  side_gains(pt.cc[10] * 128 + pt.cc[42], &pl_, &pr_);
  side_gains(pt.cc[8] * 128 + pt.cc[40], &bl, &br);
  ch.side_l = pl_ * bl;
  ch.side_r = pr_ * br;
  ch.part_cents = (pt.bend - 8192) / 8192.0 * pt.bend_range * 100 + pt.fine_cents + pt.coarse * 100;
  const int vd = pt.cc[77] > 64 ? pt.cc[77] - 64 : 0;
  // Modulation, the foot controller, channel pressure and the depth
  // controller each add up to half a semitone.
  ch.control[kVibrato] = (pt.cc[1] / 127.0 + fine_value(pt, 4) + pt.pressure / 127.0 + vd / 63.0) * 0.5;
  ch.vibrato_delay = pt.cc[78] > 64 ? (pt.cc[78] - 64) / 63.0 * 2 : 0;
  ch.decay_scale = std::exp2((pt.cc[75] - 64) / 16.0);
  ch.control[kVibrate] = 5.5 * std::exp2((pt.cc[76] - 64) / 32.0);
  ch.control[kTimbre] = pt.cc[71] > 64 ? (pt.cc[71] - 64) / 63.0 * 0.5 : 0;
  ch.control[kRelease] = pt.cc[72] == 64 ? 0 : 0.45 * std::exp2((pt.cc[72] - 64) / 16.0);
  ch.control[kAttack] = pt.cc[73] <= 64 ? 0 : (pt.cc[73] - 64) / 63.0 * (pt.cc[73] - 64) / 63.0 * 2;
  double bright = pt.cc[74] >= 64 ? 1 : pt.cc[74] / 64.0;
  if (pt.cc[67] >= 64) bright *= 0.8;
  ch.control[kBrightness] = bright;
  ch.program = pt.drum ? 128 + pt.kit : pt.program;
}

void reset_controllers(int p) {
  Part& pt = parts[p];
  pt.cc[1] = pt.cc[2] = pt.cc[4] = 0;
  pt.cc[11] = 127;
  for (int c : {64, 65, 66, 67, 68, 69}) pt.cc[c] = 0;
  pt.cc[33] = pt.cc[34] = pt.cc[36] = 0;
  pt.bend = 8192;
  pt.rpn = kNullRpn;
  pt.nrpn = false;
  pt.pressure = 0;
  pt.breath_used = false;
  pt.glide_from = pt.velocity_lsb = -1;
  for (Voice& v : voices)
    if (v.active && v.channel == p) v.key_vibrato = 0;
}

void reset_part(int p) {
  Part& pt = parts[p];
  const std::uint32_t ons = pt.note_ons;
  pt = Part{};
  pt.note_ons = ons;
  std::memset(pt.cc, 0, sizeof pt.cc);
  pt.cc[7] = 100;
  pt.cc[11] = 127;
  pt.cc[10] = 64;
  pt.cc[8] = 64;
  pt.cc[91] = 40;  // the GM default reverb send
  for (int c : {71, 72, 73, 74, 75, 76, 77, 78}) pt.cc[c] = 64;
  pt.file_send[kReverb] = 40;
  std::memset(pt.drum_level, 127, sizeof pt.drum_level);
  pt.drum = p == 9;
  channels[p].reset();
  update_part(p);
}

void reset_all_parts() {
  for (int p = 0; p < kMidiParts; ++p) reset_part(p);
}

void ensure_ready() {
  if (ready) return;
  reset_all_parts();
  reverb = new Reverb;
  chorus = new Chorus;
  echo = new Echo;
  ready = true;
}

void release_held(int p, bool all) {
  for (Voice& v : voices)
    if (v.active && v.channel == p && !v.released && (all || v.sustained)) release(set, v);
}

void note_off(int p, int note) {
  Part& pt = parts[p];
  const bool hold = pt.cc[64] >= 64 || pt.cc[69] >= 64 || (pt.cc[66] >= 64 && pt.sostenuto_note[note]);
  for (Voice& v : voices) {
    if (!v.active || v.channel != p || v.note != note || v.released) continue;
    if (hold) v.sustained = true;
    else release(set, v);
  }
}

void pedal_up(int p) {
  Part& pt = parts[p];
  const bool sustain = pt.cc[64] >= 64 || pt.cc[69] >= 64;
  if (sustain) return;
  for (Voice& v : voices)
    if (v.active && v.channel == p && v.sustained && !(pt.cc[66] >= 64 && pt.sostenuto_note[v.note])) release(set, v);
  if (pt.cc[66] < 64) std::memset(pt.sostenuto_note, 0, sizeof pt.sostenuto_note);
}

void silence_part(int p, bool fast) {
  for (Voice& v : voices) {
    if (!v.active || v.channel != p) continue;
    if (!fast) {
      v.active = false;
      continue;
    }
    // A 60 dB fall in 10 ms ends the note without a click.
    v.released = true;
    v.loop = v.loop && !v.loop_until_release;
    v.release_mul = std::exp(-6.907755278982137 / (0.01 * kRate));
  }
}

// The GS NRPNs: the sound controllers of MSB 1 and the drum keys' pitch,
// level and pan. Others are counted as ignored.
void nrpn_entry(int p) {
  Part& pt = parts[p];
  const int msb = pt.cc[99], lsb = pt.cc[98];
  const std::uint8_t v = pt.cc[6];
  if (msb == 1) {
    static constexpr std::uint8_t kSoundControls[][2] = {{0x08, 76}, {0x09, 77}, {0x0A, 78}, {0x20, 74},
                                                         {0x21, 71}, {0x63, 73}, {0x64, 75}, {0x66, 72}};
    for (const auto& s : kSoundControls)
      if (s[0] == lsb) {
        pt.cc[s[1]] = v;
        update_part(p);
        return;
      }
  } else if (msb == 0x18) {
    pt.drum_pitch[lsb] = static_cast<std::int8_t>(v - 64);
    return;
  } else if (msb == 0x1A) {
    pt.drum_level[lsb] = v;
    return;
  } else if (msb == 0x1C) {
    pt.drum_pan[lsb] = v;
    return;
  }
  ++pl.ignored;
}

void data_entry(int p, int msb_delta, int lsb, bool set_msb, int msb) {
  Part& pt = parts[p];
  if (!pt.nrpn && pt.rpn == kNullRpn) {
    ++pl.ignored;
    return;
  }
  if (set_msb) pt.cc[6] = static_cast<std::uint8_t>(msb);
  if (lsb >= 0) pt.cc[38] = static_cast<std::uint8_t>(lsb);
  int m = pt.cc[6] + msb_delta;
  m = m < 0 ? 0 : m > 127 ? 127 : m;
  pt.cc[6] = static_cast<std::uint8_t>(m);
  if (pt.nrpn) return nrpn_entry(p);
  switch (pt.rpn) {
    case 0:  // pitch bend range: semitones and cents
      pt.bend_range = pt.cc[6] + pt.cc[38] / 100.0;
      break;
    case 1:  // fine tuning: +-100 cents
      pt.fine_cents = (pt.cc[6] * 128 + pt.cc[38] - 8192) / 8192.0 * 100;
      break;
    case 2:  // coarse tuning: semitones
      pt.coarse = pt.cc[6] - 64;
      break;
    default:
      ++pl.ignored;
      break;
  }
  update_part(p);
}

void control(int p, int cc, int v) {
  Part& pt = parts[p];
  const int old = pt.cc[cc];
  pt.cc[cc] = static_cast<std::uint8_t>(v);
  switch (cc) {
    case 6: data_entry(p, 0, -1, true, v); return;
    case 38: data_entry(p, 0, v, false, 0); return;
    case 96: data_entry(p, 1, -1, false, 0); return;
    case 97: data_entry(p, -1, -1, false, 0); return;
    case 98: case 99: pt.nrpn = true; return;
    case 2: case 34: pt.breath_used = true; break;
    case 84: pt.glide_from = v; return;
    case 88: pt.velocity_lsb = v; return;
    case 100: case 101:
      pt.nrpn = false;
      pt.rpn = pt.cc[101] * 128 + pt.cc[100];
      return;
    case 64: case 69:
      if (v < 64 && old >= 64) pedal_up(p);
      return;
    case 66:
      if (v >= 64 && old < 64) {
        for (const Voice& vc : voices)
          if (vc.active && vc.channel == p && !vc.released && !vc.sustained) pt.sostenuto_note[vc.note] = true;
      } else if (v < 64 && old >= 64) {
        pedal_up(p);
      }
      return;
    case 120: silence_part(p, false); return;
    case 121:
      reset_controllers(p);
      pedal_up(p);
      break;
    case 123: case 124: case 125: case 126: case 127:
      // All notes off (and the mode messages that imply it); the pedal still holds.
      for (Voice& vc : voices)
        if (vc.active && vc.channel == p && !vc.released) {
          if (pt.cc[64] >= 64) vc.sustained = true;
          else release(set, vc);
        }
      return;
    default: break;
  }
  update_part(p);
}

void program_change(int p, int prog) {
  Part& pt = parts[p];
  pt.program = prog;
  if (pt.drum) {
    bool fallback;
    pt.kit = midi_kit_for_program(prog, &fallback);
  }
  update_part(p);
}

// Portamento time: none at 0, else 10 ms x 400^(v / 127) (about 0.2 s at
// 64, 4 s at 127) for the whole glide, whatever its interval.
double glide_seconds(const Part& pt) {
  const double v = pt.cc[5] + pt.cc[37] / 128.0;
  return v <= 0 ? 0 : 0.01 * values::exp_raw(5.991464547107982 * v / 127);
}

void note_on(int p, int note, int velocity) {
  Part& pt = parts[p];
  ++pt.note_ons;
  if (pt.cc[66] >= 64) pt.sostenuto_note[note] = false;
  double bend = 0, level = 1, pan = 0;
  if (pt.drum) {
    bend = pt.drum_pitch[note] * 100.0;
    level = pt.drum_level[note] / 127.0;
    level *= level;
    pan = pt.drum_pan[note] ? (pt.drum_pan[note] - 64) / 64.0 : 0;
  }
  const std::uint64_t before = set.clock;
  if (strike(set, p, note, velocity, kNoKey, bend, level, pan, 1) == 0) ++pl.missed;
  int from = pt.glide_from;
  if (from < 0 && pt.cc[65] >= 64) from = pt.last_note;
  const double t = pt.drum || from == note ? 0 : glide_seconds(pt);
  const double fine = pt.velocity_lsb > 0 ? (velocity + pt.velocity_lsb / 128.0) / velocity : 1;
  for (Voice& v : voices) {
    if (!v.active || v.started <= before) continue;
    if (from >= 0 && t > 0) {
      v.glide_cents = (from - note) * 100.0;
      v.glide_rate = (from > note ? from - note : note - from) * 100.0 / (t * kRate);
    }
    v.gain *= fine * fine;
  }
  pt.glide_from = pt.velocity_lsb = -1;
  pt.last_note = note;
}

void apply_event(const MidiEvent& e) {
  const int p = e.channel & 15;
  switch (e.kind) {
    case kEvNoteOn: note_on(p, e.d1, e.d2); break;
    case kEvNoteOff: note_off(p, e.d1); break;
    case kEvControl: control(p, e.d1, e.d2); break;
    case kEvProgram: program_change(p, e.d1); break;
    case kEvBend:
      parts[p].bend = e.d2 * 128 + e.d1;
      update_part(p);
      break;
    case kEvPolyPressure:  // the key's own vibrato, up to half a semitone
      for (Voice& v : voices)
        if (v.active && v.channel == p && v.note == e.d1 && !v.released) v.key_vibrato = e.d2 / 127.0 * 0.5;
      break;
    case kEvChannelPressure:
      parts[p].pressure = e.d1;
      update_part(p);
      break;
    case kEvGmOn:
    case kEvGsReset:
      for (int i = 0; i < kMidiParts; ++i) silence_part(i, true);
      reset_all_parts();
      pl.master = 1;
      for (int& r : pl.return_level) r = 64;
      break;
    case kEvMasterVolume: pl.master = (e.d2 * 128 + e.d1) / 16383.0; break;
    case kEvGsReturn: pl.return_level[e.d1 % 3] = e.d2; break;
    case kEvGsPart: {
      Part& pt = parts[p];
      switch (e.d1) {
        case 0x15:
          pt.drum = e.d2 != 0;
          update_part(p);
          break;
        case 0x19: control(p, 7, e.d2); break;
        case 0x1C: control(p, 10, e.d2 ? e.d2 : 64); break;  // 0 is "random": the centre
        case 0x21: control(p, 93, e.d2); break;
        case 0x22: control(p, 91, e.d2); break;
        case 0x2C: control(p, 94, e.d2); break;
        default: break;
      }
      break;
    }
    default: break;
  }
  if (e.kind == kEvControl || e.kind == kEvGsPart) {
    Part& pt = parts[p];
    pt.file_send[kReverb] = pt.cc[91];
    pt.file_send[kChorus] = pt.cc[93];
    pt.file_send[kDelay] = pt.cc[94];
  }
}

bool any_voice() {
  for (const Voice& v : voices)
    if (v.active) return true;
  return false;
}

void finish_playback() {
  pl.state = 0;
  if (pl.slot >= 0) midi_status.last_slot = pl.slot;
  midi_status.last_missed = pl.missed;
  midi_status.last_ignored = pl.ignored;
  pl.song = nullptr;
}

void stop_playback(bool fast) {
  for (int p = 0; p < kMidiParts; ++p) silence_part(p, fast);
  if (pl.state != 0) finish_playback();
  pl.song = nullptr;
}

// The sends of one part: the file's (or MIDCC's) controllers, or MIDFX's.
double send_level(int p, int fx) {
  if (pl.fx_mode == 2) return 0;
  if (pl.fx_mode == 1) return pl.fx_manual[fx] / 127.0;
  static constexpr int kCc[3] = {91, 93, 94};
  return parts[p].cc[kCc[fx]] / 127.0;
}

double return_gain(int fx) { return pl.fx_mode == 0 ? pl.return_level[fx] / 64.0 : 1.0; }

constexpr double kPhaserRate = 0.4;  // Hz

void advance_lfos(int p, unsigned frames) {
  PartFx& fx = part_fx[p];
  fx.tremolo_phase += channels[p].control[kVibrate] / kRate * frames;
  fx.phaser_phase += kPhaserRate / kRate * frames;
  fx.tremolo_phase -= static_cast<double>(static_cast<std::int64_t>(fx.tremolo_phase));
  fx.phaser_phase -= static_cast<double>(static_cast<std::int64_t>(fx.phaser_phase));
}

// Tremolo (CC92) dips the part's level at its vibrato rate, down to half at
// full depth. The phaser (CC95) adds four first-order all-pass stages whose
// turnover sweeps 200..2,000 Hz at 0.4 Hz: the notches where the stages
// reach 180 degrees move through the spectrum; the mix keeps unity gain
// between them and reaches zero in them at full depth.
void part_effects(int p, double* buf, unsigned run) {
  const Part& pt = parts[p];
  PartFx& fx = part_fx[p];
  const double tremolo = pt.cc[92] / 127.0 * 0.25, depth = pt.cc[95] / 127.0;
  if (tremolo <= 0 && depth <= 0) return advance_lfos(p, run);
  const double tremolo_inc = channels[p].control[kVibrate] / kRate;
  for (unsigned i = 0; i < run; ++i) {
    if (depth > 0) {
      if (fx.countdown <= 0) {
        fx.countdown = 16;
        constexpr double kLn10 = 2.30258509299404568402, kPi = 3.14159265358979323846;
        const double fc = 200 * values::exp_raw(kLn10 * (0.5 + 0.5 * sine(fx.phaser_phase)));
        const double t = kPi * fc / kRate;  // below 0.14: three terms of tan suffice
        const double w = t + t * t * t / 3 + 2 * t * t * t * t * t / 15;
        fx.coef = (w - 1) / (w + 1);
      }
      --fx.countdown;
      for (int side = 0; side < 2; ++side) {
        const double dry = buf[2 * i + side];
        double x = dry;
        for (int k = 0; k < 4; ++k) {
          const double y = fx.coef * x + fx.ap_in[side][k] - fx.coef * fx.ap_out[side][k];
          fx.ap_in[side][k] = x;
          fx.ap_out[side][k] = y;
          x = y;
        }
        buf[2 * i + side] = (dry + depth * x) / (1 + depth);
      }
    }
    if (tremolo > 0) {
      const double g = 1 - tremolo * (1 - sine(fx.tremolo_phase));
      buf[2 * i] *= g;
      buf[2 * i + 1] *= g;
    }
    fx.tremolo_phase += tremolo_inc;
    if (fx.tremolo_phase >= 1) fx.tremolo_phase -= 1;
    fx.phaser_phase += kPhaserRate / kRate;
    if (fx.phaser_phase >= 1) fx.phaser_phase -= 1;
  }
}

// Render the voices for `run` frames at `at` into the block and the sends.
void render_run(double* block, unsigned at, unsigned run) {
  bool used[kMidiParts] = {};
  for (Voice& v : voices) {
    if (!v.active) continue;
    if (!used[v.channel]) {
      used[v.channel] = true;
      std::memset(part_buf[v.channel], 0, sizeof(double) * 2 * run);
    }
    render_voice(set, v, part_buf[v.channel], run);
  }
  for (int p = 0; p < kMidiParts; ++p) {
    if (!used[p]) {
      advance_lfos(p, run);
      continue;
    }
    part_effects(p, part_buf[p], run);
    const double* src = part_buf[p];
    double* dst = block + 2 * at;
    for (unsigned i = 0; i < 2 * run; ++i) dst[i] += src[i] * pl.master;
    for (int fx = 0; fx < 3; ++fx) {
      const double s = send_level(p, fx) * pl.master;
      if (s <= 0) continue;
      double* sb = send_buf[fx] + 2 * at;
      for (unsigned i = 0; i < 2 * run; ++i) sb[i] += src[i] * s;
      fx_quiet = false;
    }
  }
}

void publish() {
  MidiStatus& st = midi_status;
  st.state = pl.state;
  st.position = pl.pos;
  st.playing_slot = pl.state == 1 ? pl.slot : -1;
  st.releasing_slot = pl.state == 2 ? pl.slot : -1;
  st.missed = pl.missed;
  st.ignored = pl.ignored;
  int live[kMidiParts] = {}, total = 0;
  for (const Voice& v : voices)
    if (v.active && !v.released) ++live[v.channel], ++total;
  st.live_voices = total;
  static constexpr int kCc[3] = {91, 93, 94};
  for (int p = 0; p < kMidiParts; ++p) {
    st.live[p] = live[p];
    st.program[p] = channels[p].program;
    st.note_ons[p] = parts[p].note_ons;
    for (int fx = 0; fx < 3; ++fx) {
      st.file_send[p][fx] = parts[p].file_send[fx];
      st.send[p][fx] = parts[p].cc[kCc[fx]];
    }
  }
  for (int fx = 0; fx < 3; ++fx) {
    st.return_level[fx] = pl.return_level[fx];
    st.send_peak[fx] = static_cast<std::int64_t>(send_peak[fx] * 1e6);
    st.wet_peak[fx] = static_cast<std::int64_t>(wet_peak[fx] * 1e6);
  }
}

}  // namespace

void midi_apply(const Command& c) {
  ensure_ready();
  switch (c.kind) {
    case kCmdMidiPlay: {
      stop_playback(true);
      reset_all_parts();
      for (Part& pt : parts) pt.note_ons = 0;
      for (PartFx& fx : part_fx) fx = PartFx{};
      pl.song = get_pointer<const Song>(c);
      pl.slot = static_cast<int>(c.key);
      pl.loop = c.note != 0;
      pl.next = 0;
      pl.pos = 0;
      pl.tail = 0;
      pl.state = 1;
      pl.master = 1;
      for (int& r : pl.return_level) r = 64;
      midi_status.last_missed = pl.missed;
      midi_status.last_ignored = pl.ignored;
      pl.missed = pl.ignored = 0;
      midi_status.tail_limit_hit = false;
      reverb->clear();
      chorus->clear();
      echo->clear();
      midi_status.generation = static_cast<std::uint64_t>(c.value);
      break;
    }
    case kCmdMidiStop:
      stop_playback(true);
      midi_status.generation = static_cast<std::uint64_t>(c.value);
      break;
    case kCmdMidiForget:
      if (pl.song == get_pointer<const Song>(c)) stop_playback(true);
      break;
    case kCmdMidiCC:
      for (int p = 0; p < kMidiParts; ++p)
        if (c.channel == 255 || c.channel == p) control(p, c.control, c.velocity);
      break;
    case kCmdMidiFx:
      pl.fx_mode = c.gate;
      pl.fx_manual[kReverb] = c.note;
      pl.fx_manual[kChorus] = c.velocity;
      pl.fx_manual[kDelay] = c.control;
      break;
    default: break;
  }
  publish();
}

void midi_mix(double* block, unsigned n) {
  if (!ready || (pl.state == 0 && fx_quiet && !any_voice())) return;
  for (auto& s : send_buf) std::memset(s, 0, sizeof(double) * 2 * n);
  unsigned done = 0;
  while (done < n) {
    unsigned run = n - done;
    if (pl.state == 1) {
      const auto& ev = pl.song->events;
      while (pl.next < ev.size() && ev[pl.next].frame <= pl.pos) apply_event(ev[pl.next++]);
      if (pl.next >= ev.size() && pl.pos >= pl.song->duration) {
        if (pl.loop && pl.song->duration > 0) {
          // Notes still held at the loop point end there.
          for (int p = 0; p < kMidiParts; ++p) release_held(p, true);
          pl.next = 0;
          pl.pos = 0;
          continue;
        }
        for (int p = 0; p < kMidiParts; ++p) release_held(p, true);
        pl.state = 2;
        pl.tail = 0;
      } else {
        const std::uint32_t until = pl.next < ev.size() ? ev[pl.next].frame : pl.song->duration;
        if (until - pl.pos < run) run = until - pl.pos;
      }
    }
    if (pl.state == 2 && kTailLimitFrames - pl.tail < run) run = kTailLimitFrames - pl.tail;
    if (run > 0) {
      render_run(block, done, run);
      if (pl.state == 1) pl.pos += run;
      else if (pl.state == 2) pl.tail += run;
    }
    if (pl.state == 2 && (pl.tail >= kTailLimitFrames || !any_voice())) {
      if (pl.tail >= kTailLimitFrames) {
        midi_status.tail_limit_hit = true;
        for (int p = 0; p < kMidiParts; ++p) silence_part(p, false);
      }
      finish_playback();
    }
    done += run;
  }
  // Effects over the whole block; meters decay by 1/e a second.
  const double decay = std::exp(-static_cast<double>(n) / kRate);
  bool wet_any = false;
  for (int fx = 0; fx < 3; ++fx) {
    send_peak[fx] *= decay;
    wet_peak[fx] *= decay;
    if (fx_quiet) continue;
    double* w = wet_buf[fx];
    std::memset(w, 0, sizeof(double) * 2 * n);
    const double* s = send_buf[fx];
    double sp = 0;
    for (unsigned i = 0; i < 2 * n; ++i) sp = std::fabs(s[i]) > sp ? std::fabs(s[i]) : sp;
    if (fx == kReverb) reverb->process(s, w, n);
    else if (fx == kChorus) chorus->process(s, w, n);
    else echo->process(s, w, n);
    const double g = return_gain(fx);
    double wp = 0;
    for (unsigned i = 0; i < 2 * n; ++i) {
      w[i] *= g;
      block[i] += w[i];
      wp = std::fabs(w[i]) > wp ? std::fabs(w[i]) : wp;
    }
    if (sp > send_peak[fx]) send_peak[fx] = sp;
    if (wp > wet_peak[fx]) wet_peak[fx] = wp;
    if (wp > 1e-7 || sp > 0) wet_any = true;
  }
  fx_quiet = !wet_any;
  if (fx_quiet && pl.state == 0) {
    reverb->clear();
    chorus->clear();
    echo->clear();
  }
  publish();
}

}  // namespace sound
