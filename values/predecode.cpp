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
#include <vector>

#include "core/errors.h"
#include "core/keywords.h"
#include "values/arrays.h"
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

[[gnu::always_inline]] inline void load_slot(const void* slot, std::uint8_t type, Value* v) {
  switch (type) {
    case kDouble: v->type = kDouble; std::memcpy(&v->d, slot, 8); return;
    case kSingle: { float f; std::memcpy(&f, slot, 4); v->type = kSingle; v->d = f; return; }
    case kInteger: { std::int16_t s; std::memcpy(&s, slot, 2); v->type = kInteger; v->i = s; return; }
    case kLong: { std::int32_t s; std::memcpy(&s, slot, 4); v->type = kLong; v->i = s; return; }
    case kInt64: v->type = kInt64; std::memcpy(&v->i, slot, 8); return;
    default: load_into(slot, type, v); return;
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

bool n_scalar(const Node* n, Value* v) {
  if (const Descriptor* d = variable(n, false)) {
    load_slot(d->value, d->type, v);
  } else {
    // An absent scalar reads as its typed zero (and is not created).
    static const std::uint8_t zero[72] = {};
    load_into(zero, type_of_name(n->tok->name()), v);
  }
  return true;
}

bool n_element(const Node* n, Value* v) {
  std::int64_t subs[kMaxDimensions + 1];
  for (int k = 0; k < n->nsubs; ++k) {
    Value s;
    if (!n->subs[k]->fn(n->subs[k], &s)) return false;
    if (is_integer_type(s.type)) subs[k] = s.i;
    else if (s.type == kString || s.type == kHyper) return detail::fail("Type mismatch");
    else if (!value_to_int64(s, &subs[k])) return false;
  }
  const Descriptor* d = variable(n, true);
  const void* slot = array_element(d, subs, n->nsubs);
  if (!slot) return false;
  load_slot(slot, d->type, v);
  return true;
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

template <Op op>
bool n_binary(const Node* n, Value* v) {
  Value x, y;
  if (!n->a->fn(n->a, &x) || !n->b->fn(n->b, &y)) return false;
  if (is_numeric_type(x.type) && is_numeric_type(y.type)) return numeric_binary<op>(x, y, v);
  return binary_op(op, x, y, v);
}

NodeFn binary_fn(Op op) {
  switch (op) {
    case Op::Add: return n_binary<Op::Add>;
    case Op::Sub: return n_binary<Op::Sub>;
    case Op::Mul: return n_binary<Op::Mul>;
    case Op::Div: return n_binary<Op::Div>;
    case Op::IntDiv: return n_binary<Op::IntDiv>;
    case Op::Mod: return n_binary<Op::Mod>;
    case Op::Pow: return n_binary<Op::Pow>;
    case Op::Eq: return n_binary<Op::Eq>;
    case Op::Ne: return n_binary<Op::Ne>;
    case Op::Lt: return n_binary<Op::Lt>;
    case Op::Le: return n_binary<Op::Le>;
    case Op::Gt: return n_binary<Op::Gt>;
    case Op::Ge: return n_binary<Op::Ge>;
    case Op::And: return n_binary<Op::And>;
    case Op::Or: return n_binary<Op::Or>;
    case Op::Xor: return n_binary<Op::Xor>;
    case Op::Eqv: return n_binary<Op::Eqv>;
    case Op::Imp: return n_binary<Op::Imp>;
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
          n->fn = n_element;
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
          n->fn = n_scalar;
          n->tok = tok;
          break;
        default:  // built-in functions, pseudo-variables, FN calls
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
    n->fn = binary_fn(op);
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

}  // namespace

bool eval_predecoded(const Token*& t, Value* out) {
  const Token* start = t;
  core::CacheSlot& s = slot_of(start);
  if (s.b == epoch) {
    if (s.a > kNotDecodable) {
      const Expr* e = reinterpret_cast<const Expr*>(s.a);
      ++running;
      const bool ok = e->root->fn(e->root, out);
      --running;
      t = e->end;
      return ok;
    }
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

void forget_predecoded() { drop_pending = true; }

std::size_t predecoded_bytes() { return pool_bytes; }

}  // namespace values
