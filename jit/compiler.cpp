// The region compiler: tokenized program lines to verified-stack bytecode.
//
// It follows the interpreter's own parse (the same precedence climbing, the
// same IF/ELSE pairing, the same statement ends) so that compiled code does
// what the interpreter would, step for step. Types are static: every value
// on the evaluation stack has a type known here, and a construct whose type
// the interpreter decides only at run time is left to the interpreter.
#include <cmath>
#include <cstring>

#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "jit/codegen_hyper.h"
#include "jit/native.h"
#include "jit/region.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/builtins.h"
#include "values/hyper.h"
#include "values/ops.h"

namespace jit {

namespace {

using core::Token;
using values::Descriptor;

constexpr int kMaxSlots = 8;      // evaluation-stack values held in registers
constexpr int kMaxLines = 1024;
constexpr int kMaxFors = 64;
constexpr int kMaxIfDepth = 64;

struct LoopCtx {
  int kind;  // 1 FOR, 2 WHILE
  int id;
  bool operator==(const LoopCtx& o) const { return kind == o.kind && id == o.id; }
};

enum class Result { Ok, Fallback, Fail };

const struct { const char* name; std::uint8_t op; values::NumFn fn; } kFunctions[] = {
    {"SQR", OP_SQR, values::NumFn::Sqr},    {"SQRT", OP_SQR, values::NumFn::Sqr},
    {"SIN", OP_SIN, values::NumFn::Sin},    {"COS", OP_COS, values::NumFn::Cos},
    {"TAN", OP_TAN, values::NumFn::Tan},    {"ATN", OP_ATN, values::NumFn::Atn},
    {"LOG", OP_LOG, values::NumFn::Log},    {"EXP", OP_EXP, values::NumFn::Exp},
    {"ABS", OP_ABS, values::NumFn::Abs},    {"SGN", OP_SGN, values::NumFn::Sgn},
    {"INT", OP_INT, values::NumFn::Int},    {"FIX", OP_FIX, values::NumFn::Fix},
    {"CSNG", OP_CSNG, values::NumFn::Csng}, {"CDBL", OP_CDBL, values::NumFn::Cdbl},
    {"SINH", OP_SINH, values::NumFn::Sinh}, {"COSH", OP_COSH, values::NumFn::Cosh},
    {"TANH", OP_TANH, values::NumFn::Tanh},
};

double magnitude_of(std::int64_t v) { return v < 0 ? -static_cast<double>(v) : static_cast<double>(v); }

ValType int_type(std::uint8_t t, double mag) {
  ValType v;
  v.type = t;
  v.mag = mag;
  return v;
}
ValType var_type(std::uint8_t t) {
  switch (t) {
    case values::kInteger: return int_type(t, 32768.0);
    case values::kLong: return int_type(t, 2147483648.0);
    case values::kInt64: return int_type(t, 9223372036854775808.0);
    default: return int_type(t, 0);
  }
}

// The type an integer value counts as beside floating operands: INT64 when it
// may lie outside LONG. 0 when that depends on the value (left to the interpreter).
std::uint8_t float_rank(const ValType& v) {
  if (v.type == values::kHyper) return 0;
  if (v.is_float()) return v.type;
  if (v.type == values::kInt64) return values::kInt64;
  return v.mag <= 2147483647.0 ? values::kLong : 0;
}

// Hypercomplex values: a number or an @ value may meet another @ value.
// PARFOR bodies keep to numbers (workers copy only numeric scalars).
bool hyper_ok() { return !compiling_parfor; }
bool hyper_operand(const ValType& v) { return v.type == values::kHyper || v.is_int() || v.is_float(); }
ValType hyper_type() { return int_type(values::kHyper, 0); }

class Compiler {
 public:
  explicit Compiler(RegionCode* r) : R(*r) {}

  bool run(std::uint32_t line, std::uint32_t pos, const char** why);
  bool capable(std::uint32_t line, std::uint32_t pos);
  // PARFOR bodies take the subroutines they call (and the lines those jump
  // to) into their region: workers cannot leave native code.
  void add_subroutines();

 private:
  RegionCode& R;
  std::vector<ValType> ts;
  int stmt = -1;
  bool bad = false;  // the statement in hand cannot be compiled
  std::vector<LoopCtx> loops;
  std::uint32_t line = 0;
  const Token* base = nullptr;
  int if_depth = 0;
  bool in_branch = false;
  std::vector<int> eol_jumps;  // JUMPs to this line's end

  struct Pending {
    int instr;
    std::uint32_t target_index;
    std::vector<LoopCtx> ctx;
  };
  std::vector<Pending> transfers;
  struct LineStart {
    std::uint32_t line;
    int instr;
    std::vector<LoopCtx> ctx;
  };
  std::vector<LineStart> line_starts;

  // Sizes to cut back to when a subroutine's loop does not compile.
  struct Mark {
    std::size_t code, stmts, fors, whiles, gosubs, transfers, line_starts;
  };
  Mark mark() const {
    return Mark{R.code.size(), R.stmts.size(), R.fors.size(), R.whiles.size(), R.gosubs.size(), transfers.size(),
                line_starts.size()};
  }
  void cut(const Mark& m);
  void segment(std::uint32_t target);

  // --- emitting --------------------------------------------------------
  int emit(std::uint8_t op, std::uint8_t type = 0, std::uint16_t count = 0, std::uint64_t operand = 0) {
    if (static_cast<int>(R.code.size()) >= kMaxInstructions - 2) {  // room for the closing instruction
      bad = true;
      return -1;
    }
    Instr in{};
    in.op = op;
    in.type = type;
    in.count = count;
    in.operand = operand;
    in.line = line;
    in.position = stmt >= 0 ? R.stmts[static_cast<std::size_t>(stmt)].pos : 0;
    R.code.push_back(in);
    InstrInfo info;
    info.stmt = stmt;
    R.info.push_back(info);
    return static_cast<int>(R.code.size()) - 1;
  }
  InstrInfo& info(int i) { return R.info[static_cast<std::size_t>(i)]; }
  Instr& ins(int i) { return R.code[static_cast<std::size_t>(i)]; }
  int here() const { return static_cast<int>(R.code.size()); }
  void set_rel(int from, int to) { ins(from).operand = static_cast<std::uint64_t>(static_cast<std::int64_t>(to - from - 1)); }

