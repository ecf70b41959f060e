// The descriptor table: every scalar and array, in creation order, at the
// start of the data arena. Lookup is a linear scan; speed comes from the
// per-site caches keyed by the variable-table generation.
#pragma once
#include <cstddef>
#include <cstdint>

#include "values/types.h"

namespace values {

struct Descriptor {
  char name[40];          // upper case with suffix, NUL-terminated, zero padded
  std::uint8_t type;
  std::uint8_t flags;     // bit 0: array
  std::uint8_t pad[6];
  std::uint8_t value[72]; // scalar slot, or the array block pointer in the first 8 bytes
  bool is_array() const { return flags & 1; }
  void* array_block() const {
    void* p;
    __builtin_memcpy(&p, value, sizeof p);
    return p;
  }
  void set_array_block(void* p) { __builtin_memcpy(value, &p, sizeof p); }
};
static_assert(sizeof(Descriptor) == 120, "descriptor records are 120 bytes");

Descriptor* descriptor_table();
std::uint32_t descriptor_count();

// Type code of a name: its suffix, else the default type table by first letter.
std::uint8_t type_of_name(const char* name);
// Length of the base name (the name less one suffix, or two for "&&").
std::size_t base_length(const char* name);
// The run-time identifier check (DCLVAL, GETVAR, SETVAR): raises one of
// "Invalid variable name", "Identifier too long (37 characters maximum)",
// "Keyword cannot be a variable name". On success writes the upper-cased
// name (at most 39 bytes + NUL) to out.
[[nodiscard]] bool check_identifier(const char* text, std::size_t length, char out[40]);
bool is_read_only_name(const char* name);      // the 24 pseudo-variables, exactly as written
bool is_function_name(const char* name);       // by base name: cannot be an array
// The built-in function names and the read-only names, by index; nullptr past the end.
const char* function_name(int index);
const char* read_only_name(int index);

Descriptor* find_descriptor(const char* name, bool array, std::uint8_t type);
// Appends a zeroed descriptor; "Illegal function call" for ERROR$, "Too many variables" when full.
Descriptor* create_descriptor(const char* name, bool array);
// Find, or create when absent (scalars need no declaration).
Descriptor* scalar_descriptor(const char* name);

// A statement site's cache of the descriptor it assigns.
struct ScalarCache {
  Descriptor* d = nullptr;
  std::uint32_t generation = 0;
};
// The cached scalar store; STRING targets are "Type mismatch" on this path.
[[nodiscard]] bool cached_store(ScalarCache* cache, const char* name, const Value& v);

// DEFINT/DEFLNG/DEFI64/DEFSNG/DEFDBL/DEFSTR: set letters first..last to type.
void set_default_type(char first, char last, std::uint8_t type);
std::uint8_t default_type(char letter);

// COMMON's list (CHAIN carries these variables over).
struct CommonEntry {
  char name[40];
  std::uint8_t type;
  bool array;
};
constexpr int kMaxCommon = 512;
[[nodiscard]] bool common_add(const char* name, bool array);
int common_count();
const CommonEntry& common_entry(int i);

// OPTION BASE (0 or 1) and whether an array was dimensioned since the clear.
extern int option_base;
extern bool array_dimensioned;

// Read on every cached variable access, so they are inline.
namespace detail {
extern std::uint32_t table_gen, type_gen;
}
inline std::uint32_t table_generation() { return detail::table_gen; }
inline std::uint32_t type_generation() { return detail::type_gen; }
void bump_table_generation();

// The clear of variables done by RUN, CLEAR and NEW.
void clear_variables();

}  // namespace values
