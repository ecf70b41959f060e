// The Standard MIDI File reader: RIFF RMID unwrapping, the header and chunk
// rules, track events with running status, the SysEx messages the player
// honours, the merge of all tracks in time order and the conversion of ticks
// to 48 kHz frames with exact integer arithmetic.
#include "sound/midi_file.h"

#include <algorithm>

namespace sound {

namespace {

std::uint32_t be32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
         static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}
std::uint32_t le32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[3]) << 24 | static_cast<std::uint32_t>(p[2]) << 16 |
         static_cast<std::uint32_t>(p[1]) << 8 | p[0];
}

// One event of one track before the merge: its tick, and a tempo in
// microseconds per quarter note when it is a tempo change (0 otherwise).
struct Raw {
  std::uint32_t tick;
  std::uint32_t tempo;
  MidiEvent ev;
};

struct Reader {
  const std::uint8_t* p;
  const std::uint8_t* end;
  std::string* error;
  bool fail(const char* m) {
    *error = m;
    return false;
  }
  // A variable-length value of at most four bytes.
  bool vlq(std::uint32_t* out) {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
      if (p >= end) return fail("Truncated MIDI variable-length value");
      const std::uint8_t b = *p++;
      v = v << 7 | (b & 0x7F);
      if (!(b & 0x80)) {
        *out = v;
        return true;
      }
    }
    return fail("MIDI variable-length value exceeds four bytes");
  }
};

// GS part numbers in the address: 40 1x: x = 0 is part 10, 1..9 parts 1..9,
// A..F parts 11..16; returned as the MIDI channel the part listens on.
int gs_part(int x) { return x == 0 ? 9 : x <= 9 ? x - 1 : x; }

// A Roland GS DT1 packet (F0 41 dev 42 12 a1 a2 a3 data.. sum F7, without the
// F0): the settings it carries become events. True when it was GS DT1.
bool gs_packet(const std::uint8_t* b, std::uint32_t n, std::uint32_t tick, Song* song, std::vector<Raw>* out) {
  if (n < 8 || b[0] != 0x41 || b[2] != 0x42 || b[3] != 0x12) return false;
  std::uint32_t len = n;
  if (b[len - 1] == 0xF7) --len;
  if (len < 8) return false;
  ++song->gs_packets;
  // Address (3 bytes) and data are followed by the checksum.
  const std::uint32_t a = static_cast<std::uint32_t>(b[4]) << 16 | static_cast<std::uint32_t>(b[5]) << 8 | b[6];
  unsigned sum = 0;
  for (std::uint32_t i = 4; i < len; ++i) sum += b[i];
  if (sum % 128 != 0) return true;  // a corrupt packet is counted, not applied
  bool honoured = false;
  for (std::uint32_t i = 7; i + 1 < len; ++i) {
    const std::uint32_t at = a + (i - 7);
    const std::uint8_t v = b[i] & 0x7F;
    MidiEvent e;
    if (at == 0x40007F) {
      e.kind = kEvGsReset;
    } else if (at == 0x400004) {
      e.kind = kEvMasterVolume;
      e.d1 = 0;
      e.d2 = v;
    } else if (at == 0x400133 || at == 0x40013A || at == 0x400158) {
      e.kind = kEvGsReturn;
      e.d1 = at == 0x400133 ? 0 : at == 0x40013A ? 1 : 2;
      e.d2 = v;
    } else if ((at & 0xFFF000) == 0x401000) {
      const std::uint8_t param = at & 0xFF;
      if (param != 0x15 && param != 0x19 && param != 0x1C && param != 0x21 && param != 0x22 && param != 0x2C) continue;
      e.kind = kEvGsPart;
      e.channel = static_cast<std::uint8_t>(gs_part((at >> 8) & 0xF));
      e.d1 = param;
      e.d2 = v;
    } else {
      continue;
    }
    honoured = true;
    out->push_back({tick, 0, e});
  }
  if (honoured) ++song->gs_honoured;
  return true;
}