  void push(ValType v, int at) {
    ts.push_back(v);
    if (static_cast<int>(ts.size()) > kMaxSlots) bad = true;
    if (at >= 0) info(at).result = v;
  }
  ValType pop() {
    if (ts.empty()) {
      bad = true;
      return ValType{};
    }
    const ValType v = ts.back();
    ts.pop_back();
    return v;
  }
  std::uint32_t tok_index(const Token* t) const { return static_cast<std::uint32_t>(t - base); }
  int new_stmt(const Token* t) {
    R.stmts.push_back(StmtInfo{line, tok_index(t), static_cast<std::uint8_t>(if_depth)});
    stmt = static_cast<int>(R.stmts.size()) - 1;
    const int m = emit(OP_STATEMENT, profile_markers ? (compiling_parfor ? 2 : 1) : 0, 0, static_cast<std::uint64_t>(stmt));
    (void)m;
    return stmt;
  }

  // --- expressions (the interpreter's precedence climbing) ---------------
  void expr(const Token*& t) { expr_from(t, 1); }
  void expr_from(const Token*& t, int min_level);
  void primary(const Token*& t);
  void pow_operand(const Token*& t);
  void binary(std::uint8_t op);
  void unary_function(std::uint8_t op);
  bool hyper_function(const Token*& t, const char* name);
  void subscripts(const Token*& t, int* n);
  int binary_level(const Token* t, std::uint8_t* op, int* width);

