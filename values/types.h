// Type codes, slot layouts and the value record the evaluator produces.
//
// String descriptor (STRING slot, 16 bytes):   Hypercomplex record (HYPER slot, 72 bytes):
//   +0 u32 length                                +0  u64 kind (2, 4 or 8)
//   +4 u32 always 0                              +8  f64 c[8]
//   +8 u64 pointer into the string heap
#pragma once
#include <cstddef>
#include <cstdint>

namespace values {

enum Type : std::uint8_t {
  kNoType = 0,
  kInteger = 1,
  kLong = 2,
  kInt64 = 3,
  kSingle = 4,
  kDouble = 5,
  kString = 6,
  kHyper = 7,
};

// Printed names ("" for an unknown code) and slot widths in bytes.
const char* type_name(std::uint8_t type);
inline std::uint32_t slot_width(std::uint8_t type) {
  constexpr std::uint32_t kWidths[8] = {0, 2, 4, 8, 4, 8, 16, 72};
  return type < 8 ? kWidths[type] : 0;
}
inline bool is_integer_type(std::uint8_t t) { return t >= kInteger && t <= kInt64; }
inline bool is_numeric_type(std::uint8_t t) { return t >= kInteger && t <= kDouble; }

struct StringDesc {
  std::uint32_t length;
  std::uint32_t zero;
  char* ptr;
};
static_assert(sizeof(StringDesc) == 16, "string descriptors are 16 bytes");

struct Hyper {
  std::uint64_t kind;
  double c[8];
};
static_assert(sizeof(Hyper) == 72, "hypercomplex records are 72 bytes");

// What the evaluator produces and the store rule consumes. INTEGER and LONG
// travel widened to 64 bits; SINGLE travels as binary64 and is rounded only
// when stored.
struct Value {
  std::uint8_t type = kNoType;
  union {
    std::int64_t i;
    double d;
    struct {
      char* ptr;
      std::uint32_t len;
    } s;
    Hyper h;
  };
  // The payload is left as it is: values are made and dropped for every
  // operand, and only the part the type names is ever read.
  constexpr Value() {}
  static Value integer(std::int64_t v, std::uint8_t t = kInteger) { Value r; r.type = t; r.i = v; return r; }
  static Value floating(double v, std::uint8_t t = kDouble) { Value r; r.type = t; r.d = v; return r; }
  static Value string(char* p, std::uint32_t n) { Value r; r.type = kString; r.s.ptr = p; r.s.len = n; return r; }
};

// Results written in place: only the fields the type uses, never a whole
// 80-byte record copy (the evaluator's hottest stores).
inline void set_int(Value* v, std::int64_t x, std::uint8_t t = kInteger) {
  v->type = t;
  v->i = x;
}
inline void set_float(Value* v, double x, std::uint8_t t = kDouble) {
  v->type = t;
  v->d = x;
}

}  // namespace values
