// The MIDI statements and functions: LOADMID, PLAYMID, STOPMID, WAITMID,
// DELMID, MIDINFO, MIDCC, MIDCCINFO, MIDFX; MIDLENGTH, MIDPOS, MIDSTATE,
// MIDPLAYING. The 256 song slots belong to the interpreter thread; the audio
// thread only reads the song it was told to play.
#include <cstdio>
#include <memory>
#include <string>

#include "core/errors.h"
#include "core/keywords.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/console.h"
#include "sound/bank.h"
#include "sound/media_args.h"
#include "sound/midi_file.h"
#include "sound/midi_player.h"
#include "sound/sound.h"

namespace sound {

namespace {

using core::Token;
using namespace media;

constexpr int kSlots = 256;

std::unique_ptr<Song> slots[kSlots];
// The song the player was last told to play: it may still be reading it.
const Song* posted_song = nullptr;
// PLAYMID and STOPMID are numbered; until the player has applied the latest
// one, the statements answer with what it will do.
std::uint64_t generation = 0;
int expected_state = 0;
// MIDFX as last posted: 0 AUTO, 1 manual sends, 2 OFF.
int fx_mode = 0;
int fx_manual[3] = {};

void line(const std::string& s) { screen::put_line(s.c_str()); }

bool slot_arg(const Token*& t, std::int64_t* slot) {
  if (!int_arg(t, slot)) return false;
  return (*slot >= 0 && *slot < kSlots) || fail("MIDI slot must be 0..255");
}

bool loaded(std::int64_t slot) { return slots[slot] != nullptr || fail("MIDI slot is not loaded"); }

int state_now() {
  if (midi_status.generation.load() != generation) return expected_state;
  return midi_status.state.load();
}

// Free a song safely: the player lets go of it first.
void release_song(std::unique_ptr<Song>& s) {
  if (!s) return;
  if (s.get() == posted_song) {
    Command c;
    c.kind = kCmdMidiForget;
    set_pointer(c, s.get());
    // When the ring is full or the thread does not answer, the song is kept
    // alive rather than freed under the player.
    if (!post(c) || !sync()) {
      (void)s.release();
      return;
    }
    posted_song = nullptr;
  }
  s.reset();
}

std::string seconds_ms(std::uint32_t frames) { return std::to_string((static_cast<std::uint64_t>(frames) + 24) / 48); }

bool kit_key_present(const Bank& b, int kit, int key) {
  const Zone* z[1];
  return find_zones(b, 128 + kit, key, 100, z, 1) > 0;
}

// After a load: what the bank lacks, and the extensions not played as written.
void load_report(const Song& s) {
  if (const Bank* b = need_bank()) {
    bool program_missing = false, key_missing = false;
    for (int p = 0; p < 128; ++p) program_missing |= s.program_used[p] && !b->has_program(p);
    for (int k = 0; k < 4; ++k)
      for (int key = 0; key < 128; ++key)
        if (s.kit_key_used[k][key] && !kit_key_present(*b, k, key)) key_missing = true;
    if (program_missing) line("A MIDI instrument is missing from the GM bank; see MIDINFO");
    if (key_missing) line("A MIDI percussion key is missing from the GM bank; see MIDINFO");
  }
  if (s.bank_selects || s.drum_fallbacks || s.sysex_skipped || s.cc_unsupported || s.gs_packets > s.gs_honoured)
    line("MIDI: some extensions are ignored or use GM-base mappings. See MIDINFO.");
}

bool midi_name(const Token*& t, std::string* name) {
  values::Value v;
  if (!values::eval(t, &v)) return false;
  if (v.type != values::kString) return fail("Type mismatch");
  if (v.s.len == 0 || v.s.len > 4095) return fail("MIDI filename is empty or too long");
  const std::string text(v.s.ptr, v.s.len);
  if (text.find('\0') != std::string::npos) return fail("MIDI filename contains NUL");
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 32 || c == '<' || c == '>' || c == '"' || c == '|' || c == '?' || c == '*' || (c == ':' && i != 1))
      return fail("Illegal filename");
  }
  if (!host::is_absolute_path(text) && host::current_directory_cp437().size() + 1 + text.size() > 4095)
    return fail("Path too long");
  *name = text;
  return true;
}

}  // namespace

void clear_midi_slots() {
  for (auto& s : slots) release_song(s);
}