  // --- statements ------------------------------------------------------
  Result statement(const Token*& t);
  Result sequence(const Token*& t);
  Result assignment(const Token*& t);
  Result if_statement(const Token*& t);
  Result for_statement(const Token*& t);
  Result next_statement(const Token*& t);
  Result while_statement(const Token*& t);
  Result wend_statement(const Token*& t);
  Result jump_statement(const Token*& t, bool gosub);
  Result helper_statement(const Token*& t, std::uint8_t op);
  Result draw_statement(const Token*& t);
  bool draw_value(const Token*& t, int* n);
  bool draw_point(const Token*& t, std::uint64_t step_bit, std::uint64_t* shape, int* n);
  bool literal_target(const Token*& t, std::uint32_t* index);
  void fallback(std::uint32_t pos);
  // Past the program's last line: the interpreter ends the run at the end of `line`.
  void end_of_program(std::uint32_t line) {
    int count = 0;
    (void)core::line_tokens(line, &count);
    stmt = -1;
    fallback(static_cast<std::uint32_t>(count > 0 ? count - 1 : 0));
    R.code.back().op = OP_END;
    info(here() - 1).role = kRoleEndOfProgram;
  }
  void store(std::uint8_t type, Descriptor* d);
};

bool at_end(const Token* t) { return t->kind == core::kTokEnd || t->kind == ':' || t->kind == core::KW_ELSE; }

int Compiler::binary_level(const Token* t, std::uint8_t* op, int* width) {
  *width = 1;
  switch (t->kind) {
    case core::KW_IMP: *op = OP_IMP; return 1;
    case core::KW_EQV: *op = OP_EQV; return 2;
    case core::KW_XOR: *op = OP_XOR; return 3;
    case core::KW_OR: *op = OP_OR; return 4;
    case core::KW_AND: *op = OP_AND; return 5;
    case '=': *op = OP_EQ; return 7;
    case '<':
      if (t[1].kind == '=') { *op = OP_LE; *width = 2; }
      else if (t[1].kind == '>') { *op = OP_NE; *width = 2; }
      else *op = OP_LT;
      return 7;
    case '>':
      if (t[1].kind == '=') { *op = OP_GE; *width = 2; }
      else *op = OP_GT;
      return 7;
    case '+': *op = OP_ADD; return 8;
    case '-': *op = OP_SUB; return 8;
    case core::KW_MOD: *op = OP_MOD; return 9;
    case '\\': *op = OP_IDIV; return 10;
    case '*': *op = OP_MUL; return 11;
    case '/': *op = OP_DIV; return 11;
    case '^': *op = OP_POW; return 13;
    default: return 0;
  }
}

void Compiler::expr_from(const Token*& t, int min_level) {
  if (bad) return;
  if (t->kind == core::KW_NOT) {
    ++t;
    expr_from(t, 7);
    unary_function(OP_NOT);
  } else if (t->kind == '-') {
    ++t;
    expr_from(t, 13);
    unary_function(OP_NEG);
  } else if (t->kind == '+') {
    ++t;
    expr_from(t, 13);
  } else {
    primary(t);
  }
  while (!bad) {
    std::uint8_t op;
    int width;
    const int level = binary_level(t, &op, &width);
    if (level == 0 || level < min_level) return;
    t += width;
    if (level == 13) {
      // "^" with a literal integer exponent 2..255 multiplies by itself.
      if (t->kind == core::kTokNumber && t->type <= values::kInt64 && t->i64() >= 2 && t->i64() <= 255 &&
          binary_level(t + 1, &op, &width) != 13 && t[1].kind != '.') {
        const std::int64_t n = t->i64();
        const std::uint8_t lit_type = t->type;
        ++t;
        const ValType a = pop();
        const std::uint8_t ra = float_rank(a);
        if (!ra) { bad = true; return; }
        const std::uint8_t rt = values::float_result_type(values::wider_type(ra, lit_type));
        const int at = emit(OP_POW_CONST, static_cast<std::uint8_t>(n), lit_type);
        push(int_type(rt, 0), at);
        continue;
      }
      pow_operand(t);
    } else {
      expr_from(t, level + 1);
    }
    binary(op);
  }
}

void Compiler::pow_operand(const Token*& t) {
  if (bad) return;
  if (t->kind == '-') {
    ++t;
    pow_operand(t);
    unary_function(OP_NEG);
    return;
  }
  if (t->kind == '+') {
    ++t;
    pow_operand(t);
    return;
  }
  primary(t);
}

void Compiler::binary(std::uint8_t op) {
  const ValType b = pop(), a = pop();
  if (bad) return;
  if (a.type == values::kHyper || b.type == values::kHyper) {
    const bool product = op == OP_MUL || op == OP_DIV;
    if (!hyper_ok() || !hyper_operand(a) || !hyper_operand(b) || (product && !hyper_products_ok()) ||
        (op != OP_ADD && op != OP_SUB && !product)) {
      bad = true;
      return;
    }
    push(hyper_type(), emit(op));
    return;
  }
  ValType r;
  switch (op) {
    case OP_ADD:
    case OP_SUB:
    case OP_MUL:
      if (a.is_int() && b.is_int()) {
        r = int_type(std::max(a.type, b.type), op == OP_MUL ? a.mag * b.mag : a.mag + b.mag);
      } else {
        const std::uint8_t ra = float_rank(a), rb = float_rank(b);
        if (!ra || !rb) { bad = true; return; }
        r = int_type(values::wider_type(ra, rb), 0);
      }
      break;
    case OP_DIV:
    case OP_POW: {
      const std::uint8_t ra = float_rank(a), rb = float_rank(b);
      if (!ra || !rb) { bad = true; return; }
      r = int_type(values::float_result_type(values::wider_type(ra, rb)), 0);
      break;
    }
    case OP_IDIV:
    case OP_MOD: {
      const std::uint8_t ta = a.is_int() ? a.type : std::uint8_t{values::kInt64}, tb = b.is_int() ? b.type : std::uint8_t{values::kInt64};
      const double ma = a.is_int() ? a.mag : 9223372036854775808.0, mb = b.is_int() ? b.mag : 9223372036854775808.0;
      r = int_type(std::max(ta, tb), op == OP_MOD ? std::min(ma, mb) : ma);
      break;
    }
    case OP_EQ: case OP_NE: case OP_LT: case OP_LE: case OP_GT: case OP_GE:
      r = int_type(values::kInteger, 1);
      break;
    default: {  // AND OR XOR EQV IMP
      const std::uint8_t ta = a.is_int() ? a.type : std::uint8_t{values::kInt64}, tb = b.is_int() ? b.type : std::uint8_t{values::kInt64};
      const double ma = a.is_int() ? a.mag : 9223372036854775808.0, mb = b.is_int() ? b.mag : 9223372036854775808.0;
      r = int_type(std::max(ta, tb), 2 * std::max(ma, mb) + 1);
      break;
    }
  }
  if (r.is_int() && r.mag > 9223372036854775808.0) r.mag = 9223372036854775808.0;
  const int at = emit(op);
  push(r, at);
}

void Compiler::unary_function(std::uint8_t op) {
  const ValType a = pop();
  if (bad) return;
  if (a.type == values::kHyper && op != OP_NEG) {
    bad = true;
    return;
  }
  ValType r;
  switch (op) {
    case OP_NEG: r = a; break;
    case OP_NOT: r = a.is_int() ? int_type(a.type, 2 * a.mag + 1) : var_type(values::kInt64); break;
    case OP_ABS: case OP_INT: case OP_FIX: r = a; break;
    case OP_SGN: r = int_type(values::kInteger, 1); break;
    case OP_CSNG: r = int_type(values::kSingle, 0); break;
    case OP_CDBL: r = int_type(values::kDouble, 0); break;
    default: {  // the elementary functions
      const std::uint8_t ra = float_rank(a);
      if (!ra) { bad = true; return; }
      r = int_type(values::float_result_type(ra), 0);
      break;
    }
  }
  if (r.is_int() && r.mag > 9223372036854775808.0) r.mag = 9223372036854775808.0;
  const int at = emit(op);
  push(r, at);
}

// CPLX, QUAT and OCT from numbers, CONJ of a number or @ value. False
// (nothing consumed) for every other function.
bool Compiler::hyper_function(const Token*& t, const char* name) {
  static const struct { const char* name; std::uint8_t op; int args; } kHyperFunctions[] = {
      {"CPLX", OP_CPLX, 2}, {"QUAT", OP_QUAT, 4}, {"OCT", OP_OCT, 8}, {"CONJ", OP_CONJ, 1}};
  for (const auto& f : kHyperFunctions) {
    if (std::strcmp(f.name, name) != 0) continue;
    if (!hyper_ok() || t->kind != '(') {
      bad = true;
      return true;
    }
    ++t;
    for (int k = 0; k < f.args; ++k) {
      if (k > 0) {
        if (t->kind != ',') { bad = true; return true; }
        ++t;
      }
      expr(t);
      if (bad) return true;
      const ValType v = ts.back();
      if (f.op == OP_CONJ ? !hyper_operand(v) : !v.is_int() && !v.is_float()) { bad = true; return true; }
    }
    if (t->kind != ')') { bad = true; return true; }
    ++t;
    for (int k = 0; k < f.args; ++k) pop();
    push(hyper_type(), emit(f.op));
    if (t->kind == '.') bad = true;
    return true;
  }
  return false;
}

void Compiler::subscripts(const Token*& t, int* n) {
  ++t;  // "("
  *n = 0;
  for (;;) {
    expr(t);
    if (bad) return;
    const ValType s = ts.back();
    if (!s.is_int() && !s.is_float()) { bad = true; return; }
    ++*n;
    if (t->kind != ',') break;
    ++t;
  }
  if (t->kind != ')' || *n > values::kMaxDimensions) { bad = true; return; }
  ++t;
}

void Compiler::primary(const Token*& t) {
  if (bad) return;
  const Token* tok = t;
  switch (tok->kind) {
    case core::kTokNumber: {
      ++t;
      const int at = emit(OP_PUSH_CONST, tok->type, 0,
                          tok->type <= values::kInt64 ? static_cast<std::uint64_t>(tok->i64())
                                                      : [&] { std::uint64_t b; const double d = tok->f64(); std::memcpy(&b, &d, 8); return b; }());
      push(tok->type <= values::kInt64 ? int_type(tok->type, magnitude_of(tok->i64())) : int_type(tok->type, 0), at);
      break;
    }
    case '(':
      ++t;
      expr(t);
      if (t->kind != ')') { bad = true; return; }
      ++t;
      break;
    case core::kTokIdent: {
      ++t;
      const char* name = tok->name();
      if (values::find_pseudo(name) >= 0) { bad = true; return; }
      if (values::find_builtin(name) >= 0) {
        if (hyper_function(t, name)) return;
        for (const auto& f : kFunctions) {
          if (std::strcmp(f.name, name) != 0) continue;
          if (t->kind != '(') break;
          ++t;
          expr(t);
          if (bad || t->kind != ')') { bad = true; return; }
          ++t;
          if (!ts.back().is_int() && !ts.back().is_float()) { bad = true; return; }
          unary_function(f.op);
          if (t->kind == '.') bad = true;
          return;
        }
        bad = true;
        return;
      }
      if (name[0] == 'F' && name[1] == 'N') { bad = true; return; }
      const std::uint8_t type = values::type_of_name(name);
      if (!values::is_numeric_type(type) && !(type == values::kHyper && hyper_ok())) { bad = true; return; }
      if (t->kind == '(') {
        int n;
        subscripts(t, &n);
        if (bad) return;
        for (int i = 0; i < n; ++i) pop();
        Descriptor* d = values::find_descriptor(name, true, type);
        const int at = emit(OP_LOAD_ELEM, type, static_cast<std::uint16_t>(n), reinterpret_cast<std::uint64_t>(tok));
        if (at >= 0) info(at).d = d;
        push(var_type(type), at);
      } else {
        Descriptor* d = values::find_descriptor(name, false, type);
        if (!d) {
          // Compiled code addresses the variable directly: it must exist.
          if (values::descriptor_count() >= values::kMaxDescriptors) { bad = true; return; }
          d = values::create_descriptor(name, false);
          if (!d) { bad = true; return; }
        }
        const int at = emit(OP_PUSH_VAR, type, 0, reinterpret_cast<std::uint64_t>(tok));
        if (at >= 0) info(at).d = d;
        push(var_type(type), at);
      }
      if (t->kind == '.') {
        // One component of an @ value, as a DOUBLE.
        const int c = type == values::kHyper && t[1].kind == core::kTokIdent ? values::component_index(t[1].name()) : -1;
        if (c < 0) { bad = true; return; }  // the interpreter names the error
        t += 2;
        pop();
        push(int_type(values::kDouble, 0), emit(OP_COMPONENT, static_cast<std::uint8_t>(c)));
        if (t->kind == '.') bad = true;
      }
      break;
    }
    default:
      bad = true;
  }
}

// Store the top of the stack into a scalar (24) and drop it (25).
void Compiler::store(std::uint8_t type, Descriptor* d) {
  const int at = emit(OP_STORE_VAR, type);
  if (at >= 0) {
    info(at).d = d;
    info(at).result = ts.empty() ? ValType{} : ts.back();
  }
  pop();
  emit(OP_DISCARD);
}

Result Compiler::assignment(const Token*& t) {
  if (t->kind == core::KW_LET) ++t;
  if (t->kind != core::kTokIdent) return Result::Fallback;
  const Token* tok = t;
  const char* name = tok->name();
  if (values::is_read_only_name(name) || values::find_pseudo(name) >= 0) return Result::Fallback;
  const std::uint8_t type = values::type_of_name(name);
  if (!values::is_numeric_type(type) && !(type == values::kHyper && hyper_ok())) return Result::Fallback;
  ++t;
  if (t->kind == '(') {
    int n;
    subscripts(t, &n);
    if (bad || t->kind != '=') return Result::Fallback;
    ++t;
    Descriptor* d = values::find_descriptor(name, true, type);
    const int addr_at = here() - 1;  // the element is addressed once its subscripts are known
    info(addr_at).store_addr = static_cast<std::int16_t>(n);
    expr(t);
    if (bad || !at_end(t)) return Result::Fallback;
    const ValType v = pop();
    if (!v.is_int() && !v.is_float() && !(type == values::kHyper && v.type == values::kHyper)) return Result::Fallback;
    for (int i = 0; i < n; ++i) pop();
    const int at = emit(OP_STORE_ELEM, type, static_cast<std::uint16_t>(n), reinterpret_cast<std::uint64_t>(tok));
    if (at >= 0) {
      info(at).d = d;
      info(at).result = v;
      info(addr_at).id = static_cast<std::int16_t>(at);
    }
    emit(OP_DISCARD);  // the stored value stays on the stack
    return bad ? Result::Fallback : Result::Ok;
  }
  if (t->kind != '=') return Result::Fallback;
  ++t;
  Descriptor* d = values::find_descriptor(name, false, type);
  if (!d) {
    if (values::descriptor_count() >= values::kMaxDescriptors) return Result::Fallback;
    d = values::create_descriptor(name, false);
    if (!d) return Result::Fallback;
  }
  expr(t);
  if (bad || !at_end(t) || ts.size() != 1) return Result::Fallback;
  if (!ts.back().is_int() && !ts.back().is_float() && !(type == values::kHyper && ts.back().type == values::kHyper))
    return Result::Fallback;
  store(type, d);
  return bad ? Result::Fallback : Result::Ok;
}

bool Compiler::literal_target(const Token*& t, std::uint32_t* index) {
  if (t->kind != core::kTokNumber || t->type > values::kInt64) return false;
  const std::int64_t n = t->i64();
  if (n < 0 || n > 4294967294ll || !at_end(t + 1)) return false;
  if (!core::find_line(static_cast<std::uint32_t>(n), index)) return false;
  ++t;
  return true;
}

Result Compiler::jump_statement(const Token*& t, bool gosub) {
  std::uint32_t index;
  if (!literal_target(t, &index)) return Result::Fallback;
  if (gosub) {
    // Where RETURN comes back to: behind this statement, as the interpreter pushes it.
    const Token* after = t;
    int depth = 0;
    for (; after->kind != core::kTokEnd; ++after) {
      if (after->kind == '(') ++depth;
      else if (after->kind == ')') --depth;
      else if (depth <= 0 && (after->kind == ':' || after->kind == core::KW_ELSE)) break;
    }
    R.gosubs.push_back(GosubSite{line, tok_index(after), static_cast<std::uint8_t>(if_depth)});
  }
  const int at = emit(gosub ? OP_GOSUB_LINE : OP_GOTO_LINE, 0, 0, core::line_index[index].number);
  if (at < 0) return Result::Fallback;
  ins(at).gen = index;
  if (gosub) info(at).id = static_cast<std::int16_t>(R.gosubs.size() - 1);
  transfers.push_back(Pending{at, index, loops});
  return Result::Ok;
}

Result Compiler::helper_statement(const Token*& t, std::uint8_t op) {
  const Token* p = t + 1;
  int depth = 0;
  for (; p->kind != core::kTokEnd; ++p) {
    if (p->kind == '(') ++depth;
    else if (p->kind == ')') --depth;
    else if (depth <= 0 && (p->kind == ':' || p->kind == core::KW_ELSE)) break;
  }
  if (emit(op, 0, 0, reinterpret_cast<std::uint64_t>(t)) < 0) return Result::Fallback;
  t = p;
  return Result::Ok;
}

bool Compiler::draw_value(const Token*& t, int* n) {
  expr(t);
  if (bad || ts.empty() || (!ts.back().is_int() && !ts.back().is_float())) return false;
  ++*n;
  return true;
}

// [STEP] (x, y)
bool Compiler::draw_point(const Token*& t, std::uint64_t step_bit, std::uint64_t* shape, int* n) {
  if (t->kind == core::KW_STEP) {
    *shape |= step_bit;
    ++t;
  }
  if (t->kind != '(') return false;
  ++t;
  if (!draw_value(t, n) || t->kind != ',') return false;
  ++t;
  if (!draw_value(t, n) || t->kind != ')') return false;
  ++t;
  return true;
}

// PSET/PRESET [STEP](x,y)[,colour | ,r,g,b] and
// LINE [[STEP](x,y)]-[STEP](x,y) [, [colour | r,g,b] [, [B|BF] [, style]]] [, XOR]
// with the fields sorted as the interpreter sorts them: the values are left
// on the stack (coordinates, colour, style) and the shape says what they are.
Result Compiler::draw_statement(const Token*& t) {
  const std::uint8_t op = t->kind == core::KW_LINE ? OP_LINE : OP_PSET;
  std::uint64_t shape = t->kind == core::KW_PRESET ? std::uint64_t{kDrawPreset} : op == OP_LINE ? std::uint64_t{kDrawLine} : 0;
  int n = 0;
  ++t;
  if (op == OP_PSET) {
    if (!draw_point(t, kDrawStep, &shape, &n)) return Result::Fallback;
    int colours = 0;
    if (t->kind == ',') {
      ++t;
      if (!draw_value(t, &n)) return Result::Fallback;
      colours = 1;
      if (t->kind == ',') {
        ++t;
        if (!draw_value(t, &n) || t->kind != ',') return Result::Fallback;
        ++t;
        if (!draw_value(t, &n)) return Result::Fallback;
        colours = 3;
      }
    }
    shape |= static_cast<std::uint64_t>(colours) << kDrawColourShift;
  } else {
    if (t->kind == '(' || t->kind == core::KW_STEP) {
      shape |= kDrawHasStart;
      if (!draw_point(t, kDrawFromStep, &shape, &n)) return Result::Fallback;
    }
    if (t->kind != '-') return Result::Fallback;
    ++t;
    if (!draw_point(t, kDrawStep, &shape, &n)) return Result::Fallback;
    enum Field { kEmpty, kNumber, kB, kBF, kXor };
    std::vector<Field> f;
    while (t->kind == ',') {
      ++t;
      const bool word = t->kind == core::kTokIdent && (t[1].kind == ',' || at_end(t + 1));
      if (at_end(t) || t->kind == ',') {
        f.push_back(kEmpty);
      } else if (word && std::strcmp(t->name(), "B") == 0) {
        f.push_back(kB);
        ++t;
      } else if (word && std::strcmp(t->name(), "BF") == 0) {
        f.push_back(kBF);
        ++t;
      } else if (t->kind == core::KW_XOR) {
        f.push_back(kXor);
        ++t;
      } else {
        if (!draw_value(t, &n)) return Result::Fallback;
        f.push_back(kNumber);
      }
    }
    if (!f.empty() && f.back() == kXor) {
      shape |= kDrawXor;
      f.pop_back();
    }
    auto is = [&](std::size_t k, Field kind) { return k < f.size() && f[k] == kind; };
    std::size_t i = 0;
    if (is(0, kNumber) && is(1, kNumber) && is(2, kNumber)) {
      shape |= std::uint64_t{3} << kDrawColourShift;
      i = 3;
    } else if (is(0, kNumber) || is(0, kEmpty)) {
      if (is(0, kNumber)) shape |= std::uint64_t{1} << kDrawColourShift;
      i = 1;
    }
    if (i < f.size()) {
      if (is(i, kB)) shape |= std::uint64_t{kDrawBoxOutline} << kDrawBoxShift;
      else if (is(i, kBF)) shape |= std::uint64_t{kDrawBoxFilled} << kDrawBoxShift;
      else if (!is(i, kEmpty)) return Result::Fallback;
      ++i;
    }
    if (i < f.size()) {
      if (is(i, kNumber)) shape |= kDrawStyle;
      else if (!is(i, kEmpty)) return Result::Fallback;
      ++i;
    }
    if (i < f.size()) return Result::Fallback;
  }
  if (!at_end(t) || n > static_cast<int>(sizeof(NativeFrame::subs) / sizeof(NativeFrame::subs[0])))
    return Result::Fallback;
  for (int k = 0; k < n; ++k) pop();
  return emit(op, 0, static_cast<std::uint16_t>(n), shape) < 0 ? Result::Fallback : Result::Ok;
}

Result Compiler::if_statement(const Token*& t) {
  ++t;
  expr(t);
  if (bad || ts.size() != 1) return Result::Fallback;
  const ValType c = pop();
  if (!c.is_int() && !c.is_float()) return Result::Fallback;
  const bool via_goto = t->kind == core::KW_GOTO;
  if (t->kind != core::KW_THEN && !via_goto) return Result::Fallback;
  if (if_depth + 1 >= kMaxIfDepth) return Result::Fallback;
  ++t;
  const Token* then_part = t;
  // The false branch: this IF's ELSE, as the interpreter pairs them.
  const Token* e = then_part;
  for (int depth = 0; e->kind != core::kTokEnd; ++e) {
    if (e->kind == core::KW_IF) ++depth;
    else if (e->kind == core::KW_ELSE) {
      if (depth == 0) break;
      --depth;
    }
  }
  const int branch = emit(OP_BRANCH_FALSE);
  if (branch < 0) return Result::Fallback;
  const int saved_stmt = stmt;
  const bool saved_branch = in_branch;
  in_branch = true;
  // THEN part.
  if (via_goto || then_part->kind == core::kTokNumber) {
    const Token* p = then_part;
    std::uint32_t index;
    if (!literal_target(p, &index)) return Result::Fallback;
    t = then_part;
    if (jump_statement(t, false) != Result::Ok) return Result::Fallback;
  } else {
    ++if_depth;
    t = then_part;
    const Result r = sequence(t);
    --if_depth;
    if (r == Result::Fail) return r;
  }
  const int skip = emit(OP_JUMP);
  if (skip < 0) return Result::Fail;
  eol_jumps.push_back(skip);
  set_rel(branch, here());
  // ELSE part (or nothing: the rest of the line is skipped).
  stmt = saved_stmt;
  if (e->kind == core::KW_ELSE) {
    t = e + 1;
    if (t->kind == core::kTokNumber) {
      if (jump_statement(t, false) != Result::Ok) {
        bad = false;
        fallback(static_cast<std::uint32_t>(e - base));
      }
    } else {
      const Result r = sequence(t);
      if (r == Result::Fail) return r;
    }
  }
  in_branch = saved_branch;
  while (t->kind != core::kTokEnd) ++t;
  return Result::Ok;
}

Result Compiler::for_statement(const Token*& t) {
  if (t[1].kind == core::KW_END || in_branch) return Result::Fallback;
  const Token* for_tok = t;
  ++t;
  if (t->kind != core::kTokIdent || t[1].kind != '=') return Result::Fallback;
  const char* name = t->name();
  if (values::find_pseudo(name) >= 0 || values::find_builtin(name) >= 0 || values::is_read_only_name(name))
    return Result::Fallback;
  const std::uint8_t type = values::type_of_name(name);
  if (!values::is_numeric_type(type) || R.fors.size() >= kMaxFors) return Result::Fallback;
  Descriptor* d = values::find_descriptor(name, false, type);
  if (!d) {
    if (values::descriptor_count() >= values::kMaxDescriptors) return Result::Fallback;
    d = values::create_descriptor(name, false);
    if (!d) return Result::Fallback;
  }
  t += 2;
  const int slot = static_cast<int>(R.fors.size());
  // The marker checks, before anything is evaluated, that the interpreter
  // would not treat this FOR differently (an active loop on the variable).
  info(here() - 1).role = kRoleForCheck;
  info(here() - 1).id = static_cast<std::int16_t>(slot);
  expr(t);
  if (bad || t->kind != core::KW_TO) return Result::Fallback;
  ++t;
  expr(t);
  ForInfo f{};
  f.d = d;
  f.var_type = type;
  f.step_const = true;
  f.step_sign = 1;
  if (t->kind == core::KW_STEP) {
    ++t;
    const Token* s = t;
    expr(t);
    if (bad) return Result::Fallback;
    if (t == s + 1 && s->kind == core::kTokNumber) {
      f.step_sign = s->type <= values::kInt64 ? (s->i64() > 0 ? 1 : s->i64() < 0 ? -1 : 0)
                                              : (s->f64() > 0 ? 1 : s->f64() < 0 ? -1 : 0);
    } else if (t == s + 2 && s->kind == '-' && s[1].kind == core::kTokNumber) {
      f.step_sign = s[1].type <= values::kInt64 ? (s[1].i64() > 0 ? -1 : s[1].i64() < 0 ? 1 : 0)
                                                : (s[1].f64() > 0 ? -1 : s[1].f64() < 0 ? 1 : 0);
    } else {
      f.step_const = false;
    }
  } else {
    const int at = emit(OP_PUSH_CONST, values::kInteger, 0, 1);
    push(int_type(values::kInteger, 1), at);
  }
  if (bad || !(t->kind == core::kTokEnd || t->kind == ':' || t->kind == core::KW_ELSE) || ts.size() != 3)
    return Result::Fallback;
  f.step = pop();
  f.limit = pop();
  const ValType start = pop();
  for (const ValType& v : {start, f.limit, f.step})
    if (!v.is_int() && !v.is_float()) return Result::Fallback;
  // An integer loop variable stepped by a floating STEP rounds through the
  // store rule each time: left to the interpreter.
  if (values::is_integer_type(type) && f.step.is_float()) return Result::Fallback;
  if (values::is_integer_type(type) && !values::is_integer_type(f.limit.type) && !float_rank(f.limit)) return Result::Fallback;
  f.end_line = line;
  f.end_pos = tok_index(t);
  f.for_line = line;
  f.for_pos = tok_index(for_tok);
  for (int i = 0; i < slot; ++i)
    if (R.fors[static_cast<std::size_t>(i)].d == d) {
      f.same_var.push_back(i);
      R.fors[static_cast<std::size_t>(i)].same_var.push_back(slot);
    }
  R.fors.push_back(f);
  const int at = emit(OP_FOR, type, static_cast<std::uint16_t>(slot));
  if (at < 0) return Result::Fallback;
  info(at).d = d;
  info(at).id = static_cast<std::int16_t>(slot);
  info(at).result = start;
  loops.push_back(LoopCtx{1, slot});
  return Result::Ok;
}

Result Compiler::next_statement(const Token*& t) {
  if (in_branch) return Result::Fallback;
  ++t;
  if (loops.empty() || loops.back().kind != 1) return Result::Fallback;
  const int slot = loops.back().id;
  const ForInfo& f = R.fors[static_cast<std::size_t>(slot)];
  if (t->kind == core::kTokIdent) {
    if (values::type_of_name(t->name()) != f.var_type ||
        values::find_descriptor(t->name(), false, f.var_type) != f.d)
      return Result::Fallback;
    ++t;
  }
  if (!(t->kind == core::kTokEnd || t->kind == ':' || t->kind == core::KW_ELSE)) return Result::Fallback;
  const int at = emit(OP_NEXT, f.var_type, static_cast<std::uint16_t>(slot));
  if (at < 0) return Result::Fallback;
  info(at).d = f.d;
  info(at).id = static_cast<std::int16_t>(slot);
  loops.pop_back();
  // FOR's exit target: just behind this NEXT; NEXT's target: the loop body.
  for (int i = at - 1; i >= 0; --i)
    if (ins(i).op == OP_FOR && ins(i).count == slot) {
      ins(i).position = static_cast<std::uint32_t>(at + 1);
      ins(at).position = static_cast<std::uint32_t>(i + 1);
      break;
    }
  return Result::Ok;
}

Result Compiler::while_statement(const Token*& t) {
  if (t[1].kind == core::KW_END || in_branch) return Result::Fallback;
  const std::uint32_t pos = tok_index(t);
  ++t;
  expr(t);
  if (bad || !(t->kind == core::kTokEnd || t->kind == ':') || ts.size() != 1) return Result::Fallback;
  const ValType c = pop();
  if (!c.is_int() && !c.is_float()) return Result::Fallback;
  R.whiles.push_back(WhileInfo{line, pos});
  const int w = static_cast<int>(R.whiles.size()) - 1;
  R.stmts[static_cast<std::size_t>(stmt)].while_id = static_cast<std::int16_t>(w);
  const int at = emit(OP_BRANCH_FALSE);
  if (at < 0) return Result::Fallback;
  info(at).role = kRoleWhileTest;
  info(at).id = static_cast<std::int16_t>(w);
  loops.push_back(LoopCtx{2, w});
  return Result::Ok;
}

Result Compiler::wend_statement(const Token*& t) {
  if (in_branch) return Result::Fallback;
  ++t;
  if (loops.empty() || loops.back().kind != 2) return Result::Fallback;
  if (!(t->kind == core::kTokEnd || t->kind == ':' || t->kind == core::KW_ELSE)) return Result::Fallback;
  const int w = loops.back().id;
  const int at = emit(OP_JUMP);
  if (at < 0) return Result::Fallback;
  info(at).role = kRoleWend;
  info(at).id = static_cast<std::int16_t>(w);
  loops.pop_back();
  // Back to the WHILE's statement marker; its test leaves to just behind here.
  for (int i = at - 1; i >= 0; --i)
    if (ins(i).op == OP_BRANCH_FALSE && info(i).role == kRoleWhileTest && info(i).id == w) {
      int marker = i;
      while (marker > 0 && ins(marker).op != OP_STATEMENT) --marker;
      set_rel(at, marker);
      set_rel(i, at + 1);
      break;
    }
  return Result::Ok;
}

void Compiler::fallback(std::uint32_t pos) {
  R.stmts.push_back(StmtInfo{line, pos, static_cast<std::uint8_t>(if_depth)});
  stmt = static_cast<int>(R.stmts.size()) - 1;
  Instr in{};
  in.op = OP_FALLBACK;
  in.line = line;
  in.position = pos;
  in.operand = static_cast<std::uint64_t>(stmt);
  R.code.push_back(in);
  InstrInfo i;
  i.stmt = stmt;
  R.info.push_back(i);
}

Result Compiler::statement(const Token*& t) {
  const std::size_t code_size = R.code.size(), stmts_size = R.stmts.size(), fors_size = R.fors.size(),
                    whiles_size = R.whiles.size(), gosubs_size = R.gosubs.size(),
                    transfers_size = transfers.size(), eol_size = eol_jumps.size();
  const std::uint32_t start = tok_index(t);
  const std::vector<LoopCtx> saved_loops = loops;
  bad = false;
  ts.clear();
  new_stmt(t);
  Result r;
  switch (t->kind) {
    case core::KW_REM:
      while (t->kind != core::kTokEnd) ++t;
      r = Result::Ok;
      break;
    case core::KW_LET:
    case core::kTokIdent:
      if (t->kind == core::kTokIdent && t[1].kind != '=' && t[1].kind != '(') r = Result::Fallback;
      else r = assignment(t);
      break;
    case core::KW_IF: r = if_statement(t); break;
    case core::KW_FOR: r = for_statement(t); break;
    case core::KW_NEXT: r = next_statement(t); break;
    case core::KW_WHILE: r = while_statement(t); break;
    case core::KW_WEND: r = wend_statement(t); break;
    case core::KW_GOTO: ++t; r = jump_statement(t, false); break;
    case core::KW_GOSUB: ++t; r = jump_statement(t, true); break;
    case core::KW_RETURN:
      ++t;
      r = at_end(t) && emit(OP_RETURN) >= 0 ? Result::Ok : Result::Fallback;
      break;
    case core::KW_END:
      ++t;
      r = at_end(t) && emit(OP_END) >= 0 ? Result::Ok : Result::Fallback;
      break;
    case core::KW_PRINT: r = helper_statement(t, OP_PRINT); break;
    case core::KW_LOCATE: r = helper_statement(t, OP_LOCATE); break;
    case core::KW_COLOR: r = helper_statement(t, OP_COLOR); break;
    // Drawing runs through the graphics statements themselves, so a drawing
    // loop stays native around them.
    // PARFOR workers cannot enter the interpreter's statements: their
    // drawing takes its arguments from the evaluation stack.
    case core::KW_PSET:
    case core::KW_PRESET: r = compiling_parfor ? draw_statement(t) : helper_statement(t, OP_PSET); break;
    case core::KW_LINE:
      r = t[1].kind == core::KW_INPUT ? Result::Fallback
          : compiling_parfor          ? draw_statement(t)
                                      : helper_statement(t, OP_LINE);
      break;
    default: r = Result::Fallback; break;
  }
  if (r == Result::Ok && bad) r = Result::Fallback;
  if (r == Result::Fallback) {
    R.code.resize(code_size);
    R.info.resize(code_size);
    R.stmts.resize(stmts_size);
    R.fors.resize(fors_size);
    for (ForInfo& f : R.fors)
      while (!f.same_var.empty() && f.same_var.back() >= static_cast<int>(fors_size)) f.same_var.pop_back();
    R.whiles.resize(whiles_size);
    R.gosubs.resize(gosubs_size);
    transfers.resize(transfers_size);
    eol_jumps.resize(eol_size);
    loops = saved_loops;
    // A loop is native or interpreted as a whole.
    if (!loops.empty()) return Result::Fail;
    fallback(start);
  }
  return r;
}

// Statements up to an ELSE or the line's end.
Result Compiler::sequence(const Token*& t) {
  for (;;) {
    while (t->kind == ':') ++t;
    if (t->kind == core::kTokEnd) return Result::Ok;
    if (t->kind == core::KW_ELSE) {
      if (if_depth > 0) {
        const int j = emit(OP_JUMP);
        if (j < 0) return Result::Fail;
        eol_jumps.push_back(j);
        while (t->kind != core::kTokEnd) ++t;
        return Result::Ok;
      }
      if (!loops.empty()) return Result::Fail;
      fallback(tok_index(t));
      return Result::Fallback;
    }
    const Result r = statement(t);
    if (r != Result::Ok) return r;
    if (!(t->kind == core::kTokEnd || t->kind == ':' || t->kind == core::KW_ELSE)) {
      if (!loops.empty()) return Result::Fail;
      fallback(tok_index(t));
      return Result::Fallback;
    }
  }
}

bool Compiler::run(std::uint32_t first_line, std::uint32_t pos, const char** why) {
  line = first_line;
  R.first_line = first_line;
  std::uint32_t lines_done = 0;
  for (;;) {
    base = core::line_tokens(line);
    if (!base) {
      if (!loops.empty()) { *why = "a line that does not tokenize"; return false; }
      fallback(pos);
      break;
    }
    if (pos == 0) line_starts.push_back(LineStart{line, here(), loops});
    const Token* t = base + pos;
    if_depth = 0;
    in_branch = false;
    eol_jumps.clear();
    const Result r = sequence(t);
    if (r == Result::Fail) { *why = "a loop with a statement that is not compiled"; return false; }
    for (int j : eol_jumps) set_rel(j, here());
    eol_jumps.clear();
    R.last_line = line;
    if (r == Result::Fallback) break;
    if (line + 1 >= core::program.lines || ++lines_done >= kMaxLines) {
      if (!loops.empty()) { *why = "a loop that does not close"; return false; }
      // Past the last line: the interpreter ends the run at this line's end.
      end_of_program(line);
      break;
    }
    ++line;
    pos = 0;
  }
  if (compiling_parfor) add_subroutines();
  // Literal targets inside the region become jumps within it when the loops
  // open at both ends are the same; others leave the region.
  for (const Pending& p : transfers) {
    for (const LineStart& ls : line_starts) {
      if (ls.line != p.target_index) continue;
      Instr& in = ins(p.instr);
      if (in.op == OP_GOTO_LINE && ls.ctx == p.ctx) {
        in.op = OP_GOTO_LOCAL;
        set_rel(p.instr, ls.instr);
      } else if (in.op == OP_GOSUB_LINE && ls.ctx.empty()) {
        in.op = OP_GOSUB_LOCAL;
        set_rel(p.instr, ls.instr);
      }
      break;
    }
  }
  if (R.code.empty() || R.code.front().op == OP_FALLBACK ||
      (R.code.size() >= 2 && R.code[0].op == OP_STATEMENT && R.code[1].op == OP_FALLBACK)) {
    *why = "nothing to compile";
    return false;
  }
  return true;
}

void Compiler::cut(const Mark& m) {
  R.code.resize(m.code);
  R.info.resize(m.code);
  R.stmts.resize(m.stmts);
  R.fors.resize(m.fors);
  for (ForInfo& f : R.fors)
    while (!f.same_var.empty() && f.same_var.back() >= static_cast<int>(m.fors)) f.same_var.pop_back();
  R.whiles.resize(m.whiles);
  R.gosubs.resize(m.gosubs);
  transfers.resize(m.transfers);
  line_starts.resize(m.line_starts);
  loops.clear();
  eol_jumps.clear();
}

// The lines from `target` on, appended to the region, up to a statement that
// is not compiled, the program's end, or a line that ends in RETURN, GOTO or
// END outside any loop (what follows it is reached by a jump, and a jumped-to
// line gets a segment of its own). A loop that does not compile ends the
// segment before the line that opened it.
void Compiler::segment(std::uint32_t target) {
  line = target;
  loops.clear();
  stmt = -1;
  Mark safe = mark();
  std::uint32_t safe_line = line;
  for (std::uint32_t lines_done = 0;; ++line) {
    base = core::line_tokens(line);
    if (!base) {
      cut(safe);
      line = safe_line;
      fallback(0);
      return;
    }
    if (loops.empty()) {
      safe = mark();
      safe_line = line;
    }
    line_starts.push_back(LineStart{line, here(), loops});
    const Token* t = base;
    if_depth = 0;
    in_branch = false;
    eol_jumps.clear();
    const Result r = sequence(t);
    if (r == Result::Fail) {
      cut(safe);
      line = safe_line;
      fallback(0);
      return;
    }
    const bool falls_off = !eol_jumps.empty();
    for (int j : eol_jumps) set_rel(j, here());
    eol_jumps.clear();
    if (r == Result::Fallback) return;
    const std::uint8_t last = R.code.empty() ? 0 : R.code.back().op;
    if (loops.empty() && !falls_off && (last == OP_RETURN || last == OP_GOTO_LINE || last == OP_END)) return;
    if (line + 1 >= core::program.lines || ++lines_done >= kMaxLines) {
      if (!loops.empty()) {
        cut(safe);
        line = safe_line;
        fallback(0);
        return;
      }
      end_of_program(line);
      return;
    }
  }
}

void Compiler::add_subroutines() {
  for (std::size_t k = 0; k < transfers.size(); ++k) {
    const std::uint32_t target = transfers[k].target_index;
    bool covered = false;
    for (const LineStart& ls : line_starts)
      if (ls.line == target) covered = true;
    if (covered) continue;
    if (R.segments >= kMaxSegments || here() >= kMaxInstructions - 2) {
      R.segments_full = true;
      return;
    }
    ++R.segments;
    segment(target);
  }
}

// NEXT and WEND close loops that the statement alone does not see open.
bool Compiler::capable(std::uint32_t at_line, std::uint32_t pos) {
  line = at_line;
  base = core::line_tokens(line);
  if (!base) return false;
  const Token* t = base + pos;
  if (t->kind == core::KW_NEXT || t->kind == core::KW_WEND) {
    ++t;
    if (t->kind == core::kTokIdent && t[-1].kind == core::KW_NEXT) ++t;
    return at_end(t);
  }
  return statement(t) == Result::Ok;
}

}  // namespace

bool statement_capable(std::uint32_t line, std::uint32_t pos) {
  RegionCode rc;
  Compiler c(&rc);
  return c.capable(line, pos);
}

bool compile_region(std::uint32_t line, std::uint32_t pos, RegionCode* out, const char** why) {
  *out = RegionCode{};
  *why = "";
  Compiler c(out);
  return c.run(line, pos, why);
}

}  // namespace jit