bool sysex(const std::uint8_t* b, std::uint32_t n, std::uint32_t tick, Song* song, std::vector<Raw>* out) {
  // Universal non-real-time GM System On: 7E dev 09 01 F7.
  if (n == 5 && b[0] == 0x7E && b[2] == 0x09 && b[3] == 0x01 && b[4] == 0xF7) {
    MidiEvent e;
    e.kind = kEvGmOn;
    out->push_back({tick, 0, e});
    return true;
  }
  // Universal real-time master volume: 7F dev 04 01 lsb msb F7.
  if (n == 7 && b[0] == 0x7F && b[2] == 0x04 && b[3] == 0x01 && b[6] == 0xF7) {
    MidiEvent e;
    e.kind = kEvMasterVolume;
    e.d1 = b[4] & 0x7F;
    e.d2 = b[5] & 0x7F;
    out->push_back({tick, 0, e});
    return true;
  }
  if (gs_packet(b, n, tick, song, out)) return true;
  ++song->sysex_skipped;
  return true;
}

bool parse_track(const std::uint8_t* body, std::uint32_t size, Song* song, std::vector<Raw>* out,
                 std::uint32_t* end_tick, std::string* error) {
  Reader r{body, body + size, error};
  std::uint32_t tick = 0;
  std::uint8_t running = 0;
  bool ended = false;
  while (r.p < r.end && !ended) {
    std::uint32_t delta;
    if (!r.vlq(&delta)) return false;
    if (tick > 0xFFFFFFFFu - delta) return r.fail("MIDI tick overflow");
    tick += delta;
    if (r.p >= r.end) return r.fail("Truncated MIDI channel message");
    if (++song->file_events > kMidiMaxEvents) return r.fail("MIDI exceeds one million events");
    std::uint8_t status = *r.p;
    if (status < 0x80) {
      if (!running) return r.fail("MIDI running status has no preceding channel message");
      status = running;
    } else {
      ++r.p;
    }
    if (status < 0xF0) {
      running = status;
      const int kind = status & 0xF0;
      const int n = kind == 0xC0 || kind == 0xD0 ? 1 : 2;
      if (r.end - r.p < n) return r.fail("Truncated MIDI channel message");
      const std::uint8_t d1 = r.p[0], d2 = n == 2 ? r.p[1] : 0;
      if ((d1 | d2) & 0x80) return r.fail("MIDI data byte has its status bit set");
      r.p += n;
      MidiEvent e;
      e.kind = static_cast<std::uint8_t>(kind);
      e.channel = status & 0x0F;
      e.d1 = d1;
      e.d2 = d2;
      if (kind == kEvNoteOn && d2 == 0) e.kind = kEvNoteOff;
      if (kind == kEvControl && !midi_controller_accepted(d1)) {
        ++song->cc_unsupported;
        continue;
      }
      if (e.kind == kEvNoteOn) ++song->note_ons;
      out->push_back({tick, 0, e});
    } else if (status == 0xFF) {
      if (r.p >= r.end) return r.fail("Truncated MIDI meta event");
      const std::uint8_t type = *r.p++;
      std::uint32_t len;
      if (r.p >= r.end) return r.fail("Truncated MIDI meta event");
      if (!r.vlq(&len)) return false;
      if (static_cast<std::uint32_t>(r.end - r.p) < len) return r.fail("Truncated MIDI meta payload");
      if (type == 0x51) {
        if (len != 3) return r.fail("Invalid MIDI tempo event");
        const std::uint32_t t = static_cast<std::uint32_t>(r.p[0]) << 16 | static_cast<std::uint32_t>(r.p[1]) << 8 | r.p[2];
        // A tempo of 0 would stop time; it is read as the slowest step instead.
        out->push_back({tick, t ? t : 1, MidiEvent{}});
      } else if (type == 0x2F) {
        if (len != 0) return r.fail("Invalid MIDI end-of-track event");
        ended = true;
      } else {
        ++song->meta_skipped;
      }
      r.p += len;
    } else if (status == 0xF0 || status == 0xF7) {
      std::uint32_t len;
      if (!r.vlq(&len)) return false;
      if (static_cast<std::uint32_t>(r.end - r.p) < len) return r.fail("Truncated MIDI SysEx payload");
      if (status == 0xF0) (void)sysex(r.p, len, tick, song, out);
      else ++song->sysex_skipped;  // escapes and continuation packets
      r.p += len;
    } else {
      return r.fail("Unsupported system status in MIDI track");
    }
  }
  if (!ended) ++song->tracks_without_end;
  *end_tick = tick;
  return true;
}

