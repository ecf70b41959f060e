// The numeric literal scanner: program text, INPUT, READ and VAL all read
// numbers through it, so a number means the same everywhere.
#pragma once
#include <cstdint>

namespace core {

enum : std::uint8_t { kTypeInteger = 1, kTypeLong = 2, kTypeInt64 = 3, kTypeSingle = 4, kTypeDouble = 5 };

struct NumberLiteral {
  std::uint8_t type = 0;
  std::int64_t i = 0;  // types 1..3
  double d = 0;        // types 4..5 (SINGLE already rounded to binary32)
  double nearest = 0;  // decimal numbers: the binary64 nearest to the text, whatever the type
};

// Scan the number at p: a digit, "." followed by a digit, or &H/&O. Returns
// the position behind it (suffix included), or nullptr after raising
// "Overflow" or "Type mismatch".
const char* scan_number(const char* p, NumberLiteral* out);

}  // namespace core