// LOADMID slot, file$
void stmt_loadmid(const Token*& t) {
  ++t;
  std::int64_t slot;
  std::string name, bytes;
  if (!slot_arg(t, &slot) || !comma(t) || !midi_name(t, &name) || !end_of_statement(t)) return;
  switch (read_file(name, kMidiMaxFileBytes, &bytes)) {
    case ReadResult::ok: break;
    case ReadResult::not_found: return (void)fail("File not found");
    case ReadResult::too_big: return (void)fail("Invalid MIDI file size (limit 64 MiB)");
    case ReadResult::failed: return (void)fail("MIDI file read failed");
  }
  auto song = std::make_unique<Song>();
  std::string error;
  if (!parse_midi(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), song.get(), &error))
    return (void)fail(error.c_str());
  release_song(slots[slot]);
  slots[slot] = std::move(song);
  load_report(*slots[slot]);
}

// PLAYMID slot [, loop [, engine]]
void stmt_playmid(const Token*& t) {
  ++t;
  std::int64_t slot, loop = 0;
  if (!slot_arg(t, &slot)) return;
  if (t->kind == ',' && (++t, !int_arg(t, &loop))) return;
  if (t->kind == ',') {
    ++t;
    values::Value e;
    if (!values::eval(t, &e)) return;
    bool ok = false;
    if (e.type == values::kString) {
      std::string s(e.s.ptr ? e.s.ptr : "", e.s.len);
      for (char& c : s) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
      ok = s == "GM" || s == "WAVETABLE";
    } else if (e.type != values::kHyper) {
      std::int64_t n;
      ok = values::arg_int(e, &n) && n == 2;
      core::clear_error_flag();
    }
    if (!ok) return (void)fail("Only wavetable MIDI playback is available");
  }
  if (!end_of_statement(t)) return;
  if (loop != 0 && loop != 1) return (void)fail("PLAYMID loop must be 0 or 1");
  if (!loaded(slot)) return;
  if (loop && slots[slot]->duration == 0) return (void)fail("Cannot loop a zero-duration MIDI");
  if (!present()) return (void)fail("No PCM sound backend available for MIDI");
  if (!need_bank()) return (void)fail("MIDI wavetable playback needs TAMBRIL_GM.QZGM");
  if (!engine_up()) return (void)fail("MIDI audio transport failed");
  Command c;
  c.kind = kCmdMidiPlay;
  c.note = static_cast<std::uint8_t>(loop);
  c.key = static_cast<std::uint32_t>(slot);
  c.value = static_cast<double>(generation + 1);
  set_pointer(c, slots[slot].get());
  if (!post(c)) return (void)fail("Sound command queue full");
  ++generation;
  expected_state = 1;
  posted_song = slots[slot].get();
}

void stmt_stopmid(const Token*& t) {
  ++t;
  if (!end_of_statement(t)) return;
  Command c;
  c.kind = kCmdMidiStop;
  c.value = static_cast<double>(generation + 1);
  if (!post(c)) return (void)fail("Sound command queue full");
  ++generation;
  expected_state = 0;
}

// WAITMID: until the score and its tails end; Esc breaks the wait.
void stmt_waitmid(const Token*& t) {
  ++t;
  if (!end_of_statement(t)) return;
  while (state_now() != 0) {
    if (host::stop_requested()) return;
    if (esc_taken()) return pass_break_on();
    // A stopped engine renders nothing more: the wait would never end.
    if (!status.running) return;
    host::sleep_ms(5);
  }
}

void stmt_delmid(const Token*& t) {
  ++t;
  std::int64_t slot;
  if (!slot_arg(t, &slot) || !end_of_statement(t)) return;
  release_song(slots[slot]);
}

