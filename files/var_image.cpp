// Encoding and decoding of variable images (STATEWRITE/STATELOAD, CHAIN).
#include "files/var_image.h"

#include <cstring>

#include "core/errors.h"
#include "values/arrays.h"
#include "values/store.h"
#include "values/strings.h"

namespace files {

namespace {

template <typename T>
void put(std::string* out, T v) {
  char b[sizeof(T)];
  std::memcpy(b, &v, sizeof v);
  out->append(b, sizeof b);
}

void put_slot(std::string* out, const std::uint8_t* slot, std::uint8_t type) {
  switch (type) {
    case values::kInteger: { std::int16_t v; std::memcpy(&v, slot, 2); put<std::int64_t>(out, v); break; }
    case values::kLong: { std::int32_t v; std::memcpy(&v, slot, 4); put<std::int64_t>(out, v); break; }
    case values::kInt64: { std::int64_t v; std::memcpy(&v, slot, 8); put(out, v); break; }
    case values::kSingle: { float v; std::memcpy(&v, slot, 4); put<double>(out, v); break; }
    case values::kDouble: { double v; std::memcpy(&v, slot, 8); put(out, v); break; }
    case values::kString: {
      values::StringDesc s;
      std::memcpy(&s, slot, sizeof s);
      put<std::uint32_t>(out, s.length);
      out->append(s.ptr, s.length);
      break;
    }
    default: out->append(reinterpret_cast<const char*>(slot), sizeof(values::Hyper)); break;
  }
}

struct Reader {
  const char* p;
  const char* e;
  bool ok = true;
  template <typename T>
  T get() {
    T v{};
    if (static_cast<std::size_t>(e - p) < sizeof v) {
      ok = false;
      return v;
    }
    std::memcpy(&v, p, sizeof v);
    p += sizeof v;
    return v;
  }
  const char* bytes(std::size_t n) {
    if (static_cast<std::size_t>(e - p) < n) {
      ok = false;
      return nullptr;
    }
    const char* r = p;
    p += n;
    return r;
  }
};

// One value from the image into a slot (or only checked when slot is null).
bool get_slot(Reader& r, std::uint8_t type, void* slot) {
  values::Value v;
  v.type = type;
  if (type == values::kString) {
    const std::uint32_t n = r.get<std::uint32_t>();
    const char* s = r.bytes(n);
    if (!r.ok) return false;
    v = values::Value::string(const_cast<char*>(s), n);
  } else if (type == values::kHyper) {
    const char* s = r.bytes(sizeof(values::Hyper));
    if (!r.ok) return false;
    std::memcpy(&v.h, s, sizeof v.h);
  } else if (values::is_integer_type(type)) {
    v.i = r.get<std::int64_t>();
  } else {
    v.d = r.get<double>();
  }
  if (!r.ok) return false;
  return !slot || values::store_value(slot, type, v);
}

std::uint8_t* elements(const values::Descriptor* d, int dims) {
  return static_cast<std::uint8_t*>(d->array_block()) + 8 + 8 * dims;
}

// Create a variable of exactly this type even when the default type table
// now gives its unsuffixed name another one.
values::Descriptor* create(const char* name, std::uint8_t type, bool array, const std::int64_t* upper, int dims) {
  const char letter = name[0];
  const bool retype = values::type_of_name(name) != type && letter >= 'A' && letter <= 'Z';
  const std::uint8_t old = retype ? values::default_type(letter) : 0;
  if (retype) values::set_default_type(letter, letter, type);
  values::Descriptor* d = nullptr;
  if (values::type_of_name(name) == type) {
    if (array) d = values::array_create(name, upper, dims, true);
    else d = values::find_descriptor(name, false, type) ? values::find_descriptor(name, false, type)
                                                        : values::create_descriptor(name, false);
  } else {
    core::raise("Type mismatch");
  }
  if (retype) values::set_default_type(letter, letter, old);
  return d;
}

}  // namespace

void encode_variable(const values::Descriptor& d, std::string* body) {
  const std::size_t n = std::strlen(d.name);
  put<std::uint8_t>(body, static_cast<std::uint8_t>(n));
  body->append(d.name, n);
  put<std::uint8_t>(body, d.type);
  put<std::uint8_t>(body, d.is_array() ? 1 : 0);
  if (!d.is_array()) {
    put_slot(body, d.value, d.type);
    return;
  }
  const int dims = d.array_block() ? values::array_dims(&d) : 0;
  put<std::uint8_t>(body, static_cast<std::uint8_t>(dims));
  if (dims == 0) return;  // erased: nothing to carry
  for (int k = 1; k <= dims; ++k) put<std::int64_t>(body, values::array_upper(&d, k));
  put<std::uint8_t>(body, static_cast<std::uint8_t>(values::option_base));
  const std::uint32_t w = values::slot_width(d.type);
  const std::uint8_t* e = elements(&d, dims);
  for (std::uint64_t i = 0, n2 = values::array_count(&d); i < n2; ++i) put_slot(body, e + i * w, d.type);
}

std::string encode_variables(bool (*keep)(const values::Descriptor&)) {
  std::string body;
  std::uint32_t count = 0;
  put<std::uint32_t>(&body, 0);
  const values::Descriptor* table = values::descriptor_table();
  for (std::uint32_t i = 0; i < values::descriptor_count(); ++i) {
    if (keep && !keep(table[i])) continue;
    encode_variable(table[i], &body);
    ++count;
  }
  std::memcpy(&body[0], &count, sizeof count);
  return body;
}

bool decode_variables(const std::string& image, bool apply, const char* damaged) {
  Reader r{image.data(), image.data() + image.size()};
  auto bad = [damaged]() {
    core::raise(damaged);
    return false;
  };
  const std::uint32_t count = r.get<std::uint32_t>();
  for (std::uint32_t i = 0; i < count && r.ok; ++i) {
    const std::uint8_t len = r.get<std::uint8_t>();
    const char* s = r.bytes(len);
    const std::uint8_t type = r.get<std::uint8_t>();
    const std::uint8_t array = r.get<std::uint8_t>();
    if (!r.ok || len == 0 || len > 39 || type < values::kInteger || type > values::kHyper || array > 1) return bad();
    char name[40] = {};
    std::memcpy(name, s, len);
    if (!array) {
      values::Descriptor* d = apply ? create(name, type, false, nullptr, 0) : nullptr;
      if (apply && !d) return false;
      if (!get_slot(r, type, d ? d->value : nullptr)) return r.ok ? false : bad();
      continue;
    }
    const int dims = r.get<std::uint8_t>();
    if (!r.ok || dims > values::kMaxDimensions) return bad();
    if (dims == 0) continue;
    std::int64_t upper[values::kMaxDimensions];
    for (int k = 0; k < dims; ++k) upper[k] = r.get<std::int64_t>();
    const int base = r.get<std::uint8_t>();
    if (!r.ok || base > 1) return bad();
    std::uint64_t n = 1;
    for (int k = 0; k < dims; ++k) {
      if (upper[k] < base || __builtin_mul_overflow(n, static_cast<std::uint64_t>(upper[k] - base) + 1, &n))
        return bad();
    }
    // Each element takes at least 4 bytes: a count beyond that is damage, not a request for memory.
    if (n > image.size()) return bad();
    values::Descriptor* d = nullptr;
    if (apply) {
      // Element addressing reads the bounds with the current OPTION BASE, so
      // the saved one comes back with the array.
      values::option_base = base;
      d = create(name, type, true, upper, dims);
      if (!d) return false;
    }
    const std::uint32_t w = values::slot_width(type);
    std::uint8_t* e = d ? elements(d, dims) : nullptr;
    for (std::uint64_t k = 0; k < n; ++k)
      if (!get_slot(r, type, e ? e + k * w : nullptr)) return r.ok ? false : bad();
  }
  if (!r.ok || r.p != r.e) return bad();
  return true;
}

}  // namespace files
