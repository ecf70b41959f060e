// The MIDI file reader and player in process: SMPTE and PPQN timing with the
// tempo map, the 24-hour and one-million-event limits, every load error, the
// RMID container, the SysEx messages, and playback rendered directly (a note
// on its exact frame, looping, release tails capped at 30 seconds).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sound/bank.h"
#include "sound/bank_format.h"
#include "sound/bank_writer.h"
#include "sound/engine.h"
#include "sound/midi_file.h"
#include "sound/midi_player.h"

namespace {

using namespace sound;
using Bytes = std::vector<std::uint8_t>;

void put32(Bytes& b, std::uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<std::uint8_t>(v >> s));
}

Bytes vlq(std::uint32_t n) {
  Bytes b{static_cast<std::uint8_t>(n & 0x7F)};
  while (n >>= 7) b.insert(b.begin(), static_cast<std::uint8_t>((n & 0x7F) | 0x80));
  return b;
}

// A track chunk from raw event bytes (delta times included); `end` adds the end of track.
Bytes track(const Bytes& events, bool end = true) {
  Bytes body = events;
  if (end) body.insert(body.end(), {0x00, 0xFF, 0x2F, 0x00});
  Bytes b{'M', 'T', 'r', 'k'};
  put32(b, static_cast<std::uint32_t>(body.size()));
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

Bytes smf(int format, int tracks, std::uint16_t division, const std::vector<Bytes>& chunks) {
  Bytes b{'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, static_cast<std::uint8_t>(format), static_cast<std::uint8_t>(tracks >> 8),
          static_cast<std::uint8_t>(tracks), static_cast<std::uint8_t>(division >> 8), static_cast<std::uint8_t>(division)};
  for (const Bytes& c : chunks) b.insert(b.end(), c.begin(), c.end());
  return b;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
  return b;
}

std::string error_of(const Bytes& file) {
  Song s;
  std::string e;
  return parse_midi(file.data(), file.size(), &s, &e) ? "" : e;
}

Song parsed(const Bytes& file) {
  Song s;
  std::string e;
  EXPECT_TRUE(parse_midi(file.data(), file.size(), &s, &e)) << e;
  return s;
}

TEST(MidiTiming, SmpteDivisions) {
  // 0xE728: 25 fps x 40 ticks: 48 frames a tick.
  Song s = parsed(smf(0, 1, 0xE728, {track(cat({vlq(1), {0x90, 60, 100}, vlq(999), {0x80, 60, 0}}))}));
  ASSERT_EQ(s.events.size(), 2u);
  EXPECT_EQ(s.events[0].frame, 48u);
  EXPECT_EQ(s.events[1].frame, 48000u);
  EXPECT_TRUE(s.smpte);
  // 0xE350: 29.97 fps x 80 ticks: 20.02 frames a tick, exactly; 25 ticks are
  // 500.5 frames and round half up; 50 ticks are 1001 frames.
  s = parsed(smf(0, 1, 0xE350, {track(cat({vlq(1), {0x90, 60, 100}, vlq(24), {0x90, 61, 100}, vlq(25), {0x90, 62, 1}}))}));
  EXPECT_EQ(s.events[0].frame, 20u);
  EXPECT_EQ(s.events[1].frame, 501u);
  EXPECT_EQ(s.events[2].frame, 1001u);
  // 24 and 30 fps.
  s = parsed(smf(0, 1, 0xE864, {track(cat({vlq(3), {0x90, 60, 100}}))}));
  EXPECT_EQ(s.events[0].frame, 60u);  // 48,000 / 2,400 x 3
  s = parsed(smf(0, 1, 0xE202, {track(cat({vlq(1), {0x90, 60, 100}}))}));
  EXPECT_EQ(s.events[0].frame, 800u);
}

TEST(MidiTiming, TempoMapCarriesTheRemainder) {
  // 7 ticks a quarter at 120 bpm: 3,428.57... frames a tick; the remainder is
  // carried, so 7 ticks are exactly 24,000 frames and 1 tick rounds to 3,429.
  Song s = parsed(smf(0, 1, 7, {track(cat({vlq(1), {0x90, 60, 100}, vlq(6), {0x80, 60, 0}}))}));
  EXPECT_EQ(s.events[0].frame, 3429u);
  EXPECT_EQ(s.events[1].frame, 24000u);
  // A tempo change in another track of a format 1 file applies to all: 96
  // ticks at 500,000 us, then 96 at 250,000 us.
  Bytes tempo = cat({vlq(96), {0xFF, 0x51, 0x03, 0x03, 0xD0, 0x90}});
  Bytes notes = cat({vlq(96), {0x90, 60, 100}, vlq(96), {0x80, 60, 0}});
  s = parsed(smf(1, 2, 96, {track(tempo), track(notes)}));
  EXPECT_EQ(s.events[0].frame, 24000u);
  EXPECT_EQ(s.events[1].frame, 36000u);
  EXPECT_EQ(s.duration, 36000u);
  EXPECT_EQ(s.tracks, 2);
  EXPECT_EQ(s.note_ons, 1u);
}

TEST(MidiTiming, TracksMergeInTimeOrderKeepingTrackOrderForTies) {
  Bytes a = cat({vlq(10), {0x90, 1, 1}, vlq(10), {0x90, 3, 1}});
  Bytes b = cat({vlq(10), {0x91, 2, 1}, vlq(5), {0x91, 4, 1}});
  Song s = parsed(smf(1, 2, 96, {track(a), track(b)}));
  ASSERT_EQ(s.events.size(), 4u);
  EXPECT_EQ(s.events[0].d1, 1);
  EXPECT_EQ(s.events[1].d1, 2);
  EXPECT_EQ(s.events[2].d1, 4);
  EXPECT_EQ(s.events[3].d1, 3);
}

TEST(MidiTiming, TwentyFourHoursExactlyAndOneTickMore) {
  // 96 ticks a quarter at 120 bpm: 250 frames a tick; 24 hours are 16,588,800 ticks.
  const std::uint32_t day = 16588800;
  Bytes ok = cat({vlq(day / 2), {0x90, 60, 100}, vlq(day / 2), {0x80, 60, 0}});
  Song s = parsed(smf(0, 1, 96, {track(ok)}));
  EXPECT_EQ(s.duration, kMidiMaxFrames);
  Bytes over = cat({vlq(day / 2), {0x90, 60, 100}, vlq(day / 2 + 1), {0x80, 60, 0}});
  EXPECT_EQ(error_of(smf(0, 1, 96, {track(over)})), "MIDI duration exceeds 24 hours");
  // The end of a track counts too, with no event there.
  EXPECT_EQ(error_of(smf(0, 1, 96, {track(cat({vlq(day / 2), {0x90, 60, 100}, vlq(day / 2 + 1), {0xFF, 0x01, 0x00}}))})),
            "MIDI duration exceeds 24 hours");
}

TEST(MidiLoad, VariableLengthValues) {
  EXPECT_EQ(error_of(smf(0, 1, 96, {track({0x81, 0x80, 0x80, 0x80, 0x00, 0x90, 60, 1})})),
            "MIDI variable-length value exceeds four bytes");
  Song s = parsed(smf(0, 1, 96, {track({0x81, 0x80, 0x80, 0x00, 0x90, 60, 1})}));  // four bytes: 2^21 ticks
  EXPECT_EQ(s.events[0].frame, 2097152u * 250);
  EXPECT_EQ(error_of(smf(0, 1, 96, {track({0x81, 0x80}, false)})), "Truncated MIDI variable-length value");
  // Sums past 32 bits of ticks.
  Bytes big = cat({{0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}, {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1},
                   {0xFF, 0xFF, 0xFF, 0x7F, 0x90, 1, 1}});
  EXPECT_EQ(error_of(smf(0, 1, 0xE728, {track(big)})), "MIDI tick overflow");
}

TEST(MidiLoad, HeaderAndChunkErrors) {
  const Bytes one = track(cat({vlq(0), {0x90, 60, 100}}));
  EXPECT_EQ(error_of({'M', 'T', 'h', 'd'}), "Not a Standard MIDI File");
  EXPECT_EQ(error_of(Bytes(20, 'x')), "Not a Standard MIDI File");
  Bytes h = smf(0, 1, 96, {one});
  h[7] = 5;
  EXPECT_EQ(error_of(h), "Invalid MIDI header length");
  h[4] = 0x7F;
  EXPECT_EQ(error_of(h), "Invalid MIDI header length");
  EXPECT_EQ(error_of(smf(2, 1, 96, {one})), "MIDI format 2 is not supported; use format 0 or 1");
  EXPECT_EQ(error_of(smf(0, 2, 96, {one, one})), "Invalid MIDI track count");
  EXPECT_EQ(error_of(smf(1, 0, 96, {})), "Invalid MIDI track count");
  EXPECT_EQ(error_of(smf(1, 1025, 96, {one})), "Invalid MIDI track count");
  std::vector<Bytes> many(1024, one);
  EXPECT_EQ(parsed(smf(1, 1024, 96, many)).tracks, 1024);
  EXPECT_EQ(error_of(smf(0, 1, 0, {one})), "MIDI timing division is zero");
  EXPECT_EQ(error_of(smf(0, 1, 0xE700, {one})), "Unsupported MIDI SMPTE division");
  EXPECT_EQ(error_of(smf(0, 1, 0xE628, {one})), "Unsupported MIDI SMPTE division");  // -26 fps
  EXPECT_EQ(error_of(smf(1, 1, 96, {one, one})), "Too many MIDI tracks");
  EXPECT_EQ(error_of(smf(1, 3, 96, {one, one})), "MIDI track count does not match header");
  Bytes cut = smf(0, 1, 96, {one});
  cut.resize(cut.size() - 1);
  EXPECT_EQ(error_of(cut), "Truncated MIDI chunk");
  Bytes stub = smf(0, 1, 96, {one});
  stub.insert(stub.end(), {'X', 'Y', 'Z'});
  EXPECT_EQ(error_of(stub), "Truncated MIDI chunk header");
  // Chunks of other kinds are skipped.
  Bytes alien{'X', 'F', 'I', 'H', 0, 0, 0, 2, 1, 2};
  EXPECT_EQ(parsed(smf(0, 1, 96, {alien, one})).events.size(), 1u);
}

TEST(MidiLoad, EventErrors) {
  auto err = [](const Bytes& events) { return error_of(smf(0, 1, 96, {track(events, false)})); };
  EXPECT_EQ(err({0x00, 60, 100}), "MIDI running status has no preceding channel message");
  EXPECT_EQ(err({0x00, 0x90, 60, 0x80}), "MIDI data byte has its status bit set");
  EXPECT_EQ(err({0x00, 0x90, 60}), "Truncated MIDI channel message");
  EXPECT_EQ(err({0x00, 0xFF}), "Truncated MIDI meta event");
  EXPECT_EQ(err({0x00, 0xFF, 0x01, 0x05, 'a'}), "Truncated MIDI meta payload");
  EXPECT_EQ(err({0x00, 0xF0, 0x05, 0x7E}), "Truncated MIDI SysEx payload");
  for (std::uint8_t s : {0xF1, 0xF2, 0xF3, 0xF6, 0xF8, 0xFE}) EXPECT_EQ(err({0x00, s, 0}), "Unsupported system status in MIDI track");
  EXPECT_EQ(err({0x00, 0xFF, 0x51, 0x02, 0x07, 0xA1}), "Invalid MIDI tempo event");
  EXPECT_EQ(err({0x00, 0xFF, 0x2F, 0x01, 0x00}), "Invalid MIDI end-of-track event");
}

TEST(MidiLoad, OneMillionEvents) {
  Bytes events;
  for (int i = 0; i < 999999; ++i) events.insert(events.end(), {0x00, 0xB0, 7, 100});
  // With the end of track: exactly one million events.
  EXPECT_EQ(parsed(smf(0, 1, 96, {track(events)})).file_events, 1000000u);
  events.insert(events.end(), {0x00, 0xB0, 7, 100});
  EXPECT_EQ(error_of(smf(0, 1, 96, {track(events)})), "MIDI exceeds one million events");
}

TEST(MidiLoad, RunningStatusSysExAndDiagnostics) {
  Bytes e = cat({{0x00, 0x90, 60, 100}, {0x10, 62, 100}, {0x10, 60, 0},  // running status; velocity 0 is a note off
                 {0x00, 0xB0, 3, 5},                                      // controller 3 is not accepted
                 {0x00, 0xB0, 0, 1},                                      // bank select on a melodic part
                 {0x00, 0xF0, 0x05, 0x7E, 0x7F, 0x09, 0x01, 0xF7},        // GM System On
                 {0x00, 0xF0, 0x07, 0x7F, 0x7F, 0x04, 0x01, 0x00, 0x40, 0xF7},  // master volume
                 // GS: part 10 (40 10 15) stays a rhythm part; part 2 (40 12 15) becomes one.
                 {0x00, 0xF0, 0x0A, 0x41, 0x10, 0x42, 0x12, 0x40, 0x12, 0x15, 0x01, 0x18, 0xF7},
                 {0x00, 0xF0, 0x04, 0x43, 0x10, 0x4C, 0xF7},              // another maker's SysEx
                 {0x00, 0xFF, 0x03, 0x02, 'h', 'i'},                      // a track name
                 {0x00, 0xC9, 40},                                        // kit program 40: no such kit
                 {0x00, 0x99, 38, 90}, {0x00, 0x91, 36, 90}});
  Song s = parsed(smf(0, 1, 96, {track(e)}));
  EXPECT_EQ(s.note_ons, 4u);
  EXPECT_EQ(s.cc_unsupported, 1u);
  EXPECT_EQ(s.bank_selects, 1u);
  EXPECT_EQ(s.gs_packets, 1u);
  EXPECT_EQ(s.gs_honoured, 1u);
  EXPECT_EQ(s.sysex_skipped, 1u);
  EXPECT_EQ(s.meta_skipped, 1u);
  EXPECT_EQ(s.drum_fallbacks, 1u);
  EXPECT_EQ(s.tracks_without_end, 0u);
  EXPECT_TRUE(s.program_used[0]);
  EXPECT_TRUE(s.kit_key_used[0][38]);
  EXPECT_TRUE(s.kit_key_used[0][36]);  // part 2 plays the kit after the GS message
  EXPECT_EQ(s.events[2].kind, kEvNoteOff);
  bool gm_on = false, volume = false;
  for (const MidiEvent& ev : s.events) {
    gm_on |= ev.kind == kEvGmOn;
    volume |= ev.kind == kEvMasterVolume && ev.d2 == 0x40;
  }
  EXPECT_TRUE(gm_on && volume);
  // A packet with a bad checksum is counted, not applied.
  Bytes bad = {0x00, 0xF0, 0x0A, 0x41, 0x10, 0x42, 0x12, 0x40, 0x12, 0x15, 0x01, 0x17, 0xF7};
  s = parsed(smf(0, 1, 96, {track(bad, false)}));
  EXPECT_EQ(s.gs_packets, 1u);
  EXPECT_EQ(s.gs_honoured, 0u);
  EXPECT_EQ(s.tracks_without_end, 1u);
}

TEST(MidiLoad, RiffRmid) {
  const Bytes song = smf(0, 1, 96, {track(cat({vlq(0), {0x90, 60, 100}}))});
  auto riff = [](const Bytes& body) {
    Bytes b{'R', 'I', 'F', 'F'};
    const std::uint32_t n = static_cast<std::uint32_t>(body.size());
    for (int s = 0; s < 32; s += 8) b.push_back(static_cast<std::uint8_t>(n >> s));
    b.insert(b.end(), body.begin(), body.end());
    return b;
  };
  auto chunk = [](const char* id, const Bytes& body, bool pad = true) {
    Bytes b(id, id + 4);
    const std::uint32_t n = static_cast<std::uint32_t>(body.size());
    for (int s = 0; s < 32; s += 8) b.push_back(static_cast<std::uint8_t>(n >> s));
    b.insert(b.end(), body.begin(), body.end());
    if (pad && (n & 1)) b.push_back(0);
    return b;
  };
  const Bytes rmid{'R', 'M', 'I', 'D'};
  EXPECT_EQ(parsed(riff(cat({rmid, chunk("LIST", {1, 2, 3}), chunk("data", song)}))).note_ons, 1u);
  EXPECT_EQ(error_of(riff(cat({{'W', 'A', 'V', 'E'}, chunk("data", song)}))), "Invalid RIFF MIDI container");
  EXPECT_EQ(error_of(riff(cat({rmid, chunk("LIST", {1, 2})}))), "RIFF MIDI has no data chunk");
  Bytes cut = riff(cat({rmid, chunk("data", song)}));
  cut[16] = 0x7F;  // the data chunk claims more than the container holds
  EXPECT_EQ(error_of(cut), "Truncated RIFF MIDI data");
  EXPECT_EQ(error_of(riff(cat({rmid, {'d', 'a', 't'}}))), "Truncated RIFF MIDI chunk");
  EXPECT_EQ(error_of(riff(cat({rmid, chunk("LIST", {1}, false)}))), "Truncated RIFF padding");
}

// Playback on a one-instrument bank, rendered directly with the engine stopped.
class MidiPlay : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Note voices of other suites must not outlive the bank they read.
    Command reset;
    reset.kind = kCmdReset;
    apply(reset);
    Bank b;
    SampleInfo s;
    s.frames = 48000;
    s.rate = 48000;
    b.samples.push_back(s);
    for (std::uint32_t i = 0; i < s.frames; ++i) b.pcm.push_back(static_cast<std::int16_t>(i % 96 < 48 ? 8000 : -8000));
    for (int program : {0, 1}) {
      Zone z;
      z.program = static_cast<std::uint16_t>(program);
      z.root_key = 69;
      z.flags = kZoneLoop;
      z.end = 48000;
      z.loop_start = 0;
      z.loop_end = 48000;
      z.attack = 0;
      // Program 1 takes 100 seconds to fall 60 dB after its release.
      z.release = program == 0 ? 0.05f : 100.0f;
      b.zones.push_back(z);
    }
    format::index_zones(&b);
    std::vector<std::uint8_t> file;
    std::string error;
    BankWriteOptions o;
    ASSERT_TRUE(write_bank(b, BankForm::raw, o, &file, &error)) << error;
    static std::string path = ::testing::TempDir() + "tambril_midi_test.qzgm";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f);
    std::fwrite(file.data(), 1, file.size(), f);
    std::fclose(f);
    setenv("TAMBRIL_GM_BANK", path.c_str(), 1);
    ASSERT_TRUE(reload_bank_for_tests()) << bank_error();
  }
  void SetUp() override {
    use_device_for_tests(nullptr);
    Command fx;
    fx.kind = kCmdMidiFx;
    fx.gate = 2;  // no effects: the dry sound alone
    apply(fx);
  }
  void TearDown() override {
    Command c;
    c.kind = kCmdMidiStop;
    apply(c);
    std::vector<double> out(2 * 4800);
    render(out.data(), 4800);
  }
  void play(const Song& s, bool loop = false) {
    Command c;
    c.kind = kCmdMidiPlay;
    c.note = loop ? 1 : 0;
    c.key = 3;
    set_pointer(c, &s);
    apply(c);
  }
  static std::vector<double> run(unsigned frames) {
    std::vector<double> out(2 * frames);
    render(out.data(), frames);
    return out;
  }
  static long first_sound(const std::vector<double>& s, long from = 0) {
    for (long i = from; i < static_cast<long>(s.size() / 2); ++i)
      if (std::fabs(s[2 * i]) > 1e-9) return i;
    return -1;
  }
};

