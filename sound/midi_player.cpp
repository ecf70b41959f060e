// The MIDI player: the song's events applied at their frames (a render block
// is split at each event, so a note starts on its own frame), the 16 parts'
// programs, drum kits, controllers, RPNs and pedals, the release tails after
// the score, looping, and the effect sends with their meters.
#include "sound/midi_player.h"

#include <cmath>
#include <cstring>

#include "sound/bank.h"
#include "sound/midi_file.h"
#include "sound/midi_fx.h"
#include "sound/voice.h"

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

void update_part(int p) {
  Part& pt = parts[p];
  Channel& ch = channels[p];
  const double vol = pt.cc[7] / 127.0, expr = pt.cc[11] / 127.0;
  ch.part_gain = vol * vol * expr * expr * (pt.cc[67] >= 64 ? 0.7 : 1.0);
  double pl_, pr_, bl, br;
  side_gains(pt.cc[10] * 128 + pt.cc[42], &pl_, &pr_);
  side_gains(pt.cc[8] * 128 + pt.cc[40], &bl, &br);
  ch.side_l = pl_ * bl;
  ch.side_r = pr_ * br;
  ch.part_cents = (pt.bend - 8192) / 8192.0 * pt.bend_range * 100 + pt.fine_cents + pt.coarse * 100;
  const int vd = pt.cc[77] > 64 ? pt.cc[77] - 64 : 0;
  ch.control[kVibrato] = pt.cc[1] / 127.0 * 0.5 + vd / 63.0 * 0.5;
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
  pt.bend = 8192;
  pt.rpn = kNullRpn;
  pt.nrpn = false;
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

void data_entry(int p, int msb_delta, int lsb, bool set_msb, int msb) {
  Part& pt = parts[p];
  if (pt.nrpn || pt.rpn == kNullRpn) {
    ++pl.ignored;  // NRPNs are accepted and have no parameters here
    return;
  }
  if (set_msb) pt.cc[6] = static_cast<std::uint8_t>(msb);
  if (lsb >= 0) pt.cc[38] = static_cast<std::uint8_t>(lsb);
  int m = pt.cc[6] + msb_delta;
  m = m < 0 ? 0 : m > 127 ? 127 : m;
  pt.cc[6] = static_cast<std::uint8_t>(m);
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

void apply_event(const MidiEvent& e) {
  const int p = e.channel & 15;
  switch (e.kind) {
    case kEvNoteOn: {
      Part& pt = parts[p];
      ++pt.note_ons;
      if (pt.cc[66] >= 64) pt.sostenuto_note[e.d1] = false;
      if (strike(set, p, e.d1, e.d2, kNoKey, 0, 1, 0, 1) == 0) ++pl.missed;
      break;
    }
    case kEvNoteOff: note_off(p, e.d1); break;
    case kEvControl: control(p, e.d1, e.d2); break;
    case kEvProgram: program_change(p, e.d1); break;
    case kEvBend:
      parts[p].bend = e.d2 * 128 + e.d1;
      update_part(p);
      break;
    case kEvPolyPressure:
    case kEvChannelPressure: ++pl.ignored; break;
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
    if (!used[p]) continue;
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
