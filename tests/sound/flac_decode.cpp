// tambril_flacdec [--repeat N] in.flac out.raw: our FLAC decoder on its own,
// for the bit-exact comparison with `flac -d` and its speed. out.raw holds
// the samples as little-endian int32, interleaved; the rate, channels and
// bits go to stdout. On stderr: the first decode's wall and processor time
// (it touches the output memory for the first time), and with --repeat the
// best of N more decodes into the same, already touched, memory.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "sound/flac.h"

namespace {

double processor_ms(std::clock_t a, std::clock_t b) { return (b - a) * 1000.0 / CLOCKS_PER_SEC; }

}  // namespace

int main(int argc, char** argv) {
  int repeat = 0;
  int arg = 1;
  if (argc > 2 && std::strcmp(argv[1], "--repeat") == 0) {
    repeat = std::atoi(argv[2]);
    arg = 3;
  }
  if (argc - arg != 2) {
    std::fprintf(stderr, "usage: tambril_flacdec [--repeat N] in.flac out.raw\n");
    return 2;
  }
  std::FILE* f = std::fopen(argv[arg], "rb");
  if (!f) return 2;
  std::fseek(f, 0, SEEK_END);
  std::vector<std::uint8_t> data(static_cast<std::size_t>(std::ftell(f)));
  std::fseek(f, 0, SEEK_SET);
  const bool read_ok = std::fread(data.data(), 1, data.size(), f) == data.size();
  std::fclose(f);
  if (!read_ok) return 2;
  sound::FlacAudio a;
  std::string error;
  const auto t0 = std::chrono::steady_clock::now();
  const std::clock_t c0 = std::clock();
  const bool ok = sound::decode_flac(data.data(), data.size(), &a, nullptr, &error);
  const std::clock_t c1 = std::clock();
  const auto t1 = std::chrono::steady_clock::now();
  if (!ok) {
    std::printf("%s\n", error.c_str());
    return 1;
  }
  std::fprintf(stderr, "decode %.3f ms (processor %.3f ms)\n", std::chrono::duration<double, std::milli>(t1 - t0).count(),
               processor_ms(c0, c1));
  double best = -1;
  for (int i = 0; i < repeat; ++i) {
    const std::clock_t r0 = std::clock();
    if (!sound::decode_flac(data.data(), data.size(), &a, nullptr, &error)) return 1;
    const double ms = processor_ms(r0, std::clock());
    if (best < 0 || ms < best) best = ms;
  }
  if (repeat > 0) std::fprintf(stderr, "warm decode best of %d: processor %.3f ms\n", repeat, best);
  std::printf("%u %d %d\n", a.rate, a.channels, a.bits);
  std::FILE* o = std::fopen(argv[arg + 1], "wb");
  if (!o) return 2;
  std::fwrite(a.samples.data(), 4, a.samples.size(), o);
  std::fclose(o);
  return 0;
}
