// The store rule: the one routine that writes a value into a typed slot,
// used by every assignment, READ, INPUT, SWAP and array store.
#pragma once
#include <cstdint>

#include "values/types.h"

namespace values {

// Store v into the slot of type t at `slot`. Raises "Type mismatch" or
// "Overflow" and leaves the slot unchanged on failure; returns false then.
[[nodiscard]] bool store_value(void* slot, std::uint8_t t, const Value& v);
// The store rule when v already has the slot's numeric type, in line: false
// (nothing written) when store_value must decide.
[[gnu::always_inline]] inline bool store_same_type(void* slot, std::uint8_t t, const Value& v) {
  if (v.type != t) return false;
  switch (t) {
    case kDouble: __builtin_memcpy(slot, &v.d, 8); return true;
    case kSingle: {
      const float f = static_cast<float>(v.d);
      if (f - f != 0) return false;  // the store rule raises "Overflow"
      __builtin_memcpy(slot, &f, 4);
      return true;
    }
    case kInteger: {
      if (v.i < -32768 || v.i > 32767) return false;
      const std::int16_t s = static_cast<std::int16_t>(v.i);
      __builtin_memcpy(slot, &s, 2);
      return true;
    }
    case kLong: {
      if (v.i < -2147483648LL || v.i > 2147483647LL) return false;
      const std::int32_t s = static_cast<std::int32_t>(v.i);
      __builtin_memcpy(slot, &s, 4);
      return true;
    }
    case kInt64: __builtin_memcpy(slot, &v.i, 8); return true;
    default: return false;
  }
}
// Read a slot back as a value record (strings point at their heap bytes).
Value load_value(const void* slot, std::uint8_t t);
// The same into an existing record, writing only the fields its type uses
// (the evaluator's hot path: no whole-record copy).
void load_into(const void* slot, std::uint8_t t, Value* v);

// Floating value to a 64-bit integer, halves away from zero; "Overflow" for
// NaN and values outside the 64-bit range.
[[nodiscard]] bool float_to_int64(double d, std::int64_t* out);
// Any numeric value to a 64-bit integer (integers as they are).
[[nodiscard]] bool value_to_int64(const Value& v, std::int64_t* out);
// Any numeric value as binary64; strings and @ values are "Type mismatch".
[[nodiscard]] bool value_to_double(const Value& v, double* out);
// SGN: -1, 0 or 1; NaN is "Illegal function call".
[[nodiscard]] bool value_sign(const Value& v, int* out);

}  // namespace values
