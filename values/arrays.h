// Array blocks in the block heap and element addressing.
//
// Array block: u64 dimension count (1..4) | i64 upper bound per dimension |
// elements, row-major (last subscript fastest), zeroed at creation. The lower
// bound of every dimension is the current OPTION BASE.
#pragma once
#include <cstdint>

#include "values/variables.h"

namespace values {

constexpr int kMaxDimensions = 4;

// Create (DIM) or replace (REDIM) the array `name` with the given upper bounds,
// all already converted and checked against OPTION BASE. Raises "Function name
// cannot be used as array name", "Duplicate definition", "Out of memory",
// "Too many variables".
Descriptor* array_create(const char* name, const std::int64_t* upper, int dims, bool redim);
// Check one bound as DIM does: below OPTION BASE is "Illegal dimension".
[[nodiscard]] bool check_bound(std::int64_t upper);
// ERASE: free the block, the array is no longer dimensioned. Missing arrays are ignored.
void array_erase(const char* name);
// The address of an element; raises "Array not dimensioned", "Wrong number of
// subscripts" or "Subscript out of range".
void* array_element(const Descriptor* d, const std::int64_t* subs, int n);
// The same, with the one-dimensional case in line.
[[gnu::always_inline]] inline void* element_address(const Descriptor* d, const std::int64_t* subs, int n) {
  const std::uint8_t* block = d ? static_cast<const std::uint8_t*>(d->array_block()) : nullptr;
  if (block && n == 1) {
    std::uint64_t dims;
    std::int64_t upper;
    __builtin_memcpy(&dims, block, 8);
    __builtin_memcpy(&upper, block + 8, 8);
    if (dims == 1 && subs[0] >= option_base && subs[0] <= upper)
      return const_cast<std::uint8_t*>(block) + 16 +
             static_cast<std::uint64_t>(subs[0] - option_base) * slot_width(d->type);
  }
  return array_element(d, subs, n);
}
int array_dims(const Descriptor* d);
std::int64_t array_upper(const Descriptor* d, int dim);  // dim 1-based
std::uint64_t array_count(const Descriptor* d);

}  // namespace values
