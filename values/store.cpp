// Store rule and numeric conversions.
#include "values/store.h"

#include <cstring>

#include "core/errors.h"
#include "values/strings.h"

namespace values {

namespace {
const char* const kTypeNames[8] = {"", "INTEGER", "LONG", "INT64", "SINGLE", "DOUBLE", "STRING", "HYPER"};
}  // namespace

const char* type_name(std::uint8_t type) { return type < 8 ? kTypeNames[type] : ""; }

bool float_to_int64(double d, std::int64_t* out) {
  // 2^63 exactly is the first value that does not fit; NaN fails both tests.
  if (!(d < 9223372036854775808.0) || !(d >= -9223372036854775808.0)) {
    core::raise("Overflow");
    return false;
  }
  std::int64_t t = static_cast<std::int64_t>(d);  // truncation toward zero
  const double frac = d - static_cast<double>(t);
  if (frac >= 0.5) ++t;
  else if (frac <= -0.5) --t;
  *out = t;
  return true;
}

bool value_to_int64(const Value& v, std::int64_t* out) {
  if (is_integer_type(v.type)) {
    *out = v.i;
    return true;
  }
  if (v.type == kSingle || v.type == kDouble) return float_to_int64(v.d, out);
  core::raise("Type mismatch");
  return false;
}

bool value_to_double(const Value& v, double* out) {
  if (is_integer_type(v.type)) {
    *out = static_cast<double>(v.i);
    return true;
  }
  if (v.type == kSingle || v.type == kDouble) {
    *out = v.d;
    return true;
  }
  core::raise("Type mismatch");
  return false;
}

bool value_sign(const Value& v, int* out) {
  if (is_integer_type(v.type)) {
    *out = v.i > 0 ? 1 : v.i < 0 ? -1 : 0;
    return true;
  }
  if (v.type == kSingle || v.type == kDouble) {
    if (v.d != v.d) {
      core::raise("Illegal function call");
      return false;
    }
    *out = v.d > 0 ? 1 : v.d < 0 ? -1 : 0;
    return true;
  }
  core::raise("Type mismatch");
  return false;
}

bool store_value(void* slot, std::uint8_t t, const Value& v) {
  if (t == kString) {
    if (v.type != kString) {
      core::raise("Type mismatch");
      return false;
    }
    StringDesc d{v.s.len, 0, nullptr};
    if (v.s.len != 0) {
      d.ptr = adopt_temporary(v.s.ptr, v.s.len);
      if (!d.ptr) {
        d.ptr = string_alloc(v.s.len);
        if (!d.ptr) return false;
        std::memmove(d.ptr, v.s.ptr, v.s.len);
      }
    }
    std::memcpy(slot, &d, sizeof d);
    return true;
  }
  if (t == kHyper) {
    Hyper h{};
    if (v.type == kHyper) {
      h = v.h;
      if (h.kind != 4 && h.kind != 8) h.kind = 2;
    } else if (is_numeric_type(v.type)) {
      h.kind = 2;
      h.c[0] = is_integer_type(v.type) ? static_cast<double>(v.i) : v.d;
    } else {
      core::raise("Type mismatch");
      return false;
    }
    std::memcpy(slot, &h, sizeof h);
    return true;
  }
  if (!is_numeric_type(v.type)) {
    core::raise("Type mismatch");
    return false;
  }
  switch (t) {
    case kInteger:
    case kLong:
    case kInt64: {
      std::int64_t n;
      if (!value_to_int64(v, &n)) return false;
      if (t == kInteger) {
        if (n < -32768 || n > 32767) {
          core::raise("Overflow");
          return false;
        }
        const std::int16_t s = static_cast<std::int16_t>(n);
        std::memcpy(slot, &s, 2);
      } else if (t == kLong) {
        if (n < -2147483648LL || n > 2147483647LL) {
          core::raise("Overflow");
          return false;
        }
        const std::int32_t s = static_cast<std::int32_t>(n);
        std::memcpy(slot, &s, 4);
      } else {
        std::memcpy(slot, &n, 8);
      }
      return true;
    }
    case kSingle: {
      double d;
      (void)value_to_double(v, &d);
      const float f = static_cast<float>(d);
      if (f - f != 0) {  // infinite or NaN
        core::raise("Overflow");
        return false;
      }
      std::memcpy(slot, &f, 4);
      return true;
    }
    case kDouble: {
      double d;
      (void)value_to_double(v, &d);
      std::memcpy(slot, &d, 8);
      return true;
    }
    default:
      core::raise("Type mismatch");
      return false;
  }
}

Value load_value(const void* slot, std::uint8_t t) {
  Value v;
  load_into(slot, t, &v);
  return v;
}

void load_into(const void* slot, std::uint8_t t, Value* out) {
  Value& v = *out;
  v.type = t;
  switch (t) {
    case kInteger: { std::int16_t s; std::memcpy(&s, slot, 2); v.i = s; break; }
    case kLong: { std::int32_t s; std::memcpy(&s, slot, 4); v.i = s; break; }
    case kInt64: std::memcpy(&v.i, slot, 8); break;
    case kSingle: { float f; std::memcpy(&f, slot, 4); v.d = f; break; }
    case kDouble: std::memcpy(&v.d, slot, 8); break;
    case kString: {
      StringDesc d;
      std::memcpy(&d, slot, sizeof d);
      v.s.ptr = d.ptr;
      v.s.len = d.length;
      break;
    }
    case kHyper: std::memcpy(&v.h, slot, sizeof(Hyper)); break;
    default: v.type = kNoType; break;
  }
}

}  // namespace values
