// The BASIC data arena: the descriptor table at its start, the block heap
// growing up behind it, the string heap growing down from its end.
//
//   LOMEM=VARTABLE   table end        FREEBOT          FREETOP          HIMEM
//   | 4096 descriptors | block heap ... | free gap ........ | string heap ... |
//
// Every block of the block heap has a 16-byte header {u64 size, u64 next};
// free blocks are kept on a singly linked list in ascending address order.
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
  std::uint8_t* table_end = nullptr;
  std::uint8_t* freebot = nullptr;  // first free low-memory byte
  std::uint8_t* freetop = nullptr;  // top of free area / lowest string byte
  std::uint8_t* himem = nullptr;    // end of the arena
  std::uint64_t free_head = 0;      // address of the first free block's header, 0 for none
};
extern Arena arena;

// Install the arena (base, size in bytes) and empty it.
void arena_init(std::uint8_t* base, std::uint64_t bytes);
// Empty the block heap and the string heap (part of a clear of variables).
void arena_reset();

// Block heap: payload pointer or nullptr (callers raise "Out of memory").
// The payload is not cleared.
void* heap_alloc(std::uint64_t size);
// Tolerant: null, foreign, already-free pointers are ignored.
void heap_free(void* payload);
std::uint64_t heap_block_size(const void* payload);

// FRE: the free gap plus every free block's payload (all ones on overflow).
std::uint64_t fre();

// A consistency check for tests: free list ordered, inside the heap, no
// overlaps or adjacent unmerged blocks, landmarks in order.
bool arena_consistent();

}  // namespace values
