// libFuzzer target for the MIDI file reader: any bytes either load as a song
// or are refused with a message, never a crash or a read outside the input;
// a song that loads has its events in time order, within its duration and
// the 24-hour limit, and only the kinds the player knows.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sound/midi_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  sound::Song song;
  std::string error;
  if (!sound::parse_midi(data, size, &song, &error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  if (song.duration > sound::kMidiMaxFrames || song.events.size() > sound::kMidiMaxEvents) std::abort();
  std::uint32_t last = 0;
  for (const sound::MidiEvent& e : song.events) {
    if (e.frame < last || e.frame > song.duration || e.channel > 15) std::abort();
    if (e.kind >= 0x80 && ((e.kind & 0x0F) != 0 || e.d1 > 127 || e.d2 > 127)) std::abort();
    if (e.kind < 0x80 && (e.kind < sound::kEvGmOn || e.kind > sound::kEvGsReturn)) std::abort();
    last = e.frame;
  }
  return 0;
}
