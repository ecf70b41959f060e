// String heap, temporaries and compaction.
#include "values/strings.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/errors.h"
#include "values/arena.h"
#include "values/types.h"
#include "values/variables.h"

namespace values {

bool compaction_scratch_fails = false;
std::uint64_t temp_count = 0;
bool compact_pending = false;

namespace {

struct Temp {
  const char* ptr;
  std::uint32_t len;
};
Temp temps[kTemporaries];
bool adoption = true;
std::uint64_t since_compaction = 0;
// The live string bytes the last compaction left. A compaction costs time in
// proportion to what is live, so the next one waits until enough has been
// allocated to pay for it: 8 MiB and half the live bytes. When the gap is
// small it waits until what it could win (at most what was allocated since)
// is a quarter of the gap it would leave. Filling the heap therefore costs a
// logarithmic number of compactions, never one per statement.
std::uint64_t live_after = 0;

std::uint64_t addr(const void* p) { return reinterpret_cast<std::uint64_t>(p); }

bool live(const StringDesc* d) {
  return d->ptr && d->length && addr(d->ptr) >= addr(arena.freetop) && addr(d->ptr) < addr(arena.himem);
}

// Every string descriptor a variable owns: STRING scalars and the elements of
// STRING arrays (extents use the current OPTION BASE).
template <typename F>
void for_each_string(F&& f) {
  Descriptor* t = descriptor_table();
  const std::uint32_t n = descriptor_count();
  for (std::uint32_t i = 0; i < n; ++i) {
    Descriptor& d = t[i];
    if (d.type != kString) continue;
    if (!d.is_array()) {
      f(reinterpret_cast<StringDesc*>(d.value));
      continue;
    }
    auto* block = static_cast<std::uint8_t*>(d.array_block());
    if (!block) continue;
    std::uint64_t dims;
    std::memcpy(&dims, block, 8);
    std::uint64_t count = 1;
    for (std::uint64_t k = 0; k < dims; ++k) {
      std::int64_t upper;
      std::memcpy(&upper, block + 8 + 8 * k, 8);
      count *= static_cast<std::uint64_t>(upper - option_base + 1);
    }
    auto* elems = reinterpret_cast<StringDesc*>(block + 8 + 8 * dims);
    for (std::uint64_t e = 0; e < count; ++e) f(&elems[e]);
  }
}

void finish(std::uint8_t* new_freetop) {
  arena.freetop = new_freetop;
  since_compaction = 0;
  compact_pending = false;
  live_after = static_cast<std::uint64_t>(arena.himem - new_freetop);
}

bool compaction_due() {
  const std::uint64_t gap = static_cast<std::uint64_t>(arena.freetop - arena.freebot);
  if (since_compaction >= kCompactThreshold && since_compaction >= live_after / 2) return true;
  return gap < kCompactThreshold && since_compaction >= gap / 4 + since_compaction / 4;
}

// No memory for the sort: move the highest remaining string down each round.
void compact_in_place() {
  std::uint8_t* dest = arena.himem;
  std::uint64_t below = addr(arena.himem);
  for (;;) {
    std::uint64_t best = 0;
    std::uint32_t len = 0;
    for_each_string([&](StringDesc* d) {
      if (!live(d) || addr(d->ptr) >= below) return;
      if (addr(d->ptr) > best) {
        best = addr(d->ptr);
        len = d->length;
      } else if (addr(d->ptr) == best && d->length > len) {
        len = d->length;
      }
    });
    if (!best) break;
    dest -= len;
    std::memmove(dest, reinterpret_cast<void*>(best), len);
    char* moved = reinterpret_cast<char*>(dest);
    for_each_string([&](StringDesc* d) {
      if (d->ptr && d->length && addr(d->ptr) == best) d->ptr = moved;
    });
    below = best;  // moved strings only ever rise, so they stay above this mark
  }
  finish(dest);
}

}  // namespace

char* string_alloc(std::uint32_t n) {
  if (n == 0) return reinterpret_cast<char*>(arena.freetop);
  if (static_cast<std::uint64_t>(arena.freetop - arena.freebot) < n) {
    core::raise("Out of string space");
    return nullptr;
  }
  arena.freetop -= n;
  since_compaction = since_compaction + n < since_compaction ? UINT64_MAX : since_compaction + n;
  if (compaction_due()) compact_pending = true;
  return reinterpret_cast<char*>(arena.freetop);
}

char* string_temp(std::uint32_t n) {
  char* p = string_alloc(n);
  if (p && n && adoption) {
    temps[temp_count % kTemporaries] = {p, n};
    ++temp_count;
  }
  return p;
}

char* adopt_temporary(const char* p, std::uint32_t n) {
  if (!adoption) return nullptr;
  for (Temp& t : temps) {
    if (t.ptr == p && t.len == n && n) {
      t = {nullptr, 0};
      return const_cast<char*>(p);
    }
  }
  return nullptr;
}

void clear_temporaries() {
  // Most statements make no string at all: nothing to forget then.
  if (temp_count == 0) return;
  const std::uint64_t used = temp_count < kTemporaries ? temp_count : kTemporaries;
  for (std::uint64_t i = 0; i < used; ++i) temps[i] = {nullptr, 0};
  temp_count = 0;
}

void set_adoption(bool on) {
  adoption = on;
  if (!on) clear_temporaries();
}
bool adoption_on() { return adoption; }

bool compaction_requested() { return compact_pending; }
std::uint64_t bytes_since_compaction() { return since_compaction; }

void statement_boundary_work() {
  clear_temporaries();
  if (compact_pending) compact_strings();
}

void compact_strings() {
  if (arena.freetop == arena.himem || descriptor_count() == 0) {
    finish(arena.himem);
    return;
  }
  std::uint64_t count = 0;
  for_each_string([&](StringDesc* d) {
    if (live(d)) ++count;
  });
  if (count == 0) {
    finish(arena.himem);
    return;
  }
  auto** refs = compaction_scratch_fails ? nullptr
                                         : static_cast<StringDesc**>(std::malloc(sizeof(StringDesc*) * count));
  if (!refs) {
    compact_in_place();
    return;
  }
  std::uint64_t k = 0;
  for_each_string([&](StringDesc* d) {
    if (live(d)) refs[k++] = d;
  });
  auto by_address = [](const StringDesc* a, const StringDesc* b) { return addr(a->ptr) < addr(b->ptr); };
  std::make_heap(refs, refs + count, by_address);
  std::sort_heap(refs, refs + count, by_address);
  std::uint8_t* dest = arena.himem;
  for (std::uint64_t hi = count; hi > 0;) {
    // refs[lo..hi) share one address: an alias group moved as one string.
    std::uint64_t lo = hi - 1;
    std::uint32_t len = refs[lo]->length;
    while (lo > 0 && refs[lo - 1]->ptr == refs[hi - 1]->ptr) {
      --lo;
      len = std::max(len, refs[lo]->length);
    }
    dest -= len;
    // Strings already in place (below them nothing was freed) stay put.
    if (dest != reinterpret_cast<std::uint8_t*>(refs[hi - 1]->ptr)) {
      std::memmove(dest, refs[hi - 1]->ptr, len);
      for (std::uint64_t i = lo; i < hi; ++i) refs[i]->ptr = reinterpret_cast<char*>(dest);
    }
    hi = lo;
  }
  std::free(refs);
  finish(dest);
}

void strings_reset() {
  clear_temporaries();
  since_compaction = 0;
  compact_pending = false;
  live_after = 0;
}

}  // namespace values
