// The WAV statements and functions: LOADWAV, PLAYWAV, STOPWAV, PAUSEWAV,
// RESUMEWAV, WAITWAV, DELWAV, WAVCTL, WAVINFO; WAVCHANNEL, WAVACTIVE,
// WAVPLAYING, WAVSTATE, WAVPOS, WAVLENGTH, WAVLOADED, WAVSLOT. The slots
// belong to the interpreter thread; the channels to the audio thread, which
// reports their state back.
#include <cstdio>
#include <memory>
#include <string>

#include "core/errors.h"
#include "core/program.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/console.h"
#include "sound/media_args.h"
#include "sound/sound.h"
#include "sound/wav_decode.h"

namespace sound {

namespace {

using core::Token;
using namespace media;

std::unique_ptr<WavData> slots[kWavSlots];
// Commands are numbered; a channel whose latest command has not reached the
// audio thread yet reports the state that command will give it.
std::uint64_t generation = 0;
std::uint64_t channel_gen[kWavChannels] = {};
int predicted_state[kWavChannels] = {};
int predicted_slot[kWavChannels] = {};
int last_channel = -1;

void line(const std::string& s) { screen::put_line(s.c_str()); }

bool slot_arg(const Token*& t, std::int64_t* slot) {
  if (!int_arg(t, slot)) return false;
  return (*slot >= 0 && *slot < kWavSlots) || fail("Illegal function call");
}
bool channel_arg(const Token*& t, std::int64_t* ch) {
  if (!int_arg(t, ch)) return false;
  return (*ch >= 0 && *ch < kWavChannels) || fail("Illegal function call");
}

bool current(int ch) { return wav_status.generation[ch].load() == channel_gen[ch]; }
int state_of(int ch) { return current(ch) ? wav_status.state[ch].load() : predicted_state[ch]; }
int slot_of(int ch) { return current(ch) ? wav_status.slot[ch].load() : predicted_slot[ch]; }

// Post a channel command for one channel or all (-1).
bool send(Command c, int ch) {
  c.channel = ch < 0 ? 255 : static_cast<std::uint8_t>(ch);
  c.pressure = static_cast<double>(generation + 1);
  if (!post(c)) return fail("Sound command queue full");
  ++generation;
  for (int i = 0; i < kWavChannels; ++i) {
    if (ch >= 0 && i != ch) continue;
    const int s = state_of(i);
    switch (c.kind) {
      case kCmdWavStop: predicted_state[i] = s == kWavPlaying ? kWavStopping : s == kWavStopping ? s : kWavIdle; break;
      case kCmdWavPause: predicted_state[i] = s == kWavPlaying ? kWavPaused : s; break;
      case kCmdWavResume: predicted_state[i] = s == kWavPaused ? kWavPlaying : s; break;
      default: predicted_state[i] = s; break;
    }
    predicted_slot[i] = predicted_state[i] == kWavIdle ? -1 : slot_of(i);
    channel_gen[i] = generation;
  }
  return true;
}

void release_slot(std::unique_ptr<WavData>& s) {
  if (!s) return;
  Command c;
  c.kind = kCmdWavForget;
  set_pointer(c, s.get());
  // Kept alive rather than freed under a channel when the audio thread does not answer.
  if (!post(c) || !sync()) {
    (void)s.release();
    return;
  }
  for (int i = 0; i < kWavChannels; ++i)
    if (slot_of(i) >= 0 && slots[slot_of(i)].get() == s.get()) predicted_state[i] = kWavIdle, predicted_slot[i] = -1;
  s.reset();
}

// An optional channel argument: -1 for all when left out.
bool optional_channel(const Token*& t, std::int64_t* ch) {
  *ch = -1;
  if (core::at_statement_end(t)) return true;
  return channel_arg(t, ch) && end_of_statement(t);
}

bool cancel_load() { return esc_taken(); }

}  // namespace

void reset_wav_channel_choice() { last_channel = -1; }

// LOADWAV slot, file$
void stmt_loadwav(const Token*& t) {
  ++t;
  std::int64_t slot;
  values::Value v;
  std::string name, bytes;
  if (!slot_arg(t, &slot) || !comma(t) || !values::eval(t, &v) || !end_of_statement(t)) return;
  if (v.type != values::kString) return (void)fail("Type mismatch");
  if (!core::check_file_name(v.s.ptr, v.s.len, &name)) return;
  switch (read_file(name, 1ull << 31, &bytes)) {
    case ReadResult::ok: break;
    case ReadResult::not_found: return (void)fail("WAV file not found");
    case ReadResult::too_big: return (void)fail("Decoded audio exceeds 2 GiB limit");
    case ReadResult::failed: return (void)fail("Disk I/O error");
  }
  auto data = std::make_unique<WavData>();
  std::string error;
  const bool ok = decode_audio(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), data.get(), cancel_load, &error);
  if (!ok) return (void)fail(error.c_str());
  release_slot(slots[slot]);
  slots[slot] = std::move(data);
}

