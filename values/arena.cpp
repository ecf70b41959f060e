// Data arena landmarks.
#include "values/arena.h"

namespace values {

Arena arena;

void arena_init(std::uint8_t* base, std::uint64_t bytes) {
  arena.lomem = base;
  arena.himem = base + bytes;
  arena.freebot = base + kDescriptorTableBytes;
  arena.freetop = arena.himem;
}

std::uint64_t arena_free_gap() { return static_cast<std::uint64_t>(arena.freetop - arena.freebot); }

}  // namespace values
