// Costs of the MIDI player and the resampler (not a test):
//
//   build/tambril_mediabench midi [file.mid]   render a song (without a file: a
//        dense General MIDI song made here, 16 parts of sixteenth notes and
//        chords with every effect) as fast as it goes; prints the render time
//        as a share of one core
//   build/tambril_mediabench resample RATE [seconds]   resample stereo noise
//        from RATE to 48 kHz; prints output frames a second and x real time
//
// Times are processor time: on a shared machine a thread may wait for a
// processor, which is not the work's cost.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "sound/bank.h"
#include "sound/engine.h"
#include "sound/midi_file.h"
#include "sound/midi_player.h"
#include "sound/resample.h"

namespace {

double seconds_since(std::clock_t c0) { return static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC; }

void put_vlq(std::vector<std::uint8_t>& b, std::uint32_t n) {
  std::uint8_t tmp[5];
  int k = 0;
  tmp[k++] = n & 0x7F;
  while (n >>= 7) tmp[k++] = static_cast<std::uint8_t>((n & 0x7F) | 0x80);
  while (k) b.push_back(tmp[--k]);
}

// 60 seconds at 140 beats a minute, 96 ticks a beat: every part plays a
// pattern of sixteenth notes (three-note chords on the pads and strings),
// with sends, pan and some pitch bend; part 10 plays drums.
std::vector<std::uint8_t> dense_song() {
  static const int programs[16] = {0, 4, 24, 33, 48, 50, 52, 56, 61, 65, 73, 80, 88, 89, 91, 95};
  std::vector<std::uint8_t> trk;
  auto ev = [&](std::uint32_t delta, std::initializer_list<int> bytes) {
    put_vlq(trk, delta);
    for (int x : bytes) trk.push_back(static_cast<std::uint8_t>(x));
  };
  ev(0, {0xFF, 0x51, 3, 0x06, 0x8A, 0x1B});  // 428,571 us: 140 bpm
  for (int p = 0; p < 16; ++p) {
    if (p != 9) ev(0, {0xC0 | p, programs[p]});
    ev(0, {0xB0 | p, 91, 60});
    ev(0, {0xB0 | p, 93, p % 3 ? 30 : 0});
    ev(0, {0xB0 | p, 94, p % 4 ? 0 : 25});
    ev(0, {0xB0 | p, 10, (p * 37) % 128});
    ev(0, {0xB0 | p, 7, 90});
  }
  const int steps = 60 * 140 / 60 * 4;  // sixteenths in a minute
  for (int s = 0; s < steps; ++s) {
    for (int p = 0; p < 16; ++p) {
      const bool chord = p >= 4 && p <= 8;
      const int base = p == 9 ? 35 + (s * 5) % 12 : 36 + (p * 5 + s * 7) % 48;
      if (p != 9 && p % 2 && s % 2) continue;  // half the parts play eighths
      ev(0, {0x90 | p, base, 70 + (s * 13 + p) % 50});
      if (chord) ev(0, {0x90 | p, base + 4, 70}), ev(0, {0x90 | p, base + 7, 70});
    }
    if (s % 8 == 0) ev(0, {0xE0 | 2, 0, 64 + (s / 8) % 16});
    ev(24, {0xFF, 0x01, 0});  // an empty text event carries the sixteenth's time
    for (int p = 0; p < 16; ++p) {
      const bool chord = p >= 4 && p <= 8;
      const int base = p == 9 ? 35 + (s * 5) % 12 : 36 + (p * 5 + s * 7) % 48;
      if (p != 9 && p % 2 && s % 2) continue;
      ev(0, {0x80 | p, base, 0});
      if (chord) ev(0, {0x80 | p, base + 4, 0}), ev(0, {0x80 | p, base + 7, 0});
    }
  }
  ev(96, {0xFF, 0x2F, 0});
  std::vector<std::uint8_t> f = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0, 96, 'M', 'T', 'r', 'k'};
  const std::uint32_t n = static_cast<std::uint32_t>(trk.size());
  for (int sh = 24; sh >= 0; sh -= 8) f.push_back(static_cast<std::uint8_t>(n >> sh));
  f.insert(f.end(), trk.begin(), trk.end());
  return f;
}

int bench_midi(const char* path) {
  std::vector<std::uint8_t> file;
  if (path) {
    std::FILE* f = std::fopen(path, "rb");
    if (!f) return 2;
    std::uint8_t buf[65536];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) file.insert(file.end(), buf, buf + n);
    std::fclose(f);
  } else {
    file = dense_song();
  }
  sound::Song song;
  std::string error;
  std::clock_t c0 = std::clock();
  if (!sound::parse_midi(file.data(), file.size(), &song, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  std::printf("parsed %zu events (%llu note-ons, %.1f s) in %.1f ms\n", song.events.size(),
              static_cast<unsigned long long>(song.note_ons), song.duration / 48000.0, seconds_since(c0) * 1000);
  const sound::Bank* bank = sound::preload_bank(0);
  if (!bank) {
    std::fprintf(stderr, "no bank: %s\n", sound::bank_error().c_str());
    return 1;
  }
  sound::use_device_for_tests(nullptr);
  sound::Command c;
  c.kind = sound::kCmdMidiPlay;
  sound::set_pointer(c, &song);
  (void)sound::post(c);
  std::vector<double> buf(2 * sound::kBufferFrames);
  long frames = 0;
  int most = 0;
  c0 = std::clock();
  while (sound::midi_status.state.load() != 0) {
    sound::render(buf.data(), sound::kBufferFrames);
    frames += sound::kBufferFrames;
    int live = 0;
    for (int p = 0; p < sound::kMidiParts; ++p) live += sound::midi_status.live[p].load();
    most = live > most ? live : most;
  }
  const double cpu = seconds_since(c0), audio = frames / 48000.0;
  std::printf("rendered %.1f s of audio (up to %d held voices, release tails included) in %.2f s of processor "
              "time: %.1f%% of one core\n",
              audio, most, cpu, 100.0 * cpu / audio);
  return 0;
}

int bench_resample(std::uint32_t rate, int seconds) {
  std::vector<float> in(static_cast<std::size_t>(rate) * seconds * 2);
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> u(-0.5f, 0.5f);
  for (float& x : in) x = u(rng);
  sound::ResampleFilter f;
  std::clock_t c0 = std::clock();
  if (!sound::make_resample_filter(rate, &f)) return 1;
  const double design = seconds_since(c0);
  std::vector<float> out;
  std::string error;
  c0 = std::clock();
  if (!sound::resample(f, in.data(), in.size() / 2, 2, &out, nullptr, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const double cpu = seconds_since(c0);
  const double frames = static_cast<double>(out.size() / 2);
  std::printf("%u Hz -> 48000 Hz stereo: %u phases x %u taps (filter made in %.1f ms); %.0f output frames in "
              "%.3f s: %.2f million frames a second, %.0fx real time\n",
              rate, f.phases, f.taps, design * 1000, frames, cpu, frames / cpu / 1e6, frames / 48000.0 / cpu);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "midi") == 0) return bench_midi(argc > 2 ? argv[2] : nullptr);
  if (argc >= 3 && std::strcmp(argv[1], "resample") == 0)
    return bench_resample(static_cast<std::uint32_t>(std::atoi(argv[2])), argc > 3 ? std::atoi(argv[3]) : 30);
  std::fprintf(stderr, "usage: tambril_mediabench midi [file.mid] | resample RATE [seconds]\n");
  return 2;
}
