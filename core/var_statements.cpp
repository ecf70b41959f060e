// Statements on variables and memory: DIM, REDIM, ERASE, OPTION, DEFxxx,
// COMMON, SWAP, RANDOMIZE, POKE, DCLVAL, SETVAR.
#include <cstring>
#include <ctime>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/statements.h"
#include "host/sysinfo.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/eval.h"
#include "values/memory.h"
#include "values/rnd.h"
#include "values/store.h"
#include "values/variables.h"

namespace core {

namespace {

using values::Value;

bool fail(const char* m) {
  raise(m);
  return false;
}

// "(" bound, ... ")" as DIM takes them: rounded, checked against OPTION BASE,
// a fifth bound evaluated and checked before "Too many dimensions".
bool parse_bounds(const Token*& t, std::int64_t* upper, int* dims) {
  if (!values::expect(t, '(', "Expected (")) return false;
  *dims = 0;
  for (;;) {
    Value v;
    if (!values::eval(t, &v)) return false;
    if (v.type == values::kString || v.type == values::kHyper) return fail("Type mismatch");
    std::int64_t b;
    if (!values::value_to_int64(v, &b) || !values::check_bound(b)) return false;
    if (*dims == values::kMaxDimensions) return fail("Too many dimensions");
    upper[(*dims)++] = b;
    if (t->kind != ',') break;
    ++t;
  }
  return values::expect(t, ')', "Expected )");
}

void dim_or_redim(const Token*& t, bool redim) {
  ++t;
  for (;;) {
    if (t->kind != kTokIdent) {
      raise("Expected name");
      return;
    }
    const Token* name = t++;
    if (values::is_function_name(name->name())) {
      raise("Function name cannot be used as array name");
      return;
    }
    if (!redim) {
      const values::Descriptor* d = values::find_descriptor(name->name(), true, values::type_of_name(name->name()));
      if (d && d->array_block()) {
        raise("Duplicate definition");
        return;
      }
    }
    std::int64_t upper[values::kMaxDimensions];
    int dims;
    if (!parse_bounds(t, upper, &dims)) return;
    if (!values::array_create(name->name(), upper, dims, redim)) return;
    if (t->kind != ',') return;
    ++t;
  }
}

void def_letters(const Token*& t, std::uint8_t type) {
  ++t;
  for (;;) {
    auto letter = [](const Token* k) -> char {
      if (k->kind != kTokIdent || k->name()[1] != 0) return 0;
      return k->name()[0] >= 'A' && k->name()[0] <= 'Z' ? k->name()[0] : 0;
    };
    const char first = letter(t);
    if (!first) {
      raise("Expected letter");
      return;
    }
    ++t;
    char last = first;
    if (t->kind == '-') {
      ++t;
      last = letter(t);
      if (!last || last < first) {
        raise("Illegal function call");
        return;
      }
      ++t;
    }
    values::set_default_type(first, last, type);
    if (t->kind != ',') return;
    ++t;
  }
}

}  // namespace

void stmt_dim(const Token*& t) { dim_or_redim(t, false); }
void stmt_redim(const Token*& t) { dim_or_redim(t, true); }

void stmt_erase(const Token*& t) {
  ++t;
  for (;;) {
    if (t->kind != kTokIdent) {
      raise("Expected array");
      return;
    }
    values::array_erase(t->name());
    ++t;
    if (t->kind == '(' && t[1].kind == ')') t += 2;
    if (t->kind != ',') return;
    ++t;
  }
}

void stmt_option(const Token*& t) {
  ++t;
  if (t->kind == KW_BASE) {
    ++t;
    std::int64_t n;
    if (!values::eval_int64(t, &n)) return;
    if (n != 0 && n != 1) {
      raise("Illegal function call");
      return;
    }
    // The lower bound is not stored in array blocks, so it cannot change
    // under arrays that already exist.
    if (values::array_dimensioned && n != values::option_base) {
      raise("Duplicate definition");
      return;
    }
    values::option_base = static_cast<int>(n);
    return;
  }
  if (t->kind == kTokIdent && !std::strcmp(t->name(), "ERRORPRINT")) {
    ++t;
    std::int64_t n;
    if (!values::eval_int64(t, &n)) return;
    if (n != 0 && n != 1) {
      raise("Illegal function call");
      return;
    }
    err.print_switch = static_cast<std::uint8_t>(n);
    return;
  }
  if (t->kind == kTokIdent && !std::strcmp(t->name(), "PARTHREADS")) {
    ++t;
    std::int64_t n;
    if (!values::eval_int64(t, &n)) return;
    if (n < 0 || n > 32) {
      raise("Illegal function call");
      return;
    }
    host::parfor_cap = static_cast<int>(n);
    return;
  }
  raise("Syntax error");
}

void stmt_defint(const Token*& t) { def_letters(t, values::kInteger); }
void stmt_deflng(const Token*& t) { def_letters(t, values::kLong); }
void stmt_defi64(const Token*& t) { def_letters(t, values::kInt64); }
void stmt_defsng(const Token*& t) { def_letters(t, values::kSingle); }
void stmt_defdbl(const Token*& t) { def_letters(t, values::kDouble); }
void stmt_defstr(const Token*& t) { def_letters(t, values::kString); }

void stmt_common(const Token*& t) {
  ++t;
  for (;;) {
    if (t->kind != kTokIdent) {
      raise("Expected variable");
      return;
    }
    const char* name = t->name();
    ++t;
    bool array = false;
    if (t->kind == '(') {
      if (t[1].kind != ')') {
        raise("Syntax Error");
        return;
      }
      t += 2;
      array = true;
    }
    if (!values::common_add(name, array)) return;
    if (t->kind != ',') return;
    ++t;
  }
}

void stmt_swap(const Token*& t) {
  ++t;
  values::LValue a, b;
  if (!values::parse_lvalue(t, &a)) return;
  if (!values::expect(t, ',', "Expected ,")) return;
  if (!values::parse_lvalue(t, &b)) return;
  if (a.type != b.type || a.component >= 0 || b.component >= 0) {
    raise("Type mismatch");
    return;
  }
  // Slots of one type swap byte for byte: strings keep their heap bytes.
  std::uint8_t tmp[72];
  const std::uint32_t w = values::slot_width(a.type);
  std::memcpy(tmp, a.slot, w);
  std::memcpy(a.slot, b.slot, w);
  std::memcpy(b.slot, tmp, w);
}

void stmt_randomize(const Token*& t) {
  ++t;
  if (at_statement_end(t)) {
    const std::time_t now = std::time(nullptr);
    const std::tm* tm = std::localtime(&now);
    values::randomize_clock(tm->tm_hour, tm->tm_min, tm->tm_sec);
    return;
  }
  std::int64_t n;
  if (!values::eval_int64(t, &n)) return;
  values::randomize_value(n);
}

namespace {
void poke_n(const Token*& t, int width) {
  ++t;
  Value a, v;
  std::int64_t address, value;
  if (!values::eval(t, &a) || !values::expect(t, ',', "Expected ,") || !values::eval(t, &v)) return;
  if (a.type == values::kString || a.type == values::kHyper || v.type == values::kString || v.type == values::kHyper) {
    raise("Type mismatch");
    return;
  }
  if (!values::value_to_int64(a, &address) || !values::value_to_int64(v, &value)) return;
  if (width < 8) {
    // A value must fit the width, as an unsigned or a signed number.
    const std::int64_t lo = -(std::int64_t{1} << (8 * width - 1)), hi = (std::int64_t{1} << (8 * width)) - 1;
    if (width == 1 ? (value < 0 || value > 255) : (value < lo || value > hi)) {
      raise("Illegal function call");
      return;
    }
  }
  (void)values::poke(static_cast<std::uint64_t>(address), width, static_cast<std::uint64_t>(value));
}
}  // namespace

void stmt_poke(const Token*& t) { poke_n(t, 1); }
void stmt_poke16(const Token*& t) { poke_n(t, 2); }
void stmt_poke32(const Token*& t) { poke_n(t, 4); }
void stmt_poke64(const Token*& t) { poke_n(t, 8); }

namespace {
// A variable named by a string at run time (DCLVAL, SETVAR): a string that
// passes the identifier rules and is not a pseudo-variable.
bool runtime_name(const Value& name, char id[40]) {
  if (name.type != values::kString) return fail("Type mismatch");
  if (!values::check_identifier(name.s.ptr, name.s.len, id)) return false;
  if (values::is_read_only_name(id)) return fail("Read-only or runtime name");
  return true;
}
}  // namespace

// DCLVAL name$[,bounds...]: a scalar or an array by a run-time name.
void stmt_dclval(const Token*& t) {
  ++t;
  Value name;
  if (!values::eval(t, &name)) return;
  char id[40];
  if (!runtime_name(name, id)) return;
  Value bounds[values::kMaxDimensions + 1];
  int n = 0;
  while (t->kind == ',') {
    ++t;
    if (n == values::kMaxDimensions) {
      raise("Too many dimensions");
      return;
    }
    if (!values::eval(t, &bounds[n++])) return;
  }
  if (!at_statement_end(t)) {
    raise("Syntax Error");
    return;
  }
  const bool array = n > 0;
  if (array && values::is_function_name(id)) {
    raise("Function name cannot be used as array name");
    return;
  }
  if (values::find_descriptor(id, array, values::type_of_name(id))) {
    raise("Duplicate definition");
    return;
  }
  if (values::descriptor_count() >= values::kMaxDescriptors) {
    raise("Too many variables");
    return;
  }
  if (!array) {
    (void)values::create_descriptor(id, false);
    return;
  }
  std::int64_t upper[values::kMaxDimensions];
  for (int i = 0; i < n; ++i) {
    if (bounds[i].type == values::kString || bounds[i].type == values::kHyper) {
      raise("Type mismatch");
      return;
    }
    if (!values::value_to_int64(bounds[i], &upper[i]) || !values::check_bound(upper[i])) return;
  }
  if (values::array_create(id, upper, n, false)) values::bump_table_generation();
}

// SETVAR value, name$[, indices...]: the name is only a name, never evaluated.
void stmt_setvar(const Token*& t) {
  ++t;
  Value v, name;
  if (!values::eval(t, &v) || !values::expect(t, ',', "Expected ,") || !values::eval(t, &name)) return;
  char id[40];
  if (!runtime_name(name, id)) return;
  std::int64_t subs[values::kMaxDimensions + 1];
  int n = 0;
  while (t->kind == ',') {
    ++t;
    std::int64_t s;
    if (!values::eval_int64(t, &s)) return;
    if (n < values::kMaxDimensions + 1) subs[n++] = s;
  }
  const std::uint8_t type = values::type_of_name(id);
  if (n > 0) {
    const values::Descriptor* d = values::find_descriptor(id, true, type);
    void* slot = values::array_element(d, subs, n);
    if (slot) (void)values::store_value(slot, type, v);
    return;
  }
  values::Descriptor* d = values::scalar_descriptor(id);
  if (d) (void)values::store_value(d->value, d->type, v);
}

}  // namespace core