// PLAYWAV slot [, channel [, loop [, volume [, pan]]]]
void stmt_playwav(const Token*& t) {
  ++t;
  std::int64_t slot, ch = -1, loop = 0;
  double volume = 1, pan = 0;
  if (!slot_arg(t, &slot)) return;
  if (t->kind == ',' && (++t, !int_arg(t, &ch))) return;
  if (t->kind == ',' && (++t, !int_arg(t, &loop))) return;
  if (t->kind == ',' && (++t, !double_arg(t, &volume))) return;
  if (t->kind == ',' && (++t, !double_arg(t, &pan))) return;
  if (!end_of_statement(t)) return;
  if (ch < -1 || ch >= kWavChannels || (loop != 0 && loop != 1) || !(volume >= 0 && volume <= 1) ||
      !(pan >= -1 && pan <= 1))
    return (void)fail("Illegal function call");
  if (!slots[slot]) return (void)fail("WAV slot is not loaded");
  if (ch < 0) {
    for (int i = 0; i < kWavChannels && ch < 0; ++i)
      if (state_of(i) == kWavIdle) ch = i;
    if (ch < 0) return (void)fail("All 64 WAV playback channels are busy");
  }
  if (!engine_up()) return (void)fail("No PCM sound backend is available on this system.");
  Command c;
  c.kind = kCmdWavPlay;
  c.gate = static_cast<std::uint8_t>(loop);
  c.value = volume;
  c.x = pan;
  c.key = static_cast<std::uint32_t>(slot);
  set_pointer(c, slots[slot].get());
  if (!send(c, static_cast<int>(ch))) return;
  predicted_state[ch] = kWavPlaying;
  predicted_slot[ch] = static_cast<int>(slot);
  last_channel = static_cast<int>(ch);
}

namespace {

void channel_command(const Token*& t, std::uint8_t kind) {
  ++t;
  std::int64_t ch;
  if (!optional_channel(t, &ch)) return;
  Command c;
  c.kind = kind;
  (void)send(c, static_cast<int>(ch));
}

}  // namespace

void stmt_stopwav(const Token*& t) { channel_command(t, kCmdWavStop); }
void stmt_pausewav(const Token*& t) { channel_command(t, kCmdWavPause); }
void stmt_resumewav(const Token*& t) { channel_command(t, kCmdWavResume); }

// WAITWAV [channel]: paused and looping channels are waited for too; Esc breaks.
void stmt_waitwav(const Token*& t) {
  ++t;
  std::int64_t ch;
  if (!optional_channel(t, &ch)) return;
  for (;;) {
    bool busy = false;
    for (int i = 0; i < kWavChannels; ++i)
      if ((ch < 0 || i == ch) && state_of(i) != kWavIdle) busy = true;
    if (!busy || host::stop_requested()) return;
    if (esc_taken()) return pass_break_on();
    if (!status.running) return;
    host::sleep_ms(5);
  }
}

void stmt_delwav(const Token*& t) {
  ++t;
  std::int64_t slot;
  if (!slot_arg(t, &slot) || !end_of_statement(t)) return;
  release_slot(slots[slot]);
}

// WAVCTL channel, volume [, pan]
void stmt_wavctl(const Token*& t) {
  ++t;
  std::int64_t ch;
  double volume, pan = 0;
  if (!channel_arg(t, &ch) || !comma(t) || !double_arg(t, &volume)) return;
  if (t->kind == ',' && (++t, !double_arg(t, &pan))) return;
  if (!end_of_statement(t)) return;
  if (!(volume >= 0 && volume <= 1) || !(pan >= -1 && pan <= 1)) return (void)fail("Illegal function call");
  Command c;
  c.kind = kCmdWavCtl;
  c.value = volume;
  c.x = pan;
  (void)send(c, static_cast<int>(ch));
}

