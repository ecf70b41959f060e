// The MIDI player on the audio thread: one song at a time walked event by
// event at its frame times over the 16 MIDI parts, their own 256 voices, the
// reverb, chorus and echo sends, and the status words the interpreter reads.
#pragma once
#include <atomic>
#include <cstdint>

#include "sound/engine.h"

namespace sound {

struct Song;

constexpr int kMidiParts = 16;
constexpr std::uint32_t kTailLimitFrames = 30 * kRate;

// Written by the audio thread after every render block (and by the calling
// thread when the engine is stopped); read by the statements.
struct MidiStatus {
  std::atomic<int> state{0};  // 0 stopped, 1 score, 2 release tails
  std::atomic<std::uint64_t> generation{0};  // of the last PLAYMID/STOPMID applied
  std::atomic<int> playing_slot{-1}, releasing_slot{-1}, last_slot{-1};
  std::atomic<std::uint32_t> position{0};  // frames into the score
  std::atomic<int> live_voices{0};
  std::atomic<std::uint32_t> missed{0}, ignored{0};            // this playback
  std::atomic<std::uint32_t> last_missed{0}, last_ignored{0};  // the one before
  std::atomic<bool> tail_limit_hit{false};
  // Per part: program id (0..131), live voices, note-ons, sends (file, current).
  std::atomic<int> program[kMidiParts] = {};
  std::atomic<int> live[kMidiParts] = {};
  std::atomic<std::uint32_t> note_ons[kMidiParts] = {};
  std::atomic<int> file_send[kMidiParts][3] = {};
  std::atomic<int> send[kMidiParts][3] = {};
  // Effects: return levels from the file (GS), recent peaks in ppm.
  std::atomic<int> return_level[3] = {};
  std::atomic<std::int64_t> send_peak[3] = {}, wet_peak[3] = {};
};
extern MidiStatus midi_status;

// The MIDI kinds of the command ring.
void midi_apply(const Command& c);
// Add the player's next n frames (n <= 128) into the interleaved block.
void midi_mix(double* block, unsigned n);

}  // namespace sound
