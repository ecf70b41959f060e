// tambril_flacdec in.flac out.raw: our FLAC decoder on its own, for the
// bit-exact comparison with `flac -d` and its speed. out.raw holds the
// samples as little-endian int32, interleaved; the rate, channels and bits
// go to stdout, and the decode time (without file input and output) to stderr.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "sound/flac.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: tambril_flacdec in.flac out.raw\n");
    return 2;
  }
  std::FILE* f = std::fopen(argv[1], "rb");
  if (!f) return 2;
  std::vector<std::uint8_t> data;
  std::uint8_t buf[65536];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) data.insert(data.end(), buf, buf + n);
  std::fclose(f);
  sound::FlacAudio a;
  std::string error;
  const auto t0 = std::chrono::steady_clock::now();
  const bool ok = sound::decode_flac(data.data(), data.size(), &a, nullptr, &error);
  const auto t1 = std::chrono::steady_clock::now();
  if (!ok) {
    std::printf("%s\n", error.c_str());
    return 1;
  }
  std::fprintf(stderr, "decode %.3f ms\n", std::chrono::duration<double, std::milli>(t1 - t0).count());
  std::printf("%u %d %d\n", a.rate, a.channels, a.bits);
  std::FILE* o = std::fopen(argv[2], "wb");
  if (!o) return 2;
  std::fwrite(a.samples.data(), 4, a.samples.size(), o);
  std::fclose(o);
  return 0;
}