// WAVINFO [slot]
void stmt_wavinfo(const Token*& t) {
  ++t;
  char buf[200];
  if (core::at_statement_end(t)) {
    int occupied = 0, loaded = 0;
    std::uint64_t bytes = 0;
    for (int i = 0; i < kWavChannels; ++i) occupied += state_of(i) != kWavIdle ? 1 : 0;
    for (const auto& s : slots)
      if (s) ++loaded, bytes += s->pcm.size() * sizeof(float);
    line("WAV pool     : 64 independent playback channels; " + std::to_string(occupied) + " occupied");
    line("WAV slots    : " + std::to_string(loaded) + " / 256; " + std::to_string(bytes) + " PCM bytes");
    return;
  }
  std::int64_t slot;
  if (!slot_arg(t, &slot) || !end_of_statement(t)) return;
  if (!slots[slot]) return (void)fail("WAV slot is not loaded");
  const WavData& d = *slots[slot];
  line("WAV SLOT " + std::to_string(slot));
  line("Codec        : " + d.codec);
  line("Source       : " + d.source);
  std::snprintf(buf, sizeof buf, "Decoded      : 48000 Hz float32, %s, %llu frames (%.3f s)",
                d.channels == 1 ? "mono" : "stereo", static_cast<unsigned long long>(d.frames), d.frames / 48000.0);
  line(buf);
  line(std::string("Resampled    : ") +
       (d.source_rate == 48000 ? "no" : "from " + std::to_string(d.source_rate) + " Hz (polyphase windowed sinc)"));
  line("PCM bytes    : " + std::to_string(d.pcm.size() * sizeof(float)));
}

namespace {

bool one_int(const Token*& t, std::int64_t* v) {
  values::Value a;
  return values::parse_args(t, &a, 1, 1) && values::arg_int(a, v);
}

bool no_args(const Token*& t) {
  values::Value unused;
  return t->kind != '(' || values::parse_args(t, &unused, 0, 0);
}

bool channel_fn(const Token*& t, std::int64_t* ch) {
  if (!one_int(t, ch)) return false;
  return (*ch >= 0 && *ch < kWavChannels) || fail("Illegal function call");
}

bool slot_fn(const Token*& t, std::int64_t* slot) {
  if (!one_int(t, slot)) return false;
  return (*slot >= 0 && *slot < kWavSlots) || fail("Illegal function call");
}

bool f_wavchannel(const Token*& t, values::Value* out) {
  if (!no_args(t)) return false;
  *out = values::Value::integer(last_channel);
  return true;
}

bool f_wavactive(const Token*& t, values::Value* out) {
  if (!no_args(t)) return false;
  int n = 0;
  for (int i = 0; i < kWavChannels; ++i) n += state_of(i) != kWavIdle ? 1 : 0;
  *out = values::Value::integer(n);
  return true;
}

bool sounding(int ch) {
  const int s = state_of(ch);
  return s == kWavPlaying || s == kWavStopping;
}

bool f_wavplaying(const Token*& t, values::Value* out) {
  bool any = false;
  if (t->kind == '(' && (t + 1)->kind != ')') {
    std::int64_t ch;
    if (!channel_fn(t, &ch)) return false;
    any = sounding(static_cast<int>(ch));
  } else {
    if (!no_args(t)) return false;
    for (int i = 0; i < kWavChannels; ++i) any |= sounding(i);
  }
  *out = values::Value::integer(any ? -1 : 0);
  return true;
}

bool f_wavstate(const Token*& t, values::Value* out) {
  std::int64_t ch;
  if (!channel_fn(t, &ch)) return false;
  *out = values::Value::integer(state_of(static_cast<int>(ch)));
  return true;
}

bool f_wavpos(const Token*& t, values::Value* out) {
  std::int64_t ch;
  if (!channel_fn(t, &ch)) return false;
  const int c = static_cast<int>(ch);
  const std::uint64_t frames = current(c) && state_of(c) != kWavIdle ? wav_status.position[c].load() : 0;
  *out = values::Value::floating(frames / 48000.0);
  return true;
}

bool f_wavlength(const Token*& t, values::Value* out) {
  std::int64_t slot;
  if (!slot_fn(t, &slot)) return false;
  if (!slots[slot]) return fail("WAV slot is not loaded");
  *out = values::Value::floating(slots[slot]->frames / 48000.0);
  return true;
}

bool f_wavloaded(const Token*& t, values::Value* out) {
  std::int64_t slot;
  if (!slot_fn(t, &slot)) return false;
  *out = values::Value::integer(slots[slot] ? -1 : 0);
  return true;
}

bool f_wavslot(const Token*& t, values::Value* out) {
  std::int64_t ch;
  if (!channel_fn(t, &ch)) return false;
  *out = values::Value::integer(state_of(static_cast<int>(ch)) == kWavIdle ? -1 : slot_of(static_cast<int>(ch)));
  return true;
}

}  // namespace

const values::Builtin kWavFunctions[] = {
    {"WAVCHANNEL", f_wavchannel}, {"WAVACTIVE", f_wavactive}, {"WAVPLAYING", f_wavplaying},
    {"WAVSTATE", f_wavstate},     {"WAVPOS", f_wavpos},       {"WAVLENGTH", f_wavlength},
    {"WAVLOADED", f_wavloaded},   {"WAVSLOT", f_wavslot},
};
const int kWavFunctionCount = static_cast<int>(sizeof kWavFunctions / sizeof kWavFunctions[0]);

}  // namespace sound
