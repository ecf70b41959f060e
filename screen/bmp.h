// BMP files: our own reader (1/4/8/16/24/32 bits, uncompressed, RLE8, RLE4
// and bit fields; Windows and OS/2 headers; bottom-up and top-down) and a
// 24-bit writer. The reader takes bytes from outside: every size and offset
// is checked before use, and a damaged file gives an error, never a guess.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace screen {

// A picture in memory: top row first, pixels 0x00RRGGBB.
struct Image {
  std::uint32_t w = 0, h = 0;
  std::vector<std::uint32_t> px;
};

// Images larger than this many pixels are refused (the framebuffer's own limit).
constexpr std::uint64_t kMaxImagePixels = 67108864;

// Decode a whole BMP file. False (with `out` untouched) for anything that is
// not a complete, supported BMP; `why` then names the fault for tests.
// Pictures of more than max_pixels are refused before anything is allocated.
bool decode_bmp(const std::uint8_t* data, std::size_t size, Image* out, const char** why = nullptr,
                std::uint64_t max_pixels = kMaxImagePixels);

// A 24-bit bottom-up BMP of w x h pixels read from `px` (pitch pixels per row).
std::vector<std::uint8_t> encode_bmp24(const std::uint32_t* px, std::uint32_t w, std::uint32_t h,
                                       std::uint32_t pitch);

}  // namespace screen