// MIDINFO slot
void stmt_midinfo(const Token*& t) {
  ++t;
  std::int64_t slot;
  if (!slot_arg(t, &slot) || !end_of_statement(t) || !loaded(slot)) return;
  const Song& s = *slots[slot];
  char buf[160];
  line("MIDI SLOT " + std::to_string(slot));
  line("SMF format   : " + std::to_string(s.format));
  line("Tracks/events: " + std::to_string(s.tracks) + " / " + std::to_string(s.file_events));
  line("Duration (ms): " + seconds_ms(s.duration));
  line("Note-ons     : " + std::to_string(s.note_ons));
  if (s.smpte) {
    std::snprintf(buf, sizeof buf, "Timing       : SMPTE (%d fps, %d ticks per frame)",
                  -static_cast<int>(static_cast<std::int8_t>(s.division >> 8)), s.division & 0xFF);
  } else {
    std::snprintf(buf, sizeof buf, "Timing       : PPQN + tempo map (%d ticks per quarter note)", s.division);
  }
  line(buf);
  line("Engine       : WAVETABLE (strict QZGM)");
  line("GS DT1       : " + std::to_string(s.gs_packets) + " packets, " + std::to_string(s.gs_honoured) + " applied");
  line("Skipped      : " + std::to_string(s.sysex_skipped) + " SysEx, " + std::to_string(s.meta_skipped) + " meta, " +
       std::to_string(s.cc_unsupported) + " unsupported controller events");
  line("GM mappings  : " + std::to_string(s.bank_selects) + " nonzero bank selects, " +
       std::to_string(s.drum_fallbacks) + " fallback drum programs");
  line("Open tracks  : " + std::to_string(s.tracks_without_end) + " without end-of-track");
  const int st = state_now();
  const std::string counts = " (missed notes " + std::to_string(st ? midi_status.missed.load() : midi_status.last_missed.load()) +
                             ", ignored controls " +
                             std::to_string(st ? midi_status.ignored.load() : midi_status.last_ignored.load()) + ")";
  if (st == 1 && midi_status.generation.load() == generation) {
    line("Playing slot : " + std::to_string(midi_status.playing_slot.load()) + counts);
  } else if (st == 2) {
    line("Releasing slot: " + std::to_string(midi_status.releasing_slot.load()) + counts);
  } else if (midi_status.last_slot.load() >= 0) {
    line("Last slot    : " + std::to_string(midi_status.last_slot.load()) + counts +
         (midi_status.tail_limit_hit.load() ? " [30s tail limit reached]" : ""));
  } else {
    line("Playback     : not started");
  }
  const Bank* b = need_bank();
  line(std::string("Wavetable bank: ") + (b ? "loaded" : "NOT AVAILABLE"));
  line("USED INSTRUMENTS (WAVETABLE; next PLAYMID)");
  for (int p = 0; p < 128; ++p) {
    if (!s.program_used[p]) continue;
    std::snprintf(buf, sizeof buf, "%5d  %-28s %s", p, program_name(p),
                  b && b->has_program(p) ? "[WAVETABLE PRESENT]" : "[WAVETABLE MISSING]");
    line(buf);
  }
  for (int k = 0; k < 4; ++k) {
    if (!s.kit_used[k]) continue;
    std::string keys, missing;
    for (int key = 0; key < 128; ++key) {
      if (!s.kit_key_used[k][key]) continue;
      keys += " " + std::to_string(key);
      if (!b || !kit_key_present(*b, k, key)) missing += " " + std::to_string(key);
    }
    std::snprintf(buf, sizeof buf, "%5d  %-28s %s", 128 + k, program_name(128 + k),
                  b && b->has_program(128 + k) ? "[WAVETABLE PRESENT]" : "[WAVETABLE MISSING]");
    line(buf);
    line("       keys:" + keys);
    if (!missing.empty()) line("       missing keys:" + missing);
  }
}

// MIDCC part, controller, value
void stmt_midcc(const Token*& t) {
  ++t;
  std::int64_t part, cc, value;
  if (!int_arg(t, &part) || !comma(t) || !int_arg(t, &cc) || !comma(t) || !int_arg(t, &value) ||
      !end_of_statement(t))
    return;
  if (part < -1 || part > 15 || cc < 0 || cc > 127 || value < 0 || value > 127)
    return (void)fail("Illegal function call");
  if (!midi_controller_accepted(static_cast<int>(cc))) return (void)fail("Unsupported MIDI controller");
  Command c;
  c.kind = kCmdMidiCC;
  c.channel = part < 0 ? 255 : static_cast<std::uint8_t>(part);
  c.control = static_cast<std::uint16_t>(cc);
  c.velocity = static_cast<std::uint8_t>(value);
  if (!post(c)) fail("Sound command queue full");
}

// MIDFX reverb, chorus, delay | AUTO | OFF | CLEAR
void stmt_midfx(const Token*& t) {
  ++t;
  Command c;
  c.kind = kCmdMidiFx;
  // AUTO and CLEAR are keywords of their own; OFF is a plain word.
  const bool automatic = t->kind == core::KW_AUTO || t->kind == core::KW_CLEAR;
  if (t->kind == core::kTokIdent && !is_word(t, "OFF") && (t + 1)->kind != '(' && core::at_statement_end(t + 1))
    return (void)fail("Unknown MIDI command");
  if (automatic) {
    // CLEAR drops the manual sends as AUTO does and says so explicitly.
    ++t;
    if (!end_of_statement(t)) return;
    c.gate = 0;
  } else if (is_word(t, "OFF")) {
    ++t;
    if (!end_of_statement(t)) return;
    c.gate = 2;
  } else {
    std::int64_t r, ch, d;
    if (!int_arg(t, &r) || !comma(t) || !int_arg(t, &ch) || !comma(t) || !int_arg(t, &d) || !end_of_statement(t))
      return;
    if (r < 0 || r > 127 || ch < 0 || ch > 127 || d < 0 || d > 127) return (void)fail("MIDFX values must be 0..127");
    c.gate = 1;
    c.note = static_cast<std::uint8_t>(r);
    c.velocity = static_cast<std::uint8_t>(ch);
    c.control = static_cast<std::uint16_t>(d);
  }
  if (!post(c)) return (void)fail("Sound command queue full");
  fx_mode = c.gate;
  fx_manual[0] = c.note;
  fx_manual[1] = c.velocity;
  fx_manual[2] = c.control;
}

