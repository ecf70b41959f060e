// libFuzzer target for our FLAC decoder alone: any bytes decode to whole
// frames of the stream's channel count, or are refused; never a crash, a
// read outside the input or an allocation the input does not justify.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sound/flac.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  sound::FlacAudio a;
  std::string error;
  if (!sound::decode_flac(data, size, &a, nullptr, &error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  if (a.channels < 1 || a.channels > 2 || a.bits < 4 || a.bits > 32 || a.samples.empty() ||
      a.samples.size() % static_cast<std::size_t>(a.channels) != 0)
    std::abort();
  if (a.bits < 32) {
    const std::int64_t lim = std::int64_t{1} << (a.bits - 1);
    for (std::int32_t s : a.samples)
      if (s < -lim || s >= lim) return 0;  // a corrupt but CRC-valid stream may overflow its width; no crash
  }
  return 0;
}
