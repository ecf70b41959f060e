// PEEK and POKE through the operating system's checked access: a bad address
// is "Invalid memory address", never a crash.
#pragma once
#include <cstdint>

namespace values {

// width 1, 2, 4 or 8; little-endian; 16- and 32-bit reads are unsigned and
// the 64-bit read returns the raw bits.
[[nodiscard]] bool peek(std::uint64_t address, int width, std::int64_t* out);
// Writes the low `width` bytes of value. Every POKE also turns string
// adoption off (raw writes may alias string bytes).
[[nodiscard]] bool poke(std::uint64_t address, int width, std::uint64_t value);

// Told about every successful POKE: the screen keeps its two buffers and
// the sprites over them in step when a program writes the framebuffer.
extern void (*poke_watch)(std::uint64_t address, int width);

}  // namespace values
