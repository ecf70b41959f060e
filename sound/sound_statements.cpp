// The sound statements and functions: argument checks, the engine's start on
// first use, one command per statement, and the SOUND INFO, GROUPS and LIST
// reports.
#include "sound/sound.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "screen/console.h"
#include "sound/bank.h"
#include "sound/engine.h"
#include "values/eval.h"

namespace sound {

namespace {

using core::Token;
using values::Value;

// After SOUND OFF the engine stays off until SOUND ON; until then the
// statements change the channels only.
bool off_by_user = false;

bool fail(const char* m) {
  core::raise(m);
  return false;
}

bool is_word(const Token* t, const char* w) { return t->kind == core::kTokIdent && std::strcmp(t->name(), w) == 0; }

bool end_of_statement(const Token* t) { return core::at_statement_end(t) || fail("Syntax Error"); }

bool int_arg(const Token*& t, std::int64_t* out) {
  Value v;
  return values::eval(t, &v) && values::arg_int(v, out);
}

bool double_arg(const Token*& t, double* out) {
  Value v;
  if (!values::eval(t, &v)) return false;
  if (v.type == values::kString || v.type == values::kHyper) return fail("Type mismatch");
  *out = v.type == values::kSingle || v.type == values::kDouble ? v.d : static_cast<double>(v.i);
  return true;
}

bool comma(const Token*& t) { return values::expect(t, ',', "Expected ,"); }

bool in_range(std::int64_t v, std::int64_t lo, std::int64_t hi) { return (v >= lo && v <= hi) || fail("Illegal function call"); }

// The optional engine argument: 2, "GM" or "WAVETABLE".
bool engine_ok(const Value& v) {
  if (v.type == values::kString) {
    std::string s(v.s.ptr ? v.s.ptr : "", v.s.len);
    for (char& c : s) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
    if (s == "GM" || s == "WAVETABLE") return true;
  } else if (v.type != values::kHyper) {
    std::int64_t n;
    if (values::arg_int(v, &n) && n == 2) return true;
    core::clear_error_flag();
  }
  return fail("Only wavetable playback is available; omit the engine argument");
}

void line(const std::string& s) { screen::put_line(s.c_str()); }

// Start the engine on first use; no device (or SOUND OFF) leaves it stopped.
void wake_engine() {
  if (!off_by_user && !status.running) (void)start();
}

void send(const Command& c) {
  if (!post(c)) fail("Sound command queue full");
}

std::string with_commas(std::uint64_t n) {
  std::string s = std::to_string(n);
  for (int i = static_cast<int>(s.size()) - 3; i > 0; i -= 3) s.insert(static_cast<std::size_t>(i), ",");
  return s;
}

void sound_info() {
  char buf[160];
  line("TAMBRIL SOUND");
  line(std::string("Backend      : ") + backend_name());
  line("Output       : " + output_name());
  line("Sample rate  : 48000 Hz");
  line("Internal     : float64 / double");
  line("Channels     : 32");
  line("Voice limit  : 256");
  std::snprintf(buf, sizeof buf, "Output queue : %u frames / %.1f ms (software reserve)", kDeviceBuffers * kBufferFrames,
                kDeviceBuffers * kBufferFrames * 1000.0 / kRate);
  line(buf);
  line("Queue starves: " + std::to_string(status.starvations.load()));
  line("Max refill gap: " + std::to_string(status.max_gap_us.load()) + " us");
  line(std::string("Audio thread : ") +
       (!status.running ? "stopped" : status.mmcss ? "MMCSS Pro Audio" : "high-priority fallback"));
  line("waveOut error: " + std::to_string(status.device_error.load()));
  if (const Bank* b = loaded_bank()) {
    std::string mode = b->mode;
    if (b->workers > 1) mode += ", " + std::to_string(b->workers) + " workers";
    if (!b->reason.empty()) mode += "; " + b->reason;
    line("GM sample bank: " + b->form + ", " + with_commas(b->stored_bytes) + " bytes stored, " +
         with_commas(b->decoded_bytes) + " bytes decoded (" + mode + ")");
    std::snprintf(buf, sizeof buf, "Bank load    : %.0f ms", b->load_ms);
    line(buf);
    line("GM programs  : 0-127; drum kits 128-131");
  } else if (!bank_error().empty()) {
    line("GM sample bank: not loaded (" + bank_error() + ")");
  } else {
    line("GM sample bank: not loaded");
  }
  line("Instruments  : GM wavetable only (0-127; kits 128-131)");
  line("Active voices: " + std::to_string(status.running ? status.active_voices.load() : active_voices()));
  std::snprintf(buf, sizeof buf, "DSP load     : %.1f%%", status.load.load() / 10.0);
  line(buf);
}

void list_group(int g) {
  const Bank* b = loaded_bank();
  const int first = g == 16 ? 128 : g * 8, count = g == 16 ? 4 : 8;
  line(std::string(group_name(g)) + ":");
  for (int id = first; id < first + count; ++id) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "%5d  %s", id, program_name(id));
    std::string s = buf;
    if (b && !b->has_program(id)) s += " [not in loaded bank]";
    line(s);
  }
}

