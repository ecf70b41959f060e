// The BASIC data arena's landmarks. The descriptor table sits at its start,
// the block heap grows up behind it, the string heap grows down from its end.
#pragma once
#include <cstdint>

namespace values {

constexpr std::uint32_t kMaxDescriptors = 4096;
// 40-byte name, type, flags, then the 72-byte value area at offset 48 so that
// 64-bit and binary64 slots are naturally aligned.
constexpr std::uint32_t kDescriptorBytes = 120;
constexpr std::uint64_t kDescriptorTableBytes = std::uint64_t{kMaxDescriptors} * kDescriptorBytes;

struct Arena {
  std::uint8_t* lomem = nullptr;    // = VARTABLE
  std::uint8_t* freebot = nullptr;  // first free low-memory byte
  std::uint8_t* freetop = nullptr;  // top of free area / lowest string byte
  std::uint8_t* himem = nullptr;    // end of the arena
};
extern Arena arena;

// Install the arena (base, size in bytes) and empty it.
void arena_init(std::uint8_t* base, std::uint64_t bytes);
// Free bytes between the top of the used low part and the string heap.
std::uint64_t arena_free_gap();

}  // namespace values
