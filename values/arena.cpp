// Landmarks and the block heap (first fit, split, merge, FREEBOT lowering).
#include "values/arena.h"

#include <cstring>

namespace values {

Arena arena;

namespace {
struct Header {
  std::uint64_t size;  // payload bytes, a multiple of 8, at least 8
  std::uint64_t next;  // next free block's header address while free, else 0
};
constexpr std::uint64_t kHeader = sizeof(Header);
Header* at(std::uint64_t address) { return reinterpret_cast<Header*>(address); }
std::uint64_t addr(const void* p) { return reinterpret_cast<std::uint64_t>(p); }
}  // namespace

void arena_init(std::uint8_t* base, std::uint64_t bytes) {
  arena.lomem = base;
  arena.himem = base + bytes;
  arena.table_end = base + kDescriptorTableBytes;
  arena_reset();
}

void arena_reset() {
  arena.freebot = arena.table_end;
  arena.freetop = arena.himem;
  arena.free_head = 0;
}

void* heap_alloc(std::uint64_t n) {
  if (n > (UINT64_MAX - 7 - kHeader)) return nullptr;
  n = (n + 7) & ~std::uint64_t{7};
  if (n == 0) n = 8;
  std::uint64_t prev = 0;
  for (std::uint64_t b = arena.free_head; b; prev = b, b = at(b)->next) {
    Header* h = at(b);
    if (h->size < n) continue;
    std::uint64_t replacement;
    if (h->size - n < 24) {
      replacement = h->next;  // the whole block is taken
    } else {
      // Split: the front is returned, the rest stays free in its place.
      const std::uint64_t rest = b + kHeader + n;
      at(rest)->size = h->size - n - kHeader;
      at(rest)->next = h->next;
      h->size = n;
      replacement = rest;
    }
    if (prev) at(prev)->next = replacement;
    else arena.free_head = replacement;
    h->next = 0;
    return reinterpret_cast<void*>(b + kHeader);
  }
  const std::uint64_t gap = static_cast<std::uint64_t>(arena.freetop - arena.freebot);
  if (gap < n + kHeader) return nullptr;
  Header* h = reinterpret_cast<Header*>(arena.freebot);
  h->size = n;
  h->next = 0;
  arena.freebot += n + kHeader;
  return reinterpret_cast<std::uint8_t*>(h) + kHeader;
}

std::uint64_t heap_block_size(const void* payload) {
  return reinterpret_cast<const Header*>(static_cast<const std::uint8_t*>(payload) - kHeader)->size;
}

void heap_free(void* payload) {
  if (!payload) return;
  const std::uint64_t b = addr(payload) - kHeader;
  if (b < addr(arena.table_end) || b >= addr(arena.freebot)) return;
  if ((b - addr(arena.table_end)) & 7) return;  // every header is 8-aligned from the table end
  const std::uint64_t size = at(b)->size;
  if (size < 8 || (size & 7) || size > addr(arena.freebot) - b - kHeader) return;  // not a block header
  // Find the place in the address-ordered list; a block already there is ignored.
  std::uint64_t prev = 0, next = arena.free_head;
  while (next && next < b) {
    prev = next;
    next = at(next)->next;
  }
  if (next == b) return;
  if (prev && prev + kHeader + at(prev)->size > b) return;  // inside a free block
  at(b)->next = next;
  if (prev) at(prev)->next = b;
  else arena.free_head = b;
  if (next && b + kHeader + at(b)->size == next) {
    at(b)->size += kHeader + at(next)->size;
    at(b)->next = at(next)->next;
  }
  if (prev && prev + kHeader + at(prev)->size == b) {
    at(prev)->size += kHeader + at(b)->size;
    at(prev)->next = at(b)->next;
  }
  // Free blocks at the top of the heap go back to the gap.
  for (;;) {
    std::uint64_t p = 0, last = arena.free_head;
    if (!last) break;
    while (at(last)->next) {
      p = last;
      last = at(last)->next;
    }
    if (last + kHeader + at(last)->size != addr(arena.freebot)) break;
    if (p) at(p)->next = 0;
    else arena.free_head = 0;
    arena.freebot = reinterpret_cast<std::uint8_t*>(last);
  }
}

std::uint64_t fre() {
  std::uint64_t sum = static_cast<std::uint64_t>(arena.freetop - arena.freebot);
  for (std::uint64_t b = arena.free_head; b; b = at(b)->next) {
    if (sum + at(b)->size < sum) return UINT64_MAX;
    sum += at(b)->size;
  }
  return sum;
}

bool arena_consistent() {
  if (!(arena.lomem <= arena.table_end && arena.table_end <= arena.freebot && arena.freebot <= arena.freetop &&
        arena.freetop <= arena.himem))
    return false;
  std::uint64_t last_end = 0;
  for (std::uint64_t b = arena.free_head; b; b = at(b)->next) {
    if (b < addr(arena.table_end) || b + kHeader + at(b)->size > addr(arena.freebot)) return false;
    if (b <= last_end && last_end) return false;  // out of order, overlapping or unmerged
    if ((at(b)->size & 7) || at(b)->size < 8) return false;
    last_end = b + kHeader + at(b)->size;
    if (last_end == addr(arena.freebot)) return false;  // should have lowered FREEBOT
  }
  return true;
}

}  // namespace values