bool group_arg(const Token*& t, std::int64_t* g) {
  if (!int_arg(t, g)) return false;
  return (*g >= 0 && *g <= 16) || fail("GM group must be 0..16");
}

}  // namespace

// SOUND ON | OFF | RESET | INFO | PRELOAD [workers] | GROUPS | LIST [group] | MASTER gain,
// and the classic SOUND frequency, duration (duration in 18.2 Hz clock ticks).
void stmt_sound(const Token*& t) {
  ++t;
  if (t->kind == core::KW_ON) {
    ++t;
    if (!end_of_statement(t)) return;
    off_by_user = false;
    if (!present()) return (void)fail("No PCM sound backend is available on this system.");
    if (!start()) return (void)fail("No PCM sound backend is available on this system.");
    line("Tambril Sound ON.");
  } else if (is_word(t, "OFF")) {
    ++t;
    if (!end_of_statement(t)) return;
    off_by_user = true;
    stop();
    line("Tambril Sound OFF.");
  } else if (is_word(t, "RESET")) {
    ++t;
    if (!end_of_statement(t)) return;
    Command c;
    c.kind = kCmdReset;
    send(c);
  } else if (is_word(t, "INFO")) {
    ++t;
    if (end_of_statement(t)) sound_info();
  } else if (is_word(t, "PRELOAD")) {
    ++t;
    std::int64_t w = 0;
    if (!core::at_statement_end(t) && !int_arg(t, &w)) return;
    if (!end_of_statement(t)) return;
    if (w < 0 || w > 8) return (void)fail("SOUND PRELOAD workers must be 0..8");
    if (!preload_bank(static_cast<int>(w))) fail(bank_error().c_str());
  } else if (is_word(t, "GROUPS")) {
    ++t;
    if (!end_of_statement(t)) return;
    line("GM INSTRUMENT GROUPS (SOUND LIST group)");
    for (int g = 0; g <= 16; ++g) {
      char buf[80];
      if (g == 16) std::snprintf(buf, sizeof buf, "%3d  %-22s 128-131", g, group_name(g));
      else std::snprintf(buf, sizeof buf, "%3d  %-22s %d-%d", g, group_name(g), g * 8, g * 8 + 7);
      line(buf);
    }
  } else if (t->kind == core::KW_LIST) {
    ++t;
    std::int64_t g = -1;
    if (!core::at_statement_end(t) && !group_arg(t, &g)) return;
    if (!end_of_statement(t)) return;
    if (g >= 0) list_group(static_cast<int>(g));
    else
      for (int k = 0; k <= 16; ++k) list_group(k);
  } else if (is_word(t, "MASTER")) {
    ++t;
    double v;
    if (!double_arg(t, &v) || !end_of_statement(t)) return;
    if (!(v >= 0 && v <= 8)) return (void)fail("Illegal function call");
    Command c;
    c.kind = kCmdMaster;
    c.value = v;
    wake_engine();
    send(c);
  } else {
    double hz, ticks;
    if (!double_arg(t, &hz) || !comma(t) || !double_arg(t, &ticks) || !end_of_statement(t)) return;
    if (!(hz >= 37 && hz <= 32767) || !(ticks >= 0 && ticks <= 65535)) return (void)fail("Illegal function call");
    Command c;
    c.kind = kCmdBeep;
    c.value = hz;
    c.pitch = ticks * 1000.0 / 18.2;
    wake_engine();
    send(c);
  }
}