namespace core {

namespace {

// The string slot of a plain string variable or element (no components).
bool string_target(const Token*& t, values::StringDesc** desc) {
  values::LValue lv;
  if (!values::parse_lvalue(t, &lv)) return false;
  if (lv.type != values::kString || lv.component >= 0) {
    raise("Type mismatch");
    return false;
  }
  *desc = static_cast<values::StringDesc*>(lv.slot);
  return true;
}

bool string_value(const Token*& t, values::Value* v) {
  if (!values::eval(t, v)) return false;
  if (v->type != values::kString) {
    raise("Type mismatch");
    return false;
  }
  return true;
}

// LSET/RSET write into the variable's own bytes: its length never changes
// (which is what FIELD buffers rely on).
void justify(const Token*& t, bool left) {
  ++t;
  values::StringDesc* d;
  if (!string_target(t, &d) || !values::expect(t, '=', "Syntax error")) return;
  values::Value v;
  if (!string_value(t, &v)) return;
  if (d->length == 0) return;
  // A string never assigned has no bytes at all (a null pointer): it copies as empty.
  const std::uint32_t n = v.s.len < d->length ? v.s.len : d->length;
  char tmp[65536];
  char* buf = d->length <= sizeof tmp ? tmp : nullptr;
  if (!buf) {
    // Long strings: move in place (the source may overlap the target).
    if (left) {
      if (n) std::memmove(d->ptr, v.s.ptr, n);
      std::memset(d->ptr + n, ' ', d->length - n);
    } else {
      if (n) std::memmove(d->ptr + d->length - n, v.s.ptr, n);
      std::memset(d->ptr, ' ', d->length - n);
    }
    return;
  }
  std::memset(buf, ' ', d->length);
  if (n) std::memcpy(left ? buf : buf + d->length - n, v.s.ptr, n);
  std::memcpy(d->ptr, buf, d->length);
}

}  // namespace

void stmt_lset(const Token*& t) { justify(t, true); }
void stmt_rset(const Token*& t) { justify(t, false); }

// MID$(a$, start[, len]) = b$: overwrite bytes of a$ in place, never past its end.
void stmt_mid(const Token*& t) {
  t += 2;  // MID$ (
  values::StringDesc* d;
  if (!string_target(t, &d) || !values::expect(t, ',', "Expected ,")) return;
  std::int64_t start, len = INT64_MAX;
  if (!values::eval_int64(t, &start)) return;
  if (t->kind == ',') {
    ++t;
    if (!values::eval_int64(t, &len)) return;
  }
  if (!values::expect(t, ')', "Expected )") || !values::expect(t, '=', "Syntax error")) return;
  values::Value v;
  if (!string_value(t, &v)) return;
  if (start < 1 || len < 0 || static_cast<std::uint64_t>(start) > d->length) {
    raise("Illegal function call");
    return;
  }
  std::uint64_t n = d->length - static_cast<std::uint64_t>(start) + 1;
  if (static_cast<std::uint64_t>(len) < n) n = static_cast<std::uint64_t>(len);
  if (v.s.len < n) n = v.s.len;
  if (n) std::memmove(d->ptr + start - 1, v.s.ptr, n);
}

}  // namespace core