void stmt_midccinfo(const Token*& t) {
  ++t;
  if (!end_of_statement(t)) return;
  const MidiStatus& m = midi_status;
  const int st = state_now();
  line(std::string("MIDI FXROUTE-20260926: ") + (st == 1 ? "score playing" : st == 2 ? "release tails" : "stopped"));
  char buf[160];
  if (fx_mode == 1) {
    std::snprintf(buf, sizeof buf, "FX routing: MANUAL ALL PARTS R/C/D %d/%d/%d; standard processor settings",
                  fx_manual[0], fx_manual[1], fx_manual[2]);
    line(buf);
  } else if (fx_mode == 2) {
    line("FX routing: OFF (MIDFX OFF)");
  } else {
    line("FX routing: AUTO: file CC91/93/94 and GS return levels");
  }
  std::snprintf(buf, sizeof buf, "File return levels R/C/D: %d/%d/%d", m.return_level[0].load(), m.return_level[1].load(),
                m.return_level[2].load());
  line(buf);
  std::snprintf(buf, sizeof buf, "Recent send peaks  R/C/D: %lld/%lld/%lld ppm",
                static_cast<long long>(m.send_peak[0].load()), static_cast<long long>(m.send_peak[1].load()),
                static_cast<long long>(m.send_peak[2].load()));
  line(buf);
  std::snprintf(buf, sizeof buf, "Recent wet peaks   R/C/D: %lld/%lld/%lld ppm",
                static_cast<long long>(m.wet_peak[0].load()), static_cast<long long>(m.wet_peak[1].load()),
                static_cast<long long>(m.wet_peak[2].load()));
  line(buf);
  line("Pre-master meters; ~1s decay; 1000000 ppm = amplitude 1.");
  line("Part Chan Prog Live Note-ons CC91 CC93 CC94 (file/current)");
  for (int p = 0; p < kMidiParts; ++p) {
    std::snprintf(buf, sizeof buf, "%4d %4d %4d %4d %8u %3d/%-3d %3d/%-3d %3d/%-3d", p, p + 1, m.program[p].load(),
                  m.live[p].load(), m.note_ons[p].load(), m.file_send[p][0].load(), m.send[p][0].load(),
                  m.file_send[p][1].load(), m.send[p][1].load(), m.file_send[p][2].load(), m.send[p][2].load());
    line(buf);
  }
  line("MIDCC -1 broadcasts once; MIDFX overrides every MIDI part.");
  line("NOTE/SOUNDKEY and WAV do not feed these MIDI effects.");
  if (m.live_voices.load() == 0) line("No live MIDI note voices in this snapshot; tails may remain.");
}

namespace {

bool f_midlength(const Token*& t, values::Value* out) {
  values::Value a;
  std::int64_t slot;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_int(a, &slot)) return false;
  if (slot < 0 || slot >= kSlots) return fail("MIDI slot must be 0..255");
  if (!loaded(slot)) return false;
  *out = values::Value::floating(slots[slot]->duration / 48000.0);
  return true;
}

bool no_args(const Token*& t) {
  values::Value unused;
  return t->kind != '(' || values::parse_args(t, &unused, 0, 0);
}

bool f_midpos(const Token*& t, values::Value* out) {
  if (!no_args(t)) return false;
  double s = 0;
  if (state_now() == 1 && midi_status.generation.load() == generation) {
    s = midi_status.position.load() / 48000.0;
    if (posted_song && s > posted_song->duration / 48000.0) s = posted_song->duration / 48000.0;
  } else if (state_now() != 0 && posted_song) {
    s = midi_status.generation.load() == generation ? posted_song->duration / 48000.0 : 0;
  }
  *out = values::Value::floating(s);
  return true;
}

bool f_midstate(const Token*& t, values::Value* out) {
  if (!no_args(t)) return false;
  *out = values::Value::integer(state_now());
  return true;
}

bool f_midplaying(const Token*& t, values::Value* out) {
  if (!no_args(t)) return false;
  *out = values::Value::integer(state_now() != 0 ? -1 : 0);
  return true;
}

}  // namespace

const values::Builtin kMidiFunctions[] = {
    {"MIDLENGTH", f_midlength},
    {"MIDPOS", f_midpos},
    {"MIDSTATE", f_midstate},
    {"MIDPLAYING", f_midplaying},
};
const int kMidiFunctionCount = static_cast<int>(sizeof kMidiFunctions / sizeof kMidiFunctions[0]);

}  // namespace sound
