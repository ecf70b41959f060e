// The string heap: bump allocation downward from HIMEM, the ring of 64
// temporaries a statement produced, adoption of temporaries by assignment,
// and compaction at statement boundaries.
#pragma once
#include <cstdint>

namespace values {

constexpr std::uint64_t kCompactThreshold = 8388608;  // 8 MiB
constexpr int kTemporaries = 64;

// Allocate n bytes (n = 0 returns FREETOP and changes nothing). Raises
// "Out of string space" and returns nullptr when the gap is too small;
// no compaction is attempted inside an allocation.
char* string_alloc(std::uint32_t n);
// A new string the current statement made and no variable owns yet.
char* string_temp(std::uint32_t n);
// If (p, n) is a recorded temporary and adoption is on, take it over without
// a copy (the entry is dropped) and return p; else nullptr.
char* adopt_temporary(const char* p, std::uint32_t n);
// Start of every statement and direct command.
void clear_temporaries();
// Raw memory writes (POKE family) turn adoption off until the next clear.
void set_adoption(bool on);
bool adoption_on();

bool compaction_requested();
// Statement boundary: forget temporaries, then compact when requested. Most
// statements make no string, so the test is inline and the work out of line.
extern std::uint64_t temp_count;
extern bool compact_pending;
void statement_boundary_work();
inline void statement_boundary() {
  if (temp_count || compact_pending) statement_boundary_work();
}
// Compact now (tests; the boundary calls it when requested).
void compact_strings();
// Forces the in-place path (tests of the no-memory fallback).
extern bool compaction_scratch_fails;

void strings_reset();  // part of the clear of variables
std::uint64_t bytes_since_compaction();

}  // namespace values