// INSTRUMENT channel, id [, engine]
void stmt_instrument(const Token*& t) {
  ++t;
  std::int64_t ch, id;
  if (!int_arg(t, &ch) || !comma(t) || !int_arg(t, &id)) return;
  if (t->kind == ',') {
    ++t;
    Value e;
    if (!values::eval(t, &e) || !engine_ok(e)) return;
  }
  if (!end_of_statement(t) || !in_range(ch, 0, kChannels - 1) || !in_range(id, 0, kPrograms - 1)) return;
  Command c;
  c.kind = kCmdInstrument;
  c.channel = static_cast<std::uint8_t>(ch);
  c.value = static_cast<double>(id);
  wake_engine();
  send(c);
}

// NOTE channel, note [, velocity]
void stmt_note(const Token*& t) {
  ++t;
  std::int64_t ch, note, vel = 100;
  if (!int_arg(t, &ch) || !comma(t) || !int_arg(t, &note)) return;
  if (t->kind == ',' && (++t, !int_arg(t, &vel))) return;
  if (!end_of_statement(t) || !in_range(ch, 0, kChannels - 1) || !in_range(note, 0, 127) || !in_range(vel, 0, 127))
    return;
  const Bank* b = need_bank();
  if (!b || !b->has_program(channel_program(static_cast<int>(ch)))) return (void)fail("GM instrument unavailable");
  Command c;
  c.kind = kCmdNoteOn;
  c.channel = static_cast<std::uint8_t>(ch);
  c.note = static_cast<std::uint8_t>(note);
  c.velocity = static_cast<std::uint8_t>(vel);
  wake_engine();
  send(c);
}

// NOTEOFF channel, note
void stmt_noteoff(const Token*& t) {
  ++t;
  std::int64_t ch, note;
  if (!int_arg(t, &ch) || !comma(t) || !int_arg(t, &note) || !end_of_statement(t)) return;
  if (!in_range(ch, 0, kChannels - 1) || !in_range(note, 0, 127)) return;
  Command c;
  c.kind = kCmdNoteOff;
  c.channel = static_cast<std::uint8_t>(ch);
  c.note = static_cast<std::uint8_t>(note);
  send(c);
}

// SOUNDCTL channel, control (number or name), value
void stmt_soundctl(const Token*& t) {
  ++t;
  std::int64_t ch, control = -1;
  Value which;
  double value;
  if (!int_arg(t, &ch) || !comma(t) || !values::eval(t, &which) || !comma(t) || !double_arg(t, &value) ||
      !end_of_statement(t))
    return;
  if (!in_range(ch, 0, kChannels - 1)) return;
  if (which.type == values::kString) {
    std::string name(which.s.ptr ? which.s.ptr : "", which.s.len);
    for (char& c : name) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
    for (int i = 0; i < kControlCount; ++i)
      if (name == kControlNames[i]) control = i;
    if (control < 0) return (void)fail("Unknown sound control");
  } else if (!values::arg_int(which, &control) || !in_range(control, 0, kControlCount - 1)) {
    return;
  }
  Command c;
  c.kind = kCmdControl;
  c.channel = static_cast<std::uint8_t>(ch);
  c.control = static_cast<std::uint16_t>(control);
  c.value = value;
  wake_engine();
  send(c);
}

// SOUNDKEY channel, key, pitch, pressure, x, y, gate
void stmt_soundkey(const Token*& t) {
  ++t;
  std::int64_t ch, key, gate;
  double pitch, pressure, x, y;
  if (!int_arg(t, &ch) || !comma(t) || !int_arg(t, &key) || !comma(t) || !double_arg(t, &pitch) || !comma(t) ||
      !double_arg(t, &pressure) || !comma(t) || !double_arg(t, &x) || !comma(t) || !double_arg(t, &y) || !comma(t) ||
      !int_arg(t, &gate) || !end_of_statement(t))
    return;
  if (!in_range(ch, 0, kChannels - 1) || !in_range(key, 0, 65535) || !in_range(gate, 0, 1)) return;
  if (!(pitch >= 0 && pitch <= 127) || !(pressure >= 0 && pressure <= 1) || !(x >= -1 && x <= 1) ||
      !(y >= -1 && y <= 1))
    return (void)fail("Illegal function call");
  if (gate == 1) {
    const Bank* b = need_bank();
    if (!b || !b->has_program(channel_program(static_cast<int>(ch)))) return (void)fail("GM instrument unavailable");
  }
  Command c;
  c.kind = kCmdKey;
  c.channel = static_cast<std::uint8_t>(ch);
  c.key = static_cast<std::uint32_t>(key);
  c.gate = static_cast<std::uint8_t>(gate);
  c.pitch = pitch;
  c.pressure = pressure;
  c.x = x;
  c.y = y;
  wake_engine();
  send(c);
}