TEST_F(MidiPlay, NotesStartOnTheirFrameAndTheSongEnds) {
  // Ticks 10 and 30 at 250 frames a tick: frames 2,500 and 7,500, inside render blocks.
  Song s = parsed(smf(0, 1, 96, {track(cat({vlq(10), {0x90, 69, 127}, vlq(1), {0x80, 69, 0}, vlq(19), {0x90, 69, 127},
                                             vlq(10), {0x80, 69, 0}}))}));
  play(s);
  EXPECT_EQ(midi_status.state.load(), 1);
  std::vector<double> out = run(48000);
  EXPECT_EQ(first_sound(out), 2500);
  // The first note is released at 2,750 and has ended (100 dB down) by 7,000.
  long quiet = 7000;
  EXPECT_LT(std::fabs(out[2 * quiet]), 1e-6);
  EXPECT_EQ(first_sound(out, quiet), 7500);
  EXPECT_EQ(midi_status.state.load(), 0);
  EXPECT_EQ(midi_status.last_slot.load(), 3);
  EXPECT_EQ(midi_status.note_ons[0].load(), 2u);
}

TEST_F(MidiPlay, PartsPanAndVolumeFromControllers) {
  // CC7 64 and CC11 127 on part 1 against CC7 127; part 2 panned hard left.
  Song s = parsed(smf(0, 1, 96, {track(cat({{0x00, 0xB0, 7, 127}, {0x00, 0x90, 69, 127}, vlq(96), {0x80, 69, 0},
                                             {0x00, 0xB0, 7, 64}, vlq(96), {0x90, 69, 127}, vlq(96), {0x80, 69, 0},
                                             {0x00, 0xB1, 10, 0}, {0x00, 0xB1, 7, 127}, {0x00, 0x91, 69, 127},
                                             vlq(96), {0x81, 69, 0}}))}));
  play(s);
  std::vector<double> out = run(48000 * 2);
  auto level = [&](long from, int side) {
    double m = 0;
    for (long i = from; i < from + 4800; ++i) m = std::max(m, std::fabs(out[2 * i + side]));
    return m;
  };
  const double full = level(12000, 0);
  EXPECT_NEAR(level(48000 + 12000, 0) / full, (64 / 127.0) * (64 / 127.0), 0.01);
  // Pan 0 (14-bit 0): the right side is silent, the left keeps its level.
  EXPECT_LT(level(72000 + 12000, 1), 1e-9);
  EXPECT_NEAR(level(72000 + 12000, 0) / full, 1.0, 0.01);
}