// Frames of the tempo map: a running whole-frame count and a remainder over
// the denominator, so that no rounding accumulates from event to event.
struct Clock {
  bool smpte = false;
  unsigned __int128 per_tick_num = 0;  // frames per tick = per_tick_num / den
  unsigned __int128 den = 1;
  std::uint32_t division = 0;
  std::uint64_t frames = 0;
  unsigned __int128 rem = 0;
  std::uint32_t tick = 0;
  void set_tempo(std::uint32_t t) {
    if (smpte) return;
    // t x 48,000 / (1,000,000 x d): the carried remainder is rescaled exactly
    // because the denominator does not depend on the tempo.
    per_tick_num = static_cast<unsigned __int128>(t) * 48000;
  }
  void advance(std::uint32_t to) {
    const unsigned __int128 num = static_cast<unsigned __int128>(to - tick) * per_tick_num + rem;
    frames += static_cast<std::uint64_t>(num / den);
    rem = num % den;
    tick = to;
  }
  // The frame of the current tick, rounded half up.
  std::uint64_t now() const { return frames + (2 * rem >= den ? 1 : 0); }
};

}  // namespace

bool midi_controller_accepted(int cc) {
  static constexpr std::uint8_t kAccepted[] = {0,  1,  2,  4,  5,  6,  7,  8,  10, 11, 32, 33, 34, 36,  37,  38,  39,  40,
                                               42, 43, 64, 65, 66, 67, 68, 69, 71, 72, 73, 74, 75, 76,  77,  78,  84,  88,
                                               91, 92, 93, 94, 95, 96, 97, 98, 99, 100, 101, 120, 121, 123, 124, 125, 126, 127};
  for (const std::uint8_t a : kAccepted)
    if (a == cc) return true;
  return false;
}

int midi_kit_for_program(int program, bool* fallback) {
  *fallback = false;
  // The GS kit numbers: Standard 0-7, Room 8-15, Power 16-23, Electronic 24-31.
  if (program < 32) return program / 8;
  *fallback = true;
  return 0;
}

