// Standard MIDI Files (format 0 and 1, bare or in a RIFF RMID container)
// turned into one flat list of events stamped in 48 kHz output frames, with
// the load diagnostics MIDINFO reports. Pure: no engine, no files, so the
// parser runs in unit tests and under the fuzzer.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sound {

constexpr std::uint32_t kMidiMaxFrames = 4147200000u;  // 24 hours at 48 kHz
constexpr std::size_t kMidiMaxEvents = 1000000;
constexpr std::size_t kMidiMaxFileBytes = 64u << 20;

// Event kinds: the channel messages keep their status nibble; the SysEx
// messages the player honours get kinds of their own below 0x80.
enum MidiEventKind : std::uint8_t {
  kEvGmOn = 1,          // universal GM System On: every part back to its start
  kEvMasterVolume = 2,  // universal master volume: d1 LSB, d2 MSB
  kEvGsReset = 3,       // GS reset (40 00 7F)
  kEvGsPart = 4,        // GS part parameter: channel = part, d1 = address low byte, d2 = value
  kEvGsReturn = 5,      // GS effect return level: d1 0 reverb, 1 chorus, 2 delay; d2 = level
  kEvNoteOff = 0x80,
  kEvNoteOn = 0x90,
  kEvPolyPressure = 0xA0,
  kEvControl = 0xB0,
  kEvProgram = 0xC0,
  kEvChannelPressure = 0xD0,
  kEvBend = 0xE0,  // d1 LSB, d2 MSB
};

// 8 bytes: 0 frame (u32)  4 kind  5 channel  6 d1  7 d2
struct MidiEvent {
  std::uint32_t frame = 0;
  std::uint8_t kind = 0, channel = 0, d1 = 0, d2 = 0;
};
static_assert(sizeof(MidiEvent) == 8, "MIDI events are 8 bytes");

struct Song {
  std::vector<MidiEvent> events;  // in time order
  int format = 0;
  int tracks = 0;
  std::uint16_t division = 0;
  bool smpte = false;
  std::uint64_t file_events = 0;  // every event of every track
  std::uint64_t note_ons = 0;
  std::uint32_t duration = 0;     // frames to the last event or end of track
  // Load diagnostics.
  std::uint32_t gs_packets = 0, gs_honoured = 0;
  std::uint32_t sysex_skipped = 0, meta_skipped = 0, cc_unsupported = 0;
  std::uint32_t bank_selects = 0, drum_fallbacks = 0, tracks_without_end = 0;
  // What the score plays, for the bank check and MIDINFO: GM programs, kits
  // (0..3 for ids 128..131) and the keys struck on each kit.
  bool program_used[128] = {};
  bool kit_used[4] = {};
  bool kit_key_used[4][128] = {};
};

// Controllers the player accepts (from files and MIDCC).
bool midi_controller_accepted(int cc);

// The drum kit (0..3, ids 128..131) for a program change on a rhythm part;
// *fallback is set when the program has no kit of its own and maps to Standard.
int midi_kit_for_program(int program, bool* fallback);

// Parse a whole file. False with the message in *error; *out is then unspecified.
bool parse_midi(const std::uint8_t* data, std::size_t size, Song* out, std::string* error);

}  // namespace sound
