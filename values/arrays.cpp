// DIM/REDIM/ERASE and element addressing.
#include "values/arrays.h"

#include <cstring>

#include "core/errors.h"
#include "values/arena.h"

namespace values {

namespace {
bool fail(const char* m) {
  core::raise(m);
  return false;
}
std::uint64_t dims_of(const void* block) {
  std::uint64_t n;
  std::memcpy(&n, block, 8);
  return n;
}
std::int64_t upper_of(const void* block, std::uint64_t k) {
  std::int64_t u;
  std::memcpy(&u, static_cast<const std::uint8_t*>(block) + 8 + 8 * k, 8);
  return u;
}
}  // namespace

bool check_bound(std::int64_t upper) {
  if (upper < option_base) return fail("Illegal dimension");
  return true;
}

Descriptor* array_create(const char* name, const std::int64_t* upper, int dims, bool redim) {
  if (is_function_name(name)) {
    fail("Function name cannot be used as array name");
    return nullptr;
  }
  const std::uint8_t type = type_of_name(name);
  Descriptor* existing = find_descriptor(name, true, type);
  if (existing && !redim && existing->array_block()) {
    fail("Duplicate definition");
    return nullptr;
  }
  const std::uint64_t width = slot_width(type);
  std::uint64_t count = 1;
  for (int k = 0; k < dims; ++k) {
    const std::uint64_t extent = static_cast<std::uint64_t>(upper[k] - option_base) + 1;
    if (__builtin_mul_overflow(count, extent, &count)) {
      fail("Out of memory");
      return nullptr;
    }
  }
  std::uint64_t bytes;
  if (__builtin_mul_overflow(count, width, &bytes) || __builtin_add_overflow(bytes, 8 + 8 * dims, &bytes)) {
    fail("Out of memory");
    return nullptr;
  }
  if (existing && existing->array_block()) {
    heap_free(existing->array_block());
    existing->set_array_block(nullptr);
  }
  if (!existing && descriptor_count() >= kMaxDescriptors) {
    fail("Too many variables");
    return nullptr;
  }
  auto* block = static_cast<std::uint8_t*>(heap_alloc(bytes));
  if (!block) {
    fail("Out of memory");
    return nullptr;
  }
  Descriptor* d = existing ? existing : create_descriptor(name, true);
  if (!d) {
    heap_free(block);
    return nullptr;
  }
  const std::uint64_t n = static_cast<std::uint64_t>(dims);
  std::memcpy(block, &n, 8);
  std::memcpy(block + 8, upper, 8 * n);
  std::memset(block + 8 + 8 * n, 0, bytes - 8 - 8 * n);
  d->set_array_block(block);
  array_dimensioned = true;
  return d;
}

void array_erase(const char* name) {
  Descriptor* d = find_descriptor(name, true, type_of_name(name));
  if (!d || !d->array_block()) return;
  heap_free(d->array_block());
  d->set_array_block(nullptr);
}

void* array_element(const Descriptor* d, const std::int64_t* subs, int n) {
  const void* block = d ? d->array_block() : nullptr;
  if (!block) {
    fail("Array not dimensioned");
    return nullptr;
  }
  const std::uint64_t dims = dims_of(block);
  if (static_cast<std::uint64_t>(n) != dims) {
    fail("Wrong number of subscripts");
    return nullptr;
  }
  std::uint64_t e = 0;
  for (std::uint64_t k = 0; k < dims; ++k) {
    const std::int64_t upper = upper_of(block, k);
    if (subs[k] < option_base || subs[k] > upper) {
      fail("Subscript out of range");
      return nullptr;
    }
    const std::uint64_t extent = static_cast<std::uint64_t>(upper - option_base) + 1;
    if (__builtin_mul_overflow(e, extent, &e) ||
        __builtin_add_overflow(e, static_cast<std::uint64_t>(subs[k] - option_base), &e)) {
      fail("Subscript out of range");
      return nullptr;
    }
  }
  std::uint64_t offset;
  if (__builtin_mul_overflow(e, static_cast<std::uint64_t>(slot_width(d->type)), &offset) ||
      __builtin_add_overflow(offset, 8 + 8 * dims, &offset)) {
    fail("Subscript out of range");
    return nullptr;
  }
  return const_cast<std::uint8_t*>(static_cast<const std::uint8_t*>(block)) + offset;
}

int array_dims(const Descriptor* d) { return d && d->array_block() ? static_cast<int>(dims_of(d->array_block())) : 0; }

std::int64_t array_upper(const Descriptor* d, int dim) { return upper_of(d->array_block(), static_cast<std::uint64_t>(dim - 1)); }

std::uint64_t array_count(const Descriptor* d) {
  const void* b = d->array_block();
  std::uint64_t c = 1;
  for (std::uint64_t k = 0; k < dims_of(b); ++k) c *= static_cast<std::uint64_t>(upper_of(b, k) - option_base) + 1;
  return c;
}

}  // namespace values
