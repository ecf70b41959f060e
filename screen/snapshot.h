// Writing the logical framebuffer to an image file (--screenshot).
#pragma once
#include <cstdint>
#include <string>

namespace screen {
// PNG unless the name ends in .bmp (any case). False when the file cannot be written.
bool write_snapshot(const std::string& path);
bool write_png(const std::string& path, const std::uint32_t* pixels, std::uint32_t w, std::uint32_t h);
bool write_bmp(const std::string& path, const std::uint32_t* pixels, std::uint32_t w, std::uint32_t h);
std::uint32_t crc32(const std::uint8_t* data, std::size_t n, std::uint32_t crc = 0);
}  // namespace screen