TEST_F(MidiPlay, LoopingStartsTheScoreAgain) {
  Song s = parsed(smf(0, 1, 96, {track(cat({{0x00, 0x90, 69, 127}, vlq(20), {0x80, 69, 0}, vlq(76), {0xFF, 0x01, 0x00}}))}));
  ASSERT_EQ(s.duration, 24000u);
  play(s, true);
  std::vector<double> out = run(24000 * 3 + 100);
  EXPECT_EQ(first_sound(out), 0);
  for (long k = 1; k <= 3; ++k) {
    EXPECT_LT(std::fabs(out[2 * (24000 * k - 100)]), 1e-9) << k;
    EXPECT_EQ(first_sound(out, 24000 * k - 100), 24000 * k) << k;
  }
  EXPECT_EQ(midi_status.state.load(), 1);
  EXPECT_LE(midi_status.position.load(), 24000u);
}

TEST_F(MidiPlay, ReleaseTailsStopAfterThirtySeconds) {
  Song s = parsed(smf(0, 1, 96, {track(cat({{0x00, 0xC0, 1}, {0x00, 0x90, 69, 127}, vlq(96), {0xFF, 0x01, 0x00}}))}));
  play(s);
  (void)run(24000 + 48000);
  EXPECT_EQ(midi_status.state.load(), 2);
  EXPECT_EQ(midi_status.releasing_slot.load(), 3);
  (void)run(48000 * 29 - 48000);
  EXPECT_EQ(midi_status.state.load(), 2);
  (void)run(48000);
  EXPECT_EQ(midi_status.state.load(), 0);
  EXPECT_TRUE(midi_status.tail_limit_hit.load());
}

TEST_F(MidiPlay, SustainPedalHoldsReleasedNotes) {
  Song s = parsed(smf(0, 1, 96, {track(cat({{0x00, 0xB0, 64, 127}, {0x00, 0x90, 69, 127}, vlq(10), {0x80, 69, 0},
                                             vlq(86), {0xB0, 64, 0}, vlq(96), {0xFF, 0x01, 0x00}}))}));
  play(s);
  std::vector<double> out = run(48000);
  // Held by the pedal past the note off at 2,500, released at 24,000 (0.05 s to -60 dB).
  EXPECT_GT(std::fabs(out[2 * 20000]) + std::fabs(out[2 * 20001]), 0.01);
  EXPECT_LT(std::fabs(out[2 * 30000]), 1e-3);
}

}  // namespace
