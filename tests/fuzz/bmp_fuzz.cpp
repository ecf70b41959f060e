// libFuzzer target for the BMP reader: any bytes either load as a complete
// picture or are refused, never a crash, a read outside the input or a huge
// allocation from a small file; a picture that loads survives a round trip
// through the 24-bit writer unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "screen/bmp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  screen::Image img;
  // A smaller pixel limit than the real one keeps each run fast: a few bytes
  // of RLE may legally describe a huge, mostly skipped picture.
  constexpr std::uint64_t kLimit = 1 << 18;
  if (!screen::decode_bmp(data, size, &img, nullptr, kLimit)) return 0;
  if (img.w == 0 || img.h == 0 || static_cast<std::uint64_t>(img.w) * img.h > kLimit ||
      img.px.size() != static_cast<std::size_t>(img.w) * img.h)
    std::abort();
  for (std::uint32_t p : img.px)
    if (p > 0xFFFFFF) std::abort();
  const std::vector<std::uint8_t> again = screen::encode_bmp24(img.px.data(), img.w, img.h, img.w);
  screen::Image back;
  if (!screen::decode_bmp(again.data(), again.size(), &back) || back.w != img.w || back.h != img.h ||
      back.px != img.px)
    std::abort();
  return 0;
}
