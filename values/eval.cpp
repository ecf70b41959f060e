// Recursive descent over the 14 precedence levels, variables and lvalues.
//
//   1 IMP  2 EQV  3 XOR  4 OR  5 AND  6 NOT (prefix)  7 = <> < <= > >=
//   8 + -  9 MOD  10 \  11 * /  12 prefix -  13 ^  14 primaries (. component)
//
// Every binary level is left-associative.
//
// Identifiers are resolved once per token and the answer is kept in the
// token's evaluator cache: slot 0 holds {index | type generation << 32, what},
// slot 1 a descriptor pointer with the variable-table generation it was found
// under. Slot 2 of a statement's first token belongs to compiled execution.
#include "values/eval.h"

#include <cstring>

#include "core/errors.h"
#include "core/keywords.h"
#include "values/arrays.h"
#include "values/builtins.h"
#include "values/eval_detail.h"
#include "values/hyper.h"
#include "values/ops.h"
#include "values/store.h"
#include "values/strings.h"

namespace values {

UserFunctionHook user_function = nullptr;

namespace detail {

bool fail(const char* m) {
  core::raise(m);
  return false;
}

namespace {
bool level_imp_from(const Token*& t, Value* v, int min_level);
bool pow_operand(const Token*& t, Value* v);
}  // namespace

std::uint32_t resolve(const Token* tok) {
  auto* w = const_cast<Token*>(tok);
  if (w->cache[0].b != kUnresolved) return w->cache[0].b;
  const char* name = tok->name();
  int i;
  if ((i = find_pseudo(name)) >= 0) {
    w->cache[0] = {static_cast<std::uint64_t>(i), kPseudo};
  } else if ((i = find_builtin(name)) >= 0) {
    w->cache[0] = {static_cast<std::uint64_t>(i), kBuiltin};
  } else if (name[0] == 'F' && name[1] == 'N') {
    w->cache[0] = {0, kUserFn};
  } else if (tok[1].kind == '(') {
    w->cache[0] = {0, kArray};
  } else {
    w->cache[0] = {0, kScalar};
  }
  return w->cache[0].b;
}

// The descriptor of a token's variable, through the token's cache.
// The upper half of slot 0's word keeps the type generation the entry was
// found under: a DEFxxx in between may give the same name another type.
Descriptor* lookup(const Token* tok, bool array, bool create) {
  auto* w = const_cast<Token*>(tok);
  if (w->cache[1].a && w->cache[1].b == table_generation() && (w->cache[0].a >> 32) == type_generation())
    return reinterpret_cast<Descriptor*>(w->cache[1].a);
  const std::uint8_t type = type_of_name(tok->name());
  Descriptor* d = find_descriptor(tok->name(), array, type);
  if (!d && create) {
    if (is_read_only_name(tok->name())) {
      fail("Read-only or runtime name");
      return nullptr;
    }
    d = create_descriptor(tok->name(), array);
  }
  if (d) {
    w->cache[1] = {reinterpret_cast<std::uint64_t>(d), table_generation()};
    w->cache[0].a = (w->cache[0].a & 0xFFFFFFFFu) | static_cast<std::uint64_t>(type_generation()) << 32;
  }
  return d;
}

bool component_of(const Token*& t, int* index) {
  ++t;  // the dot
  if (t->kind != core::kTokIdent) return fail("Expected component");
  *index = component_index(t->name());
  if (*index < 0) return fail("Unknown component");
  ++t;
  return true;
}

bool primary(const Token*& t, Value* v) {
  const Token* tok = t;
  switch (tok->kind) {
    case core::kTokNumber:
      ++t;
      v->type = tok->type;
      if (tok->type <= kInt64) v->i = tok->i64();
      else v->d = tok->f64();
      break;
    case core::kTokString:
      ++t;
      // A literal points into the line text: a value, not a heap string.
      *v = Value::string(const_cast<char*>(tok->str_ptr()), tok->str_len());
      break;
    case '(':
      ++t;
      if (!level_imp(t, v)) return false;
      if (!expect(t, ')', "Expected )")) return false;
      break;
    case core::kTokIdent: {
      ++t;
      switch (resolve(tok)) {
        case kPseudo:
          if (!pseudo_value(static_cast<int>(tok->cache[0].a), t, v)) return false;
          break;
        case kBuiltin:
          if (!call_builtin(static_cast<int>(tok->cache[0].a), t, v)) return false;
          break;
        case kUserFn:
          if (!user_function) return fail("Undefined user function");
          if (!user_function(t, tok->name(), v)) return false;
          break;
        case kArray: {
          std::int64_t subs[kMaxDimensions + 1];
          int n;
          if (!parse_subscripts(t, subs, &n)) return false;
          const Descriptor* d = lookup(tok, true, false);
          const void* slot = array_element(d, subs, n);
          if (!slot) return false;
          load_into(slot, d->type, v);
          break;
        }
        default: {
          const Descriptor* d = lookup(tok, false, false);
          if (d) {
            load_into(d->value, d->type, v);
          } else {
            // An absent scalar reads as its typed zero (and is not created).
            std::uint8_t zero[72] = {};
            *v = load_value(zero, type_of_name(tok->name()));
          }
          break;
        }
      }
      break;
    }
    case core::KW_SCREEN: {
      // SCREEN(row,col) reads a cell back; the word arrives as its statement keyword.
      static const int screen_function = find_builtin("SCREEN");
      ++t;
      if (!call_builtin(screen_function, t, v)) return false;
      break;
    }
    case core::kTokEnd:
    case ':':
    case ',':
    case ')':
    case ';':
      return fail("Syntax error");
    default:
      return fail("Syntax error");
  }
  while (t->kind == '.') {
    if (v->type != kHyper) return fail("Type mismatch");
    int c;
    if (!component_of(t, &c)) return false;
    *v = Value::floating(static_cast<std::uint64_t>(c) < hyper_kind(v->h) ? v->h.c[c] : 0.0, kDouble);
  }
  return true;
}

namespace {
bool pow_operand(const Token*& t, Value* v) {
  if (t->kind == '-') {
    ++t;
    Value x;
    return pow_operand(t, &x) && negate(x, v);
  }
  if (t->kind == '+') {
    ++t;
    return pow_operand(t, v);
  }
  return primary(t, v);
}

}  // namespace

// Binary operators by token: their level (higher binds tighter) and operation.
// Relational operators are one or two tokens; *width says how many.
int binary_level(const Token* t, Op* op, int* width) {
  *width = 1;
  switch (t->kind) {
    case core::KW_IMP: *op = Op::Imp; return 1;
    case core::KW_EQV: *op = Op::Eqv; return 2;
    case core::KW_XOR: *op = Op::Xor; return 3;
    case core::KW_OR: *op = Op::Or; return 4;
    case core::KW_AND: *op = Op::And; return 5;
    case '=': *op = Op::Eq; return 7;
    case '<':
      // Only "<=", "<>" and ">=" are two-character operators; "=<" is "=" then "<".
      if (t[1].kind == '=') { *op = Op::Le; *width = 2; }
      else if (t[1].kind == '>') { *op = Op::Ne; *width = 2; }
      else *op = Op::Lt;
      return 7;
    case '>':
      if (t[1].kind == '=') { *op = Op::Ge; *width = 2; }
      else *op = Op::Gt;
      return 7;
    case '+': *op = Op::Add; return 8;
    case '-': *op = Op::Sub; return 8;
    case core::KW_MOD: *op = Op::Mod; return 9;
    case '\\': *op = Op::IntDiv; return 10;
    case '*': *op = Op::Mul; return 11;
    case '/': *op = Op::Div; return 11;
    case '^': *op = Op::Pow; return 13;
    default: return 0;
  }
}

namespace {

// Precedence climbing over the levels above: one loop instead of a call per
// level for every operand. NOT (level 6) takes a relational expression;
// prefix minus (level 12) takes a power expression, so -2^2 is -4.
bool level_imp_from(const Token*& t, Value* v, int min_level) {
  if (t->kind == core::KW_NOT) {
    ++t;
    Value x;
    if (!level_imp_from(t, &x, 7) || !logical_not(x, v)) return false;
  } else if (t->kind == '-') {
    ++t;
    Value x;
    if (!level_imp_from(t, &x, 13) || !negate(x, v)) return false;
  } else if (t->kind == '+') {
    ++t;
    if (!level_imp_from(t, v, 13)) return false;
  } else if (!primary(t, v)) {
    return false;
  }
  for (;;) {
    Op op;
    int width;
    const int level = binary_level(t, &op, &width);
    if (level == 0 || level < min_level) return true;
    t += width;
    Value r;
    // "^" takes a signed primary on its right and stays left-associative;
    // the others take the next level up.
    if (!(level == 13 ? pow_operand(t, &r) : level_imp_from(t, &r, level + 1))) return false;
    if (!binary_op(op, *v, r, v)) return false;
  }
}

}  // namespace

bool level_imp(const Token*& t, Value* v) { return level_imp_from(t, v, 1); }

}  // namespace detail

using detail::fail;
using detail::level_imp;
using detail::lookup;
using detail::resolve;
using detail::kPseudo;
using detail::component_of;

bool eval(const Token*& t, Value* out) { return eval_predecoded(t, out); }

Descriptor* scalar_of_slow(const Token* t) { return lookup(t, false, true); }

bool eval_numeric(const Token*& t, Value* out) {
  if (!eval(t, out)) return false;
  if (out->type == kString) return fail("Type mismatch");
  return true;
}

bool eval_string(const Token*& t, Value* out) {
  if (!eval(t, out)) return false;
  if (out->type != kString) return fail("Type mismatch");
  return true;
}

bool eval_int64(const Token*& t, std::int64_t* out) {
  Value v;
  if (!eval(t, &v)) return false;
  if (v.type == kString || v.type == kHyper) return fail("Type mismatch");
  return value_to_int64(v, out);
}

bool eval_double(const Token*& t, double* out) {
  Value v;
  if (!eval(t, &v)) return false;
  return value_to_double(v, out);
}

bool expect(const Token*& t, std::uint8_t kind, const char* message) {
  if (t->kind != kind) return fail(message);
  ++t;
  return true;
}

void skip_expression(const Token*& t) {
  int depth = 0;
  for (; t->kind != core::kTokEnd; ++t) {
    if (t->kind == '(') ++depth;
    else if (t->kind == ')') {
      if (depth == 0) return;
      --depth;
    } else if (depth == 0 && (t->kind == ',' || t->kind == ';' || t->kind == ':' || t->kind == core::KW_THEN ||
                              t->kind == core::KW_ELSE || t->kind == core::KW_TO || t->kind == core::KW_STEP)) {
      return;
    }
  }
}

bool parse_subscripts(const Token*& t, std::int64_t* subs, int* n) {
  if (!expect(t, '(', "Expected (")) return false;
  *n = 0;
  for (;;) {
    std::int64_t s;
    if (!eval_int64(t, &s)) return false;
    if (*n < kMaxDimensions + 1) subs[*n] = s;
    ++*n;
    if (t->kind == ',') {
      ++t;
      continue;
    }
    break;
  }
  if (*n > kMaxDimensions + 1) *n = kMaxDimensions + 1;  // wrong either way
  return expect(t, ')', "Expected )");
}

bool parse_lvalue(const Token*& t, LValue* out) {
  if (t->kind != core::kTokIdent) return fail("Expected variable");
  const Token* tok = t++;
  *out = LValue{};
  // The token remembers what its name is, so the pseudo-variable check costs
  // one comparison after the first time.
  if (resolve(tok) == kPseudo) return fail("Read-only or runtime name");
  if (t->kind == '(') {
    std::int64_t subs[kMaxDimensions + 1];
    int n;
    if (!parse_subscripts(t, subs, &n)) return false;
    Descriptor* d = lookup(tok, true, false);
    out->slot = array_element(d, subs, n);
    if (!out->slot) return false;
    out->descriptor = d;
    out->type = d->type;
    out->element = true;
  } else {
    Descriptor* d = lookup(tok, false, true);
    if (!d) return false;
    out->slot = d->value;
    out->type = d->type;
    out->descriptor = d;
  }
  if (t->kind == '.') {
    if (out->type != kHyper) return fail("Type mismatch");
    if (!component_of(t, &out->component)) return false;
  }
  return true;
}

bool assign(const LValue& lv, const Value& v) {
  if (lv.component < 0) return store_same_type(lv.slot, lv.type, v) || store_value(lv.slot, lv.type, v);
  // A component write raises the kind when the component lies beyond it;
  // the newly meaningful components start at 0.
  Hyper h;
  std::memcpy(&h, lv.slot, sizeof h);
  h.kind = hyper_kind(h);
  const std::uint64_t need = lv.component < 2 ? 2 : lv.component < 4 ? 4 : 8;
  double d;
  if (!store_value(&d, kDouble, v)) return false;
  if (h.kind < need) {
    for (std::uint64_t i = h.kind; i < need; ++i) h.c[i] = 0;
    h.kind = need;
  }
  h.c[lv.component] = d;
  std::memcpy(lv.slot, &h, sizeof h);
  return true;
}

bool make_string(const char* p, std::uint64_t n, Value* out) {
  if (n > 0xFFFFFFFFull) return fail("String too long");
  char* s = string_temp(static_cast<std::uint32_t>(n));
  if (!s) return false;
  if (n) std::memmove(s, p, n);
  *out = Value::string(s, static_cast<std::uint32_t>(n));
  return true;
}

}  // namespace values
