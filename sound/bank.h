// The General MIDI bank in memory: instruments' key and velocity zones over
// mono 16-bit PCM, loaded once from TAMBRIL_GM.QZGM (raw, lossless or Opus
// form) and kept for the life of the process. The file layout is in
// sound/bank_format.h.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace sound {

constexpr int kPrograms = 132;  // 0..127 GM programs, 128..131 drum kits

// A zone as the voices use it (the same fields as the 56-byte file entry).
struct Zone {
  std::uint16_t program = 0;
  std::uint8_t key_lo = 0, key_hi = 127, vel_lo = 0, vel_hi = 127;
  std::uint8_t root_key = 60;
  std::uint8_t flags = 0;  // kZoneLoop, kZoneLoopUntilRelease
  std::uint32_t sample = 0;
  std::int16_t tune_cents = 0;    // coarse, fine and the sample's correction together
  std::int16_t attenuation_cb = 0;
  std::int16_t pan = 0;           // -500 (left) .. 500 (right), tenths of a percent
  std::uint16_t exclusive = 0;    // a note of a class silences the class (hi-hats)
  std::uint32_t start = 0, end = 0, loop_start = 0, loop_end = 0;  // frames of the sample
  float release = 0.1f;   // seconds for the 60 dB fall
  float attack = 0.001f;  // seconds
  float decay = 0;        // seconds to fall 60 dB towards the sustain level (0: none)
  float sustain = 1;      // level held while the key is down
};
constexpr std::uint8_t kZoneLoop = 1;
constexpr std::uint8_t kZoneLoopUntilRelease = 2;

struct SampleInfo {
  std::uint64_t offset = 0;  // first frame in the PCM area
  std::uint32_t frames = 0;
  std::uint32_t rate = 0;
  std::uint32_t crc = 0;     // CRC-32 of the sample's decoded PCM bytes
  std::uint32_t flags = 0;
};

struct Bank {
  std::vector<Zone> zones;  // sorted by program
  std::vector<SampleInfo> samples;
  std::vector<std::int16_t> pcm;
  std::uint32_t first_zone[kPrograms + 1] = {};  // zones of program p: [first_zone[p], first_zone[p+1])
  // For SOUND INFO.
  std::string form;
  std::uint64_t stored_bytes = 0, decoded_bytes = 0;
  std::string mode;    // "Windows block workers", "raw bank / serial", ...
  std::string reason;  // why serial: "small bank; serial path", ...
  unsigned workers = 1;
  double load_ms = 0;

  bool has_program(int id) const { return id >= 0 && id < kPrograms && first_zone[id + 1] > first_zone[id]; }
  const std::int16_t* sample_pcm(std::uint32_t s) const { return pcm.data() + samples[s].offset; }
};

// The bank, loading it on first need; nullptr when it cannot be loaded (the
// reason is in bank_error()). A failed load is not retried until PRELOAD.
const Bank* need_bank();
// The bank when already loaded, else nullptr; never loads.
const Bank* loaded_bank();
// SOUND PRELOAD: load now (again after a failure) with a worker cap.
const Bank* preload_bank(int workers);
const std::string& bank_error();
// Tests with banks of their own in one process: drop the bank and load the
// one TAMBRIL_GM_BANK names now. No voice may be sounding.
const Bank* reload_bank_for_tests();
// The bank file's full name: TAMBRIL_GM_BANK when set, else beside the executable.
std::string bank_path();

// Read a bank file (any form). workers: 0 automatic, 1 serial, 2..8 a cap.
// False with the message in *error.
bool load_bank_file(const std::string& path, int workers, Bank* out, std::string* error);
// Read a bank from memory (the fuzz target and the tests).
bool load_bank_memory(const std::uint8_t* data, std::size_t size, int workers, Bank* out, std::string* error);

// Names and groups of the 132 ids.
const char* program_name(int id);
const char* group_name(int group);
int group_of(int id);  // 0..16, -1 outside 0..131

// The zones of a program that answer a key and velocity; at most `max`.
int find_zones(const Bank& b, int program, int key, int velocity, const Zone** out, int max);

}  // namespace sound