void stmt_beep(const Token*& t) {
  ++t;
  if (end_of_statement(t)) screen::put_char(7);
}

namespace {

bool no_args(const Token*& t) {
  Value unused;
  return t->kind != '(' || values::parse_args(t, &unused, 0, 0);
}

bool f_soundpresent(const Token*& t, Value* out) {
  if (!no_args(t)) return false;
  *out = Value::integer(present() ? -1 : 0);
  return true;
}

bool f_soundactive(const Token*& t, Value* out) {
  if (!no_args(t)) return false;
  *out = Value::integer(status.running ? status.active_voices.load() : active_voices(), values::kLong);
  return true;
}

bool f_soundload(const Token*& t, Value* out) {
  if (!no_args(t)) return false;
  *out = Value::floating(status.load.load() / 10.0);
  return true;
}

// id [, engine] for SOUNDNAME$ and SOUNDGROUP.
bool id_args(const Token*& t, std::int64_t* id) {
  Value a[2];
  int n;
  if (!values::parse_args(t, a, 1, 2, &n) || !values::arg_int(a[0], id)) return false;
  if (n == 2 && !engine_ok(a[1])) return false;
  return in_range(*id, 0, kPrograms - 1);
}

bool f_soundname(const Token*& t, Value* out) {
  std::int64_t id;
  if (!id_args(t, &id)) return false;
  const char* name = program_name(static_cast<int>(id));
  return values::make_string(name, std::strlen(name), out);
}

bool f_soundgroup(const Token*& t, Value* out) {
  std::int64_t id;
  if (!id_args(t, &id)) return false;
  *out = Value::integer(group_of(static_cast<int>(id)));
  return true;
}

bool f_soundgroupname(const Token*& t, Value* out) {
  Value a;
  std::int64_t g;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_int(a, &g)) return false;
  if (g < 0 || g > 16) return fail("GM group must be 0..16");
  const char* name = group_name(static_cast<int>(g));
  return values::make_string(name, std::strlen(name), out);
}

bool f_soundavailable(const Token*& t, Value* out) {
  Value a;
  std::int64_t id;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_int(a, &id) || !in_range(id, 0, kPrograms - 1)) return false;
  const Bank* b = need_bank();
  *out = Value::integer(b && b->has_program(static_cast<int>(id)) ? -1 : 0);
  return true;
}

const values::Builtin kFunctions[] = {
    {"SOUNDPRESENT", f_soundpresent}, {"SOUNDACTIVE", f_soundactive},       {"SOUNDLOAD", f_soundload},
    {"SOUNDNAME$", f_soundname},      {"SOUNDAVAILABLE", f_soundavailable}, {"SOUNDGROUP", f_soundgroup},
    {"SOUNDGROUP$", f_soundgroupname},
};
const values::BuiltinGroup kGroup = {kFunctions, static_cast<int>(sizeof kFunctions / sizeof kFunctions[0])};

// BEL: a beep through the engine when it runs or can start.
bool engine_bell() {
  if (off_by_user || !present()) return false;
  if (!status.running && !start()) return false;
  Command c;
  c.kind = kCmdBeep;
  c.value = 800;
  c.pitch = 200;
  return post(c);
}

void clear_slots_for_run() {
  clear_midi_slots();
  reset_wav_channel_choice();
}

}  // namespace

const values::BuiltinGroup& sound_builtins() { return kGroup; }

void install_hooks() {
  screen::engine_bell = engine_bell;
  core::clear_sound_slots = clear_slots_for_run;
}

void shutdown() { stop(); }

}  // namespace sound