bool parse_midi(const std::uint8_t* data, std::size_t size, Song* song, std::string* error) {
  auto fail = [&](const char* m) {
    *error = m;
    return false;
  };
  *song = Song{};
  if (size > kMidiMaxFileBytes) return fail("Invalid MIDI file size (limit 64 MiB)");
  // RIFF RMID: the SMF is the body of its "data" chunk.
  if (size >= 4 && std::equal(data, data + 4, "RIFF")) {
    if (size < 12 || !std::equal(data + 8, data + 12, "RMID")) return fail("Invalid RIFF MIDI container");
    const std::uint64_t riff_end = 8 + static_cast<std::uint64_t>(le32(data + 4));
    if (riff_end < 12 || riff_end > size) return fail("Invalid RIFF MIDI container");
    std::size_t at = 12;
    const std::uint8_t* smf = nullptr;
    std::size_t smf_size = 0;
    while (at < riff_end) {
      if (riff_end - at < 8) return fail("Truncated RIFF MIDI chunk");
      const std::uint32_t len = le32(data + at + 4);
      const bool is_data = std::equal(data + at, data + at + 4, "data");
      if (len > riff_end - at - 8) return fail(is_data ? "Truncated RIFF MIDI data" : "Truncated RIFF MIDI chunk");
      if (is_data) {
        smf = data + at + 8;
        smf_size = len;
        break;
      }
      at += 8 + static_cast<std::size_t>(len);
      if (len & 1) {
        if (at >= riff_end) return fail("Truncated RIFF padding");
        ++at;
      }
    }
    if (!smf) return fail("RIFF MIDI has no data chunk");
    data = smf;
    size = smf_size;
  }
  if (size < 14 || !std::equal(data, data + 4, "MThd")) return fail("Not a Standard MIDI File");
  const std::uint32_t hlen = be32(data + 4);
  if (hlen < 6 || hlen > size - 8) return fail("Invalid MIDI header length");
  const int format = data[8] << 8 | data[9];
  const int ntracks = data[10] << 8 | data[11];
  const std::uint16_t division = static_cast<std::uint16_t>(data[12] << 8 | data[13]);
  if (format >= 2) return fail("MIDI format 2 is not supported; use format 0 or 1");
  if (ntracks < 1 || ntracks > 1024 || (format == 0 && ntracks != 1)) return fail("Invalid MIDI track count");
  if (division == 0) return fail("MIDI timing division is zero");
  Clock clock;
  if (division & 0x8000) {
    const int fps = -static_cast<int>(static_cast<std::int8_t>(division >> 8));
    const int tpf = division & 0xFF;
    if (tpf == 0 || (fps != 24 && fps != 25 && fps != 29 && fps != 30)) return fail("Unsupported MIDI SMPTE division");
    clock.smpte = true;
    // 29 stands for 30,000/1,001 frames a second: 48,048,000 / (30,000 x tpf).
    clock.per_tick_num = fps == 29 ? 48048000 : 48000;
    clock.den = fps == 29 ? static_cast<unsigned __int128>(30000) * tpf : static_cast<unsigned __int128>(fps) * tpf;
  } else {
    clock.den = static_cast<unsigned __int128>(1000000) * division;
    clock.set_tempo(500000);
  }
  song->format = format;
  song->tracks = ntracks;
  song->division = division;
  song->smpte = clock.smpte;

  std::vector<Raw> raw;
  std::uint32_t last_tick = 0;
  int found = 0;
  std::size_t at = 8 + static_cast<std::size_t>(hlen);
  while (at < size) {
    if (size - at < 8) return fail("Truncated MIDI chunk header");
    const std::uint32_t len = be32(data + at + 4);
    if (len > size - at - 8) return fail("Truncated MIDI chunk");
    if (std::equal(data + at, data + at + 4, "MTrk")) {
      if (++found > ntracks) return fail("Too many MIDI tracks");
      std::uint32_t end_tick = 0;
      if (!parse_track(data + at + 8, len, song, &raw, &end_tick, error)) return false;
      last_tick = std::max(last_tick, end_tick);
    }
    at += 8 + static_cast<std::size_t>(len);
  }
  if (found != ntracks) return fail("MIDI track count does not match header");
  // The tracks were appended in file order, each in tick order: a stable sort
  // merges them and keeps track order for events at the same tick.
  std::stable_sort(raw.begin(), raw.end(), [](const Raw& a, const Raw& b) { return a.tick < b.tick; });

  // Ticks to frames along the tempo map.
  std::size_t stored = 0;
  for (const Raw& r : raw) stored += r.tempo ? 0 : 1;
  song->events.reserve(stored);
  for (const Raw& r : raw) {
    clock.advance(r.tick);
    if (r.tempo) {
      clock.set_tempo(r.tempo);
      continue;
    }
    const std::uint64_t f = clock.now();
    if (f > kMidiMaxFrames) return fail("MIDI duration exceeds 24 hours");
    MidiEvent e = r.ev;
    e.frame = static_cast<std::uint32_t>(f);
    song->events.push_back(e);
  }
  clock.advance(last_tick);
  const std::uint64_t end = clock.now();
  if (end > kMidiMaxFrames) return fail("MIDI duration exceeds 24 hours");
  song->duration = static_cast<std::uint32_t>(end);

  // What the score plays, part by part, as the player will voice it.
  int program[16] = {}, kit[16] = {};
  bool drum[16] = {};
  drum[9] = true;
  for (const MidiEvent& e : song->events) {
    const int ch = e.channel & 15;
    switch (e.kind) {
      case kEvGmOn:
      case kEvGsReset:
        for (int i = 0; i < 16; ++i) program[i] = kit[i] = 0, drum[i] = i == 9;
        break;
      case kEvGsPart:
        if (e.d1 == 0x15) drum[ch] = e.d2 != 0;
        break;
      case kEvControl:
        if ((e.d1 == 0 || e.d1 == 32) && e.d2 != 0 && !drum[ch]) ++song->bank_selects;
        break;
      case kEvProgram:
        program[ch] = e.d1;
        if (drum[ch]) {
          bool fallback;
          kit[ch] = midi_kit_for_program(e.d1, &fallback);
          if (fallback) ++song->drum_fallbacks;
        }
        break;
      case kEvNoteOn:
        if (drum[ch]) {
          song->kit_used[kit[ch]] = true;
          song->kit_key_used[kit[ch]][e.d1] = true;
        } else {
          song->program_used[program[ch]] = true;
        }
        break;
      default:
        break;
    }
  }
  return true;
}

}  // namespace sound
