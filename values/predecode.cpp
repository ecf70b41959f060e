// Pre-decoded expressions. An expression that is evaluated a second time is
// decoded once into a tree of nodes: literals hold their values, variables
// hold their descriptors (checked against the table and type generations),
// operators are chosen when decoding instead of searched for on every pass.
// The tree lives in the evaluator cache of the expression's first token
// (slot 2 of an identifier, whose slots 0 and 1 say what the name is; slot 1
// of any other token) with the pool epoch it was made in.
//
// Nodes compute exactly what the token walk computes, in the same order:
// operands left to right, the same operator routines, the same errors. What
// the decoder does not know (built-in functions, pseudo-variables, FN calls)
// becomes a node that runs the token walk's primary on its own tokens.
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/statements.h"
#include "values/arrays.h"
#include "values/builtins.h"
#include "values/eval_detail.h"
#include "values/numeric_ops.h"
#include "values/predecode.h"
#include "values/store.h"

namespace values {

namespace {

struct Node;
using NodeFn = bool (*)(const Node*, Value*);

struct Node {
  NodeFn fn;
  const Node* a;
  const Node* b;
  const Token* tok;  // the identifier of a variable, the first token of a generic primary
  std::int64_t i;
  double d;
  char* sptr;
  std::uint32_t slen;
  std::uint8_t type;  // a literal's type code
  std::uint8_t nsubs;
  const Node* subs[kMaxDimensions + 1];
  // The variable's descriptor and the generations it was found under.
  mutable Descriptor* desc;
  mutable std::uint32_t table_gen, type_gen;
};

struct Expr {
  const Node* root;
  const Token* end;
};

// What a cache slot of the current epoch holds, when it holds no tree.
enum : std::uint64_t { kSeenOnce = 1, kNotDecodable = 2 };

// Trees are made from chunks of the process heap and dropped all at once:
// when the program changes, or when direct-mode lines have made too many.
constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kPoolLimit = 2 * 1024 * 1024;

std::vector<std::unique_ptr<unsigned char[]>> chunks;
std::size_t chunk_used = kChunk;
std::size_t pool_bytes = 0;
std::uint32_t epoch = 1;
bool drop_pending = false;
int running = 0;  // trees being evaluated: none may be dropped meanwhile

template <typename T>
T* pool_new() {
  constexpr std::size_t n = (sizeof(T) + 15) & ~std::size_t{15};
  if (chunk_used + n > kChunk) {
    chunks.emplace_back(new unsigned char[kChunk]);
    chunk_used = 0;
  }
  void* p = chunks.back().get() + chunk_used;
  chunk_used += n;
  pool_bytes += n;
  return new (p) T{};
}

void drop_all() {
  chunks.clear();
  chunk_used = kChunk;
  pool_bytes = 0;
  if (++epoch == 0) epoch = 1;
  drop_pending = false;
}

core::CacheSlot& slot_of(const Token* t) {
  return const_cast<Token*>(t)->cache[t->kind == core::kTokIdent ? 2 : 1];
}

// ---- evaluation --------------------------------------------------------------

// Tested in order of likelihood: predicted branches, no jump table.
[[gnu::always_inline]] inline void load_slot(const void* slot, std::uint8_t type, Value* v) {
  if (type == kDouble) {
    v->type = kDouble;
    std::memcpy(&v->d, slot, 8);
  } else if (type == kInteger) {
    std::int16_t s;
    std::memcpy(&s, slot, 2);
    v->type = kInteger;
    v->i = s;
  } else if (type == kSingle) {
    float f;
    std::memcpy(&f, slot, 4);
    v->type = kSingle;
    v->d = f;
  } else if (type == kLong) {
    std::int32_t s;
    std::memcpy(&s, slot, 4);
    v->type = kLong;
    v->i = s;
  } else if (type == kInt64) {
    v->type = kInt64;
    std::memcpy(&v->i, slot, 8);
  } else {
    load_into(slot, type, v);
  }
}

bool n_int(const Node* n, Value* v) {
  set_int(v, n->i, n->type);
  return true;
}

bool n_float(const Node* n, Value* v) {
  set_float(v, n->d, n->type);
  return true;
}

bool n_string(const Node* n, Value* v) {
  // A literal points into the line text: a value, not a heap string.
  v->type = kString;
  v->s.ptr = n->sptr;
  v->s.len = n->slen;
  return true;
}

// The descriptor of a node's variable; null when it does not exist.
[[gnu::always_inline]] inline Descriptor* variable(const Node* n, bool array) {
  if (n->table_gen == table_generation() && n->type_gen == type_generation()) return n->desc;
  Descriptor* d = detail::lookup(n->tok, array, false);
  if (d) {
    n->desc = d;
    n->table_gen = table_generation();
    n->type_gen = type_generation();
  }
  return d;
}

// An absent scalar reads as its typed zero (and is not created).
[[gnu::noinline]] void absent_scalar(const Node* n, Value* v) {
  static const std::uint8_t zero[72] = {};
  load_into(zero, type_of_name(n->tok->name()), v);
}

[[gnu::always_inline]] inline bool scalar_load(const Node* n, Value* v) {
  if (const Descriptor* d = variable(n, false)) load_slot(d->value, d->type, v);
  else absent_scalar(n, v);
  return true;
}

bool n_scalar(const Node* n, Value* v) { return scalar_load(n, v); }

// A scalar read where the name gives the type (the usual case): one reader
// per type, so the load is chosen when decoding, not by a dispatch on the
// type that a shared reader mispredicts from one variable to the next.
template <std::uint8_t T>
bool n_scalar_typed(const Node* n, Value* v) {
  const Descriptor* d = variable(n, false);
  if (d && d->type == T) [[likely]] {
    load_slot(d->value, T, v);
    return true;
  }
  return scalar_load(n, v);
}

// The variant of a routine made for a type code (kNoType: for any type).
template <typename Fn, typename Pick>
Fn for_type(std::uint8_t type, Pick pick) {
  switch (type) {
    case kInteger: return pick(std::integral_constant<std::uint8_t, kInteger>{});
    case kLong: return pick(std::integral_constant<std::uint8_t, kLong>{});
    case kInt64: return pick(std::integral_constant<std::uint8_t, kInt64>{});
    case kSingle: return pick(std::integral_constant<std::uint8_t, kSingle>{});
    case kDouble: return pick(std::integral_constant<std::uint8_t, kDouble>{});
    default: return pick(std::integral_constant<std::uint8_t, kNoType>{});
  }
}

NodeFn scalar_reader(std::uint8_t type) {
  return for_type<NodeFn>(type, [](auto t) -> NodeFn {
    if constexpr (t() == kNoType) return n_scalar;
    else return n_scalar_typed<t()>;
  });
}

bool is_scalar_node(const Node* n) {
  return n->fn == n_scalar || n->fn == n_scalar_typed<kInteger> || n->fn == n_scalar_typed<kLong> ||
         n->fn == n_scalar_typed<kInt64> || n->fn == n_scalar_typed<kSingle> || n->fn == n_scalar_typed<kDouble>;
}

// The slot of an array element node (its errors raised); d is its array.
[[gnu::always_inline]] inline void* element_slot(const Node* n, const Descriptor** d) {
  std::int64_t subs[kMaxDimensions + 1];
  for (int k = 0; k < n->nsubs; ++k) {
    Value s;
    if (!n->subs[k]->fn(n->subs[k], &s)) return nullptr;
    if (is_integer_type(s.type)) subs[k] = s.i;
    else if (s.type == kString || s.type == kHyper) return detail::fail("Type mismatch"), nullptr;
    else if (!value_to_int64(s, &subs[k])) return nullptr;
  }
  *d = variable(n, true);
  return element_address(*d, subs, n->nsubs);
}

// An element read, with the load for the type the array's name gives chosen
// when decoding (kNoType: any type).
template <std::uint8_t T>
bool n_element_as(const Node* n, Value* v) {
  const Descriptor* d;
  const void* slot = element_slot(n, &d);
  if (!slot) return false;
  if constexpr (T != kNoType) {
    if (d->type == T) [[likely]] {
      load_slot(slot, T, v);
      return true;
    }
  }
  load_slot(slot, d->type, v);
  return true;
}

constexpr NodeFn n_element = n_element_as<kNoType>;

NodeFn element_reader(std::uint8_t type) {
  return for_type<NodeFn>(type, [](auto t) -> NodeFn { return n_element_as<t()>; });
}

bool is_element_node(const Node* n) {
  return n->fn == n_element || n->fn == n_element_as<kInteger> || n->fn == n_element_as<kLong> ||
         n->fn == n_element_as<kInt64> || n->fn == n_element_as<kSingle> || n->fn == n_element_as<kDouble>;
}

// A one-argument numeric function (SIN, LOG, SQR, ABS, INT, ...): its
// argument is decoded too, and the function runs on the value.
bool n_function(const Node* n, Value* v) {
  Value x;
  return n->a->fn(n->a, &x) && numeric_function(static_cast<NumFn>(n->i), x, v);
}

bool n_generic(const Node* n, Value* v) {
  const Token* t = n->tok;
  return detail::primary(t, v);
}

bool n_negate(const Node* n, Value* v) {
  Value x;
  if (!n->a->fn(n->a, &x)) return false;
  if (x.type == kDouble || x.type == kSingle) {
    set_float(v, -x.d, x.type);
    return true;
  }
  return negate(x, v);
}

bool n_not(const Node* n, Value* v) {
  Value x;
  return n->a->fn(n->a, &x) && logical_not(x, v);
}

// Operands that are variables or literals are read in place, without a call.
enum class Operand { Node, Scalar, Literal };

template <Operand k>
[[gnu::always_inline]] inline bool operand(const Node* n, Value* v) {
  if constexpr (k == Operand::Scalar) {
    return scalar_load(n, v);
  } else if constexpr (k == Operand::Literal) {
    v->type = n->type;
    if (n->type <= kInt64) v->i = n->i;
    else v->d = n->d;
    return true;
  } else {
    return n->fn(n, v);
  }
}

template <Op op, Operand ka, Operand kb>
bool n_binary(const Node* n, Value* v) {
  Value x, y;
  if (!operand<ka>(n->a, &x) || !operand<kb>(n->b, &y)) return false;
  if (is_numeric_type(x.type) && is_numeric_type(y.type)) return numeric_binary<op>(x, y, v);
  return binary_op(op, x, y, v);
}

Operand operand_kind(const Node* n) {
  if (is_scalar_node(n)) return Operand::Scalar;
  if (n->fn == n_int || n->fn == n_float) return Operand::Literal;
  return Operand::Node;
}

template <Op op, Operand ka>
NodeFn binary_fn_b(Operand kb) {
  switch (kb) {
    case Operand::Scalar: return n_binary<op, ka, Operand::Scalar>;
    case Operand::Literal: return n_binary<op, ka, Operand::Literal>;
    default: return n_binary<op, ka, Operand::Node>;
  }
}

template <Op op>
NodeFn binary_fn_ab(Operand ka, Operand kb) {
  switch (ka) {
    case Operand::Scalar: return binary_fn_b<op, Operand::Scalar>(kb);
    case Operand::Literal: return binary_fn_b<op, Operand::Literal>(kb);
    default: return binary_fn_b<op, Operand::Node>(kb);
  }
}

NodeFn binary_fn(Op op, const Node* a, const Node* b) {
  const Operand ka = operand_kind(a), kb = operand_kind(b);
  switch (op) {
    case Op::Add: return binary_fn_ab<Op::Add>(ka, kb);
    case Op::Sub: return binary_fn_ab<Op::Sub>(ka, kb);
    case Op::Mul: return binary_fn_ab<Op::Mul>(ka, kb);
    case Op::Div: return binary_fn_ab<Op::Div>(ka, kb);
    case Op::IntDiv: return binary_fn_ab<Op::IntDiv>(ka, kb);
    case Op::Mod: return binary_fn_ab<Op::Mod>(ka, kb);
    case Op::Pow: return binary_fn_ab<Op::Pow>(ka, kb);
    case Op::Eq: return binary_fn_ab<Op::Eq>(ka, kb);
    case Op::Ne: return binary_fn_ab<Op::Ne>(ka, kb);
    case Op::Lt: return binary_fn_ab<Op::Lt>(ka, kb);
    case Op::Le: return binary_fn_ab<Op::Le>(ka, kb);
    case Op::Gt: return binary_fn_ab<Op::Gt>(ka, kb);
    case Op::Ge: return binary_fn_ab<Op::Ge>(ka, kb);
    case Op::And: return binary_fn_ab<Op::And>(ka, kb);
    case Op::Or: return binary_fn_ab<Op::Or>(ka, kb);
    case Op::Xor: return binary_fn_ab<Op::Xor>(ka, kb);
    case Op::Eqv: return binary_fn_ab<Op::Eqv>(ka, kb);
    case Op::Imp: return binary_fn_ab<Op::Imp>(ka, kb);
  }
  return nullptr;
}

// ---- decoding ----------------------------------------------------------------
// The same grammar as the token walk; null for anything it leaves to the walk.

const Node* decode_level(const Token*& t, int min_level);

Node* unary(NodeFn fn, const Node* a) {
  if (!a) return nullptr;
  Node* n = pool_new<Node>();
  n->fn = fn;
  n->a = a;
  return n;
}

// A name followed by its parenthesised arguments, if any.
const Token* skip_arguments(const Token* t) {
  if (t->kind != '(') return t;
  int depth = 0;
  for (; t->kind != core::kTokEnd; ++t) {
    if (t->kind == '(') ++depth;
    else if (t->kind == ')' && --depth == 0) return t + 1;
  }
  return nullptr;
}

// "NAME(expression)" for the numeric functions of one argument; null (t
// unmoved) for anything else, which the generic node then takes.
const Node* decode_function(const Token* name, const Token*& t) {
  static const struct {
    const char* name;
    NumFn fn;
  } kFunctions[] = {
      {"SIN", NumFn::Sin},   {"COS", NumFn::Cos},   {"TAN", NumFn::Tan},   {"ATN", NumFn::Atn},
      {"LOG", NumFn::Log},   {"EXP", NumFn::Exp},   {"SQR", NumFn::Sqr},   {"SQRT", NumFn::Sqr},
      {"SINH", NumFn::Sinh}, {"COSH", NumFn::Cosh}, {"TANH", NumFn::Tanh}, {"ABS", NumFn::Abs},
      {"SGN", NumFn::Sgn},   {"INT", NumFn::Int},   {"FIX", NumFn::Fix},   {"CINT", NumFn::Cint},
      {"CSNG", NumFn::Csng}, {"CDBL", NumFn::Cdbl},
  };
  if (t->kind != '(') return nullptr;
  for (const auto& f : kFunctions) {
    if (std::strcmp(f.name, name->name()) != 0) continue;
    const Token* c = t + 1;
    const Node* arg = decode_level(c, 1);
    if (!arg || c->kind != ')') return nullptr;
    if (c[1].kind == '.') return nullptr;
    Node* n = pool_new<Node>();
    n->fn = n_function;
    n->a = arg;
    n->i = static_cast<std::int64_t>(f.fn);
    t = c + 1;
    return n;
  }
  return nullptr;
}

const Node* decode_primary(const Token*& t) {
  const Token* tok = t;
  Node* n = nullptr;
  switch (tok->kind) {
    case core::kTokNumber:
      ++t;
      n = pool_new<Node>();
      n->type = tok->type;
      if (tok->type <= kInt64) {
        n->fn = n_int;
        n->i = tok->i64();
      } else {
        n->fn = n_float;
        n->d = tok->f64();
      }
      break;
    case core::kTokString:
      ++t;
      n = pool_new<Node>();
      n->fn = n_string;
      n->sptr = const_cast<char*>(tok->str_ptr());
      n->slen = tok->str_len();
      break;
    case '(': {
      ++t;
      const Node* inner = decode_level(t, 1);
      if (!inner || t->kind != ')') return nullptr;
      ++t;
      return t->kind == '.' ? nullptr : inner;
    }
    case core::kTokIdent:
      ++t;
      switch (detail::resolve(tok)) {
        case detail::kArray: {
          n = pool_new<Node>();
          n->fn = element_reader(type_of_name(tok->name()));
          n->tok = tok;
          ++t;  // "("
          for (;;) {
            if (n->nsubs > kMaxDimensions) return nullptr;
            const Node* s = decode_level(t, 1);
            if (!s) return nullptr;
            n->subs[n->nsubs++] = s;
            if (t->kind != ',') break;
            ++t;
          }
          if (t->kind != ')') return nullptr;
          ++t;
          break;
        }
        case detail::kScalar:
          n = pool_new<Node>();
          n->fn = scalar_reader(type_of_name(tok->name()));
          n->tok = tok;
          break;
        case detail::kBuiltin:
          if (const Node* f = decode_function(tok, t)) return f;
          [[fallthrough]];
        default:  // other built-in functions, pseudo-variables, FN calls
          t = skip_arguments(t);
          if (!t) return nullptr;
          n = pool_new<Node>();
          n->fn = n_generic;
          n->tok = tok;
          break;
      }
      break;
    case core::KW_SCREEN:
      ++t;
      t = skip_arguments(t);
      if (!t) return nullptr;
      n = pool_new<Node>();
      n->fn = n_generic;
      n->tok = tok;
      break;
    default:
      return nullptr;
  }
  // Component selectors are left to the walk.
  return t->kind == '.' ? nullptr : n;
}

const Node* decode_pow_operand(const Token*& t) {
  if (t->kind == '-') {
    ++t;
    return unary(n_negate, decode_pow_operand(t));
  }
  if (t->kind == '+') {
    ++t;
    return decode_pow_operand(t);
  }
  return decode_primary(t);
}

const Node* decode_level(const Token*& t, int min_level) {
  const Node* v;
  if (t->kind == core::KW_NOT) {
    ++t;
    v = unary(n_not, decode_level(t, 7));
  } else if (t->kind == '-') {
    ++t;
    v = unary(n_negate, decode_level(t, 13));
  } else if (t->kind == '+') {
    ++t;
    v = decode_level(t, 13);
  } else {
    v = decode_primary(t);
  }
  if (!v) return nullptr;
  for (;;) {
    Op op;
    int width;
    const int level = detail::binary_level(t, &op, &width);
    if (level == 0 || level < min_level) return v;
    t += width;
    const Node* r = level == 13 ? decode_pow_operand(t) : decode_level(t, level + 1);
    if (!r) return nullptr;
    Node* n = pool_new<Node>();
    n->fn = binary_fn(op, v, r);
    n->a = v;
    n->b = r;
    v = n;
  }
}

// Decode the expression from start to end (where the token walk stopped).
void decode(const Token* start, const Token* end) {
  if (running == 0 && (drop_pending || pool_bytes > kPoolLimit)) drop_all();
  const Token* t = start;
  const Node* root = decode_level(t, 1);
  core::CacheSlot& s = slot_of(start);
  if (!root || t != end) {
    s = {kNotDecodable, epoch};
    return;
  }
  Expr* e = pool_new<Expr>();
  e->root = root;
  e->end = end;
  s = {reinterpret_cast<std::uint64_t>(e), epoch};
}

// ---- assignments -------------------------------------------------------------
// "name = expression" and "name(subscripts) = expression", decoded on their
// second execution and kept in the cache of the token after the name.

struct Assign;
using AssignFn = bool (*)(const Assign*);

struct Assign {
  const Node* target;  // a variable node: a scalar or an element reader
  const Node* value;
  const Token* end;
  AssignFn run;
  bool element;  // the target is an array element
};

core::CacheSlot& assign_slot(const Token* name) { return const_cast<Token*>(name + 1)->cache[0]; }

AssignFn assigner(const Node* target);

void decode_assignment(const Token* name, const Token* end) {
  if (running == 0 && (drop_pending || pool_bytes > kPoolLimit)) drop_all();
  core::CacheSlot& s = assign_slot(name);
  s = {kNotDecodable, epoch};
  if (detail::resolve(name) == detail::kPseudo) return;
  const Token* t = name;
  const Node* target = decode_primary(t);
  if (!target || (!is_scalar_node(target) && !is_element_node(target)) || t->kind != '=') return;
  ++t;
  const Node* value = decode_level(t, 1);
  if (!value || t != end) return;
  Assign* a = pool_new<Assign>();
  a->target = target;
  a->value = value;
  a->end = end;
  a->run = assigner(target);
  a->element = is_element_node(target);
  s = {reinterpret_cast<std::uint64_t>(a), epoch};
}

// T, when not kNoType, is the type the target's name gives: the store for it
// is chosen when decoding, like the reads, instead of by a dispatch on the type.
template <std::uint8_t T>
bool run_assignment_as(const Assign* a) {
  const Node* n = a->target;
  void* slot;
  std::uint8_t type;
  if (!a->element) {
    // Assignment creates the variable, before the value is evaluated.
    Descriptor* d;
    if (n->table_gen == table_generation() && n->type_gen == type_generation()) [[likely]] {
      d = n->desc;
    } else {
      d = detail::lookup(n->tok, false, true);
      if (!d) return false;
      n->desc = d;
      n->table_gen = table_generation();
      n->type_gen = type_generation();
    }
    slot = d->value;
    type = d->type;
  } else {
    // The element is addressed (and its errors raised) before the value is evaluated.
    const Descriptor* d;
    slot = element_slot(n, &d);
    if (!slot) return false;
    type = d->type;
  }
  Value v;
  if (!a->value->fn(a->value, &v)) return false;
  if constexpr (T != kNoType) {
    if (type == T) [[likely]]
      return store_same_type(slot, T, v) || store_value(slot, T, v);
  }
  return store_same_type(slot, type, v) || store_value(slot, type, v);
}

AssignFn assigner(const Node* target) {
  return for_type<AssignFn>(type_of_name(target->tok->name()),
                            [](auto t) -> AssignFn { return run_assignment_as<t()>; });
}

}  // namespace

namespace {

// The first runs of an assignment, and the ones that cannot be decoded: kept
// apart so the decoded path below runs without this one's stack frame.
[[gnu::noinline]] bool assign_statement_slow(const Token*& t) {
  const Token* name = t;
  const core::CacheSlot& s = assign_slot(name);
  const bool seen = s.b == epoch && s.a == kSeenOnce;
  const bool decodable = !(s.b == epoch && s.a == kNotDecodable);
  LValue lv;
  if (!parse_lvalue(t, &lv) || !expect(t, '=', "Syntax error")) return false;
  Value v;
  if (!eval(t, &v) || !assign(lv, v)) return false;
  if (decodable && core::at_statement_end(t)) {
    if (seen) decode_assignment(name, t);
    else assign_slot(name) = {kSeenOnce, epoch};
  }
  return true;
}

[[gnu::noinline]] bool eval_predecoded_slow(const Token*& t, Value* out) {
  const Token* start = t;
  core::CacheSlot& s = slot_of(start);
  if (s.b == epoch) {
    if (!detail::level_imp(t, out)) return false;
    if (s.a == kSeenOnce && s.b == epoch) decode(start, t);
    return true;
  }
  if (!detail::level_imp(t, out)) return false;
  // Decoding waits for a second evaluation: most direct-mode lines, EVAL
  // texts and DRAW strings are evaluated once and never repay it.
  s = {kSeenOnce, epoch};
  return true;
}

}  // namespace

bool assign_statement(const Token*& t) {
  const core::CacheSlot& s = assign_slot(t);
  if (s.b == epoch && s.a > kNotDecodable) {
    const Assign* a = reinterpret_cast<const Assign*>(s.a);
    ++running;
    const bool ok = a->run(a);
    --running;
    t = a->end;
    return ok;
  }
  return assign_statement_slow(t);
}

bool eval_predecoded(const Token*& t, Value* out) {
  const core::CacheSlot& s = slot_of(t);
  if (s.b == epoch && s.a > kNotDecodable) {
    const Expr* e = reinterpret_cast<const Expr*>(s.a);
    ++running;
    const bool ok = e->root->fn(e->root, out);
    --running;
    t = e->end;
    return ok;
  }
  return eval_predecoded_slow(t, out);
}

void forget_predecoded() { drop_pending = true; }

std::size_t predecoded_bytes() { return pool_bytes; }

}  // namespace values
