// Checked PEEK/POKE.
#include "values/memory.h"

#include "core/errors.h"
#include "host/platform.h"
#include "values/strings.h"

namespace values {

bool peek(std::uint64_t address, int width, std::int64_t* out) {
  std::uint8_t b[8] = {};
  if (!host::checked_read(address, b, static_cast<std::size_t>(width))) {
    core::raise("Invalid memory address");
    return false;
  }
  std::uint64_t v = 0;
  for (int i = width - 1; i >= 0; --i) v = (v << 8) | b[i];
  *out = static_cast<std::int64_t>(v);
  return true;
}

bool poke(std::uint64_t address, int width, std::uint64_t value) {
  set_adoption(false);
  std::uint8_t b[8];
  for (int i = 0; i < width; ++i) b[i] = static_cast<std::uint8_t>(value >> (8 * i));
  if (!host::checked_write(address, b, static_cast<std::size_t>(width))) {
    core::raise("Invalid memory address");
    return false;
  }
  if (poke_watch) poke_watch(address, width);
  return true;
}

void (*poke_watch)(std::uint64_t address, int width) = nullptr;

}  // namespace values
