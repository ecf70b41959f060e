// The code generator: verified bytecode with static types to x86-64.
//
// Register plan. R12 holds the frame, RBX the descriptor table (every scalar
// is [RBX + disp32]), R15 the top of the loop/GOSUB mirror, R13 the countdown
// to the next poll. Evaluation-stack slot d lives in GPR_SLOT[d] when its
// static type is an integer and in XMM_SLOT[d] when it is floating; RAX, RCX,
// RDX, XMM0 and XMM1 are scratch. Helper calls spill the live slots to the
// frame and reload them afterwards. Checks that fail jump to cold stubs at
// the end of the code, which record the statement and leave.
//
// Innermost loops also keep their scalars in registers: the slot registers
// the loop's expressions never reach, and XMM11-XMM15. Every store still
// goes to memory as well (write-through), so exits, errors and helpers see
// current values and only the loop's own reads come from registers; what a
// helper call clobbers is reloaded after it.
#include <cstddef>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <functional>
#include <map>

#include "host/platform.h"
#include "jit/codegen_hyper.h"
#include "jit/native.h"
#include "jit/x64.h"
#include "values/builtins.h"
#include "values/ops.h"

namespace jit {

namespace {

constexpr double kUnbounded = std::numeric_limits<double>::infinity();
constexpr Reg GPR_SLOT[8] = {RSI, RDI, R8, R9, R10, R11, R14, RBP};
constexpr Xmm XMM_SLOT[8] = {X2, X3, X4, X5, X6, X7, X8, X9};
#ifdef _WIN32
constexpr Reg ARG[4] = {RCX, RDX, R8, R9};
constexpr bool kWin64 = true;
#else
constexpr Reg ARG[4] = {RDI, RSI, RDX, RCX};
constexpr bool kWin64 = false;
#endif

#define F(field) static_cast<std::int32_t>(offsetof(NativeFrame, field))

constexpr std::int32_t kValueType = static_cast<std::int32_t>(offsetof(values::Value, type));
constexpr std::int32_t kValuePayload = static_cast<std::int32_t>(offsetof(values::Value, i));
constexpr std::int32_t kDescValue = static_cast<std::int32_t>(offsetof(values::Descriptor, value));

std::uint32_t for_key(int slot) { return kMirrorFor << 16 | static_cast<std::uint32_t>(slot); }
std::uint32_t while_key(int w) { return kMirrorWhile << 16 | static_cast<std::uint32_t>(w); }

std::int32_t for_field(int slot, std::size_t field) {
  return F(fors) + slot * static_cast<std::int32_t>(sizeof(ForSlot)) + static_cast<std::int32_t>(field);
}

Cond invert(Cond c) { return static_cast<Cond>(c ^ 1); }

bool produces_value(std::uint8_t op) {
  switch (op) {
    case OP_STATEMENT: case OP_DISCARD: case OP_JUMP: case OP_BRANCH_FALSE: case OP_FOR: case OP_NEXT:
    case OP_GOTO_LOCAL: case OP_GOTO_LINE: case OP_GOSUB_LOCAL: case OP_GOSUB_LINE: case OP_RETURN:
    case OP_FALLBACK: case OP_END: case OP_PRINT: case OP_LOCATE: case OP_COLOR: case OP_STORE_ELEM:
    case OP_PSET: case OP_LINE:
      return false;
    default:
      return true;
  }
}

class Gen {
 public:
  Gen(const RegionCode& rc, const int* depth) : rc_(rc), depth_(depth) {}
  bool run();
  Assembler a;
  std::vector<std::uint32_t> offsets;

 private:
  HyperCode hyper_{a, [this](int msg) { return error_stub(msg); }};
  bool touches_hyper(int i) const;
  void hyper_instruction(int i, int d);
  const RegionCode& rc_;
  const int* depth_;
  std::vector<ValType> st_;   // static type per stack depth
  // A bound on the magnitude of each slot's value (infinity: none known).
  // Floating arithmetic whose result provably stays below the SINGLE range
  // skips its overflow test.
  std::vector<double> bd_;
  // Slots holding an integer known at compile time (literals, and the
  // counter of an unrolled loop).
  std::vector<bool> kk_;
  std::vector<std::int64_t> kv_;
  const values::Descriptor* unrolled_var_ = nullptr;  // the counter of the pass being laid out
  std::int64_t unrolled_value_ = 0;
  // Literal operands of floating arithmetic are read from a pool behind the
  // code instead of being built in a register: (bits, is SINGLE) -> label.
  std::map<std::pair<std::uint64_t, bool>, int> pool_;
  std::vector<bool> pooled_;  // per slot: a literal left in the pool
  // Per slot: an element address known as block register + displacement
  // (a constant subscript of a register-held array); RSP when none.
  std::vector<Reg> ab_;
  std::vector<std::int32_t> ad_;
  // ... or block register + subscript register x scale + displacement.
  std::vector<Reg> ai_;
  std::vector<std::uint8_t> as_;
  Mem element_at(std::size_t k) const { return ai_[k] != RSP ? mem(ab_[k], ai_[k], as_[k], ad_[k]) : mem(ab_[k], ad_[k]); }
  std::vector<bool> elide_;  // per instruction: a FOR literal the FOR itself writes
  // Per slot: the integer type of the variable or element it was loaded
  // from unchanged (0: computed), so storing it back needs no range test.
  std::vector<std::uint8_t> loaded_;
  // Per slot: an integer literal not materialised, because the instruction
  // after it takes it as an immediate operand.
  std::vector<bool> imm_;
  // Per slot: the loop register that holds it, when it is a loop scalar
  // whose one reader only reads it (RSP: the value is in the slot).
  std::vector<Reg> rg_;
  bool rg_next_ = false;
  Reg src(int d) const { return rg_[static_cast<std::size_t>(d)] != RSP ? rg_[static_cast<std::size_t>(d)] : g(d); }
  static bool reads_ints(std::uint8_t op) {
    switch (op) {
      case OP_ADD: case OP_SUB: case OP_MUL: case OP_AND: case OP_OR: case OP_XOR:
      case OP_EQ: case OP_NE: case OP_LT: case OP_LE: case OP_GT: case OP_GE:
        return true;
      default:
        return false;
    }
  }
  // The cached integer scalar pushed at i is read by an instruction that
  // takes it from its loop register: an array's single subscript, or an
  // operand of integer arithmetic or a comparison.
  bool forwardable(int i, int d) const {
    if (info(i).store_addr == 1) return true;
    if (info(i).store_addr > 0) return false;
    const int j = i + 1;
    if (j >= count() || depth_[j] != d + 1 || skip_[static_cast<std::size_t>(j)]) return false;
    const Instr& nx = ins(j);
    if (nx.op == OP_LOAD_ELEM) return nx.count == 1 && !touches_hyper(j);
    if (reads_ints(nx.op)) return d >= 1 && st_[static_cast<std::size_t>(d - 1)].is_int() && !touches_hyper(j);
    if ((nx.op == OP_PUSH_VAR || nx.op == OP_PUSH_CONST) && info(j).store_addr <= 0 &&
        !elide_[static_cast<std::size_t>(j)] && info(j).result.is_int()) {
      const int k = i + 2;
      return k < count() && depth_[k] == d + 2 && !skip_[static_cast<std::size_t>(k)] && reads_ints(ins(k).op) &&
             !touches_hyper(k);
    }
    return false;
  }
  bool imm_next_ = false;
  // The integer literal at i is the right operand of the integer operation
  // right after it, which can encode it as a 32-bit immediate.
  bool immediate_operand(int i, int d) const {
    const Instr& in = ins(i);
    if (in.type > values::kInt64 || d < 1 || !st_[static_cast<std::size_t>(d - 1)].is_int()) return false;
    const auto v = static_cast<std::int64_t>(in.operand);
    if (v != static_cast<std::int32_t>(v) || i + 1 >= count() || depth_[i + 1] != depth_[i] + 1 ||
        skip_[static_cast<std::size_t>(i + 1)])
      return false;
    switch (ins(i + 1).op) {
      case OP_ADD: case OP_SUB: case OP_AND: case OP_OR: case OP_XOR:
      case OP_EQ: case OP_NE: case OP_LT: case OP_LE: case OP_GT: case OP_GE:
        return true;
      case OP_STORE_ELEM: {
        const std::uint8_t t = ins(i + 1).type;
        return (t == values::kInteger && v == static_cast<std::int16_t>(v)) || t == values::kLong ||
               t == values::kInt64;
      }
      default:
        return false;
    }
  }
  int pool_label(double v, bool single) {
    std::uint64_t bits = 0;
    if (single) {
      const float f = static_cast<float>(v);
      std::uint32_t b;
      std::memcpy(&b, &f, 4);
      bits = b;
    } else {
      std::memcpy(&bits, &v, 8);
    }
    auto it = pool_.find({bits, single});
    if (it != pool_.end()) return it->second;
    const int l = a.new_label();
    pool_[{bits, single}] = l;
    return l;
  }
  std::vector<int> labels_;   // one per instruction
  int epilogue_ = -1;
  int stmt_ = 0;              // statement of the instruction in hand
  int cur_ = 0;               // the instruction in hand
  struct Loop;
  // (stmt, msg or code, the loop whose scalars the stub writes back) -> label
  std::map<std::tuple<int, int, const Loop*>, int> error_stubs_;
  std::map<std::tuple<int, int, const Loop*>, int> exit_stubs_;
  std::map<std::pair<const Loop*, int>, int> way_out_;  // (loop, target) -> label
  std::vector<std::function<void()>> cold_;
  std::vector<bool> skip_;    // fused into the previous instruction
  ValType info_result_;       // the result type of the instruction in hand

  // A scalar kept in a register through an innermost loop.
  struct Cached {
    const values::Descriptor* d;
    std::uint8_t type;
    std::uint8_t reg;  // a Reg for integer types, an Xmm for SINGLE and DOUBLE
    int uses;
    bool dirty = false;  // assigned in the loop: written back on the way out
  };
  // An array addressed in an innermost loop: its block and its element
  // count (0 when it is not a dimensioned one-dimensional array, so that
  // every access fails over to the full check) are held in registers.
  struct CachedArray {
    const values::Descriptor* d;
    Reg block, count;
  };
  struct Loop {
    int head, tail;
    std::vector<Cached> vars;
    std::vector<CachedArray> arrays;
    // Entered only at its head, no other loop or FOR inside, and any GOSUB
    // goes to a subroutine outside it: the loop mirror cannot change in its
    // body. (A subroutine that comes back natively leaves the mirror as it
    // found it: its RETURN checks that its own entry is on top.)
    bool clean = false;
    bool calls = false;  // it has a GOSUB: the subroutine may assign anything
    std::vector<const values::Descriptor*> stored;  // scalars its body assigns
    // Assignments stay in the registers and reach memory only where the
    // loop's code is left: its end, a jump out, an exit to the interpreter,
    // a helper call, a GOSUB, the poll. (Not with hypercomplex code, which
    // borrows the registers, nor when unrolled, where memory holds the counter.)
    bool writeback = false;
  };
  // A FOR whose start, limit or step is an integer literal.
  struct ForConst {
    bool start_c = false, limit_c = false, step_c = false;
    std::int64_t start = 0, limit = 0, step = 0;
    bool all() const { return limit_c && step_c; }
  };
  std::vector<ForConst> for_const_;
  std::vector<const values::Descriptor*> region_stored_;  // every scalar the region assigns
  std::vector<Loop> loops_;
  std::vector<int> loop_head_;       // per instruction: the loop starting there, or -1
  const Loop* in_loop_ = nullptr;    // the loop whose body is being generated

  void plan_loops();
  const Cached* cached(const values::Descriptor* d) const {
    if (!in_loop_) return nullptr;
    for (const Cached& c : in_loop_->vars)
      if (c.d == d) return &c;
    return nullptr;
  }
  void load_cache() {
    if (!in_loop_) return;
    for (const Cached& c : in_loop_->vars) {
      const Mem m = var(c.d);
      switch (c.type) {
        case values::kInteger: a.load_s16(static_cast<Reg>(c.reg), m); break;
        case values::kLong: a.load_s32(static_cast<Reg>(c.reg), m); break;
        case values::kInt64: a.load64(static_cast<Reg>(c.reg), m); break;
        case values::kSingle: a.movss(static_cast<Xmm>(c.reg), m); break;
        default: a.movsd(static_cast<Xmm>(c.reg), m); break;
      }
    }
    for (const CachedArray& c : in_loop_->arrays) {
      const int invalid = a.new_label();
      a.alu(Assembler::XOR, c.count, c.count);
      a.load64(c.block, var(c.d));
      a.test(c.block, c.block);
      a.jcc(E, invalid);
      a.alu_mem_imm(Assembler::CMP, mem(c.block, 0), 1);
      a.jcc(NE, invalid);
      a.load64(c.count, mem(c.block, 8));  // the upper bound
      if (values::option_base == 0) a.alu_imm(Assembler::ADD, c.count, 1);
      a.bind(invalid);
    }
  }
  const CachedArray* cached_array(const values::Descriptor* d) const {
    if (!in_loop_ || (values::option_base != 0 && values::option_base != 1)) return nullptr;
    for (const CachedArray& c : in_loop_->arrays)
      if (c.d == d) return &c;
    return nullptr;
  }
  // After a store of `type` whose value is in register r: the cached copy.
  void update_cache(const values::Descriptor* d, int r) {
    const Cached* c = cached(d);
    if (!c) return;
    if (values::is_integer_type(c->type)) a.mov(static_cast<Reg>(c->reg), static_cast<Reg>(r));
    else a.movapd(static_cast<Xmm>(c->reg), static_cast<Xmm>(r));
  }

  // The scalar conversions write only the low lane and so wait for the
  // register's previous value; clearing it first (renamed away, free) cuts
  // that false dependency, which otherwise chains each statement's
  // arithmetic to whatever last used the register.
  void cvt_si2ss(Xmm d, Reg s) { a.xorps(d, d); a.cvtsi2ss(d, s); }
  void cvt_si2sd(Xmm d, Reg s) { a.xorps(d, d); a.cvtsi2sd(d, s); }
  void cvt_ss2sd(Xmm d, Xmm s) { if (d != s) a.xorps(d, d); a.cvtss2sd(d, s); }
  void cvt_ss2sd(Xmm d, const Mem& m) { a.xorps(d, d); a.cvtss2sd(d, m); }
  void cvt_sd2ss(Xmm d, Xmm s) { if (d != s) a.xorps(d, d); a.cvtsd2ss(d, s); }
  void cvt_sd2ss(Xmm d, const Mem& m) { a.xorps(d, d); a.cvtsd2ss(d, m); }

  Reg g(int d) const { return GPR_SLOT[d]; }
  Xmm x(int d) const { return XMM_SLOT[d]; }
  const InstrInfo& info(int i) const { return rc_.info[static_cast<std::size_t>(i)]; }
  const Instr& ins(int i) const { return rc_.code[static_cast<std::size_t>(i)]; }
  int count() const { return static_cast<int>(rc_.code.size()); }
  Mem var(const values::Descriptor* d) const {
    return mem(RBX, static_cast<std::int32_t>(reinterpret_cast<const std::uint8_t*>(d) -
                                              reinterpret_cast<const std::uint8_t*>(values::descriptor_table())) + kDescValue);
  }

  // While an unrolled loop's body is laid out: its FOR, whose mirror entry
  // is only made on the way out (the body's statements belong to it alone).
  int lazy_for_ = -1;
  void lazy_for_entry(int slot) {
    if (slot < 0) return;
    a.store32_imm(mem(R15, 0), static_cast<std::int32_t>(for_key(slot)));
    a.store32_imm(mem(R15, 4), static_cast<std::int32_t>(kMirrorFor));
    a.alu_imm(Assembler::ADD, R15, 16);
    a.alu32_mem_imm(Assembler::SUB, mem(R12, F(for_room)), 1);
    a.store8_imm(mem(R12, F(live) + slot), 1);
  }
  const Loop* dirty_loop() const { return in_loop_ && in_loop_->writeback ? in_loop_ : nullptr; }
  void flush_cache(const Loop* loop) {
    if (!loop || !loop->writeback) return;
    for (const Cached& c : loop->vars) {
      if (!c.dirty) continue;
      const Mem m = var(c.d);
      switch (c.type) {
        case values::kInteger: a.store16(m, static_cast<Reg>(c.reg)); break;
        case values::kLong: a.store32(m, static_cast<Reg>(c.reg)); break;
        case values::kInt64: a.store64(m, static_cast<Reg>(c.reg)); break;
        case values::kSingle: a.movss(m, static_cast<Xmm>(c.reg)); break;
        default: a.movsd(m, static_cast<Xmm>(c.reg)); break;
      }
    }
  }
  // The label a jump to instruction t takes: past a write-back of the
  // loop's scalars when it leaves the loop.
  int jump_label(int t) {
    const int l = labels_[static_cast<std::size_t>(t)];
    const Loop* loop = dirty_loop();
    if (!loop || (t >= loop->head && t <= loop->tail)) return l;
    auto it = way_out_.find({loop, t});
    if (it != way_out_.end()) return it->second;
    const int w = a.new_label();
    cold_.push_back([this, w, loop, l] {
      a.bind(w);
      flush_cache(loop);
      a.jmp(l);
    });
    way_out_[{loop, t}] = w;
    return w;
  }
  int error_stub(int msg) {
    const Loop* loop = dirty_loop();
    auto key = std::make_tuple(stmt_, msg, loop);
    auto it = error_stubs_.find(key);
    if (it != error_stubs_.end()) return it->second;
    const int l = a.new_label();
    const int s = stmt_;
    const int lazy = lazy_for_;
    cold_.push_back([this, l, s, msg, lazy, loop] {
      a.bind(l);
      flush_cache(loop);
      lazy_for_entry(lazy);
      a.store32_imm(mem(R12, F(exit_stmt)), s);
      a.store32_imm(mem(R12, F(error_msg)), msg);
      a.mov_imm(RAX, 0);
      a.jmp(epilogue_);
    });
    error_stubs_[key] = l;
    return l;
  }
  // `flush`: the loop's registers still hold its scalars (false where a
  // helper call has just written them back and clobbered the registers).
  int exit_stub(int stmt, int code, bool flush = true) {
    const Loop* loop = flush ? dirty_loop() : nullptr;
    auto key = std::make_tuple(stmt, code, loop);
    auto it = exit_stubs_.find(key);
    if (it != exit_stubs_.end()) return it->second;
    const int l = a.new_label();
    const int lazy = lazy_for_;
    cold_.push_back([this, l, stmt, code, lazy, loop] {
      a.bind(l);
      flush_cache(loop);
      lazy_for_entry(lazy);
      a.store32_imm(mem(R12, F(exit_stmt)), stmt);
      a.mov_imm(RAX, code);
      a.jmp(epilogue_);
    });
    exit_stubs_[key] = l;
    return l;
  }
  int resume_here() { return exit_stub(stmt_, kTransferResume); }

  void spill(int live) {
    for (int d = 0; d < live; ++d) {
      if (st_[static_cast<std::size_t>(d)].type == values::kHyper) continue;  // in the frame already
      if (st_[static_cast<std::size_t>(d)].is_float()) a.movsd(mem(R12, F(spill_f) + 8 * d), x(d));
      else a.store64(mem(R12, F(spill) + 8 * d), g(d));
    }
  }
  void reload(int live) {
    for (int d = 0; d < live; ++d) {
      if (st_[static_cast<std::size_t>(d)].type == values::kHyper) continue;
      if (st_[static_cast<std::size_t>(d)].is_float()) a.movsd(x(d), mem(R12, F(spill_f) + 8 * d));
      else a.load64(g(d), mem(R12, F(spill) + 8 * d));
    }
  }
  // Calls fn(frame, a1, a2); live slots below `live` survive. Result in RAX.
  void call(const void* fn, int live, std::int64_t a1 = 0, std::int64_t a2 = 0, int nargs = 1) {
    flush_cache(in_loop_);
    spill(live);
    a.mov(ARG[0], R12);
    if (nargs > 1) a.mov_imm(ARG[1], a1);
    if (nargs > 2) a.mov_imm(ARG[2], a2);
    a.mov_imm(RAX, reinterpret_cast<std::int64_t>(fn));
    a.call(RAX);
    reload(live);
    load_cache();
  }
  // A slot's value into tmp[k] as a value record of its static type.
  void to_tmp(int k, int d) {
    const ValType& t = st_[static_cast<std::size_t>(d)];
    const std::int32_t base = F(tmp) + k * static_cast<std::int32_t>(sizeof(values::Value));
    a.store8_imm(mem(R12, base + kValueType), t.type);
    if (t.type == values::kSingle) {
      cvt_ss2sd(X0, x(d));
      a.movsd(mem(R12, base + kValuePayload), X0);
    } else if (t.is_float()) {
      a.movsd(mem(R12, base + kValuePayload), x(d));
    } else {
      a.store64(mem(R12, base + kValuePayload), g(d));
    }
  }
  void from_tmp(int d, const ValType& t) {
    const std::int32_t base = F(tmp);
    if (t.type == values::kSingle) cvt_sd2ss(x(d), mem(R12, base + kValuePayload));
    else if (t.is_float()) a.movsd(x(d), mem(R12, base + kValuePayload));
    else a.load64(g(d), mem(R12, base + kValuePayload));
  }
  // SINGLE values live in registers as binary32 (their exact value): the
  // single-precision operations give the same bits as the double operation
  // rounded to single, and save the conversions on every step.
  bool sgl(int d) const { return st_[static_cast<std::size_t>(d)].type == values::kSingle; }
  void to_double(Xmm dst, int d) {
    if (sgl(d)) cvt_ss2sd(dst, x(d));
    else if (st_[static_cast<std::size_t>(d)].is_float()) a.movapd(dst, x(d));
    else cvt_si2sd(dst, g(d));
  }
  // Infinity or NaN in a binary32 register is "Overflow".
  void check_single(Xmm r) {
    a.movd(RAX, r);
    a.alu32_imm(Assembler::AND, RAX, 0x7F800000);
    a.alu32_imm(Assembler::CMP, RAX, 0x7F800000);
    a.jcc(E, error_stub(kMsgOverflow));
  }
  // A SINGLE result is rounded to binary32; infinity or NaN is "Overflow".
  void round_single(Xmm r) {
    cvt_sd2ss(r, r);
    check_single(r);
  }
  void check_finite(Xmm r) {
    a.movq(RAX, r);
    a.mov_imm(RCX, 0x7FF0000000000000ll);
    a.alu(Assembler::AND, RAX, RCX);
    a.alu(Assembler::CMP, RAX, RCX);
    a.jcc(E, error_stub(kMsgOverflow));
  }
  // Store the value in slot d into a typed slot at m (the store rule). The
  // register that held the stored value (a Reg or an Xmm by type) is returned.
  // The value in slot d converted and range-checked for a variable of
  // `type` at m, and stored there unless `to_memory` is false (a loop
  // scalar kept in its register). Returns the register holding it.
  int store_to(int d, std::uint8_t type, const Mem& m, int live, bool to_memory = true) {
    const ValType& v = st_[static_cast<std::size_t>(d)];
    if (values::is_integer_type(type)) {
      Reg r = g(d);
      if (v.is_float()) {
        to_tmp(0, d);
        call(reinterpret_cast<const void*>(&helper_f2i), live);
        a.test(RAX, RAX);
        a.jcc(E, error_stub(kMsgNone));
        a.load64(RAX, mem(R12, F(tmp) + kValuePayload));
        r = RAX;
      }
      const std::uint8_t from = loaded_[static_cast<std::size_t>(d)];
      const bool fits = v.is_int() && ((type == values::kInteger && (v.mag <= 32767.0 || from == values::kInteger)) ||
                                       (type == values::kLong && (v.mag <= 2147483647.0 || from == values::kInteger ||
                                                                   from == values::kLong)));
      if (fits) {
        if (to_memory && type == values::kInteger) a.store16(m, r);
        else if (to_memory) a.store32(m, r);
      } else if (type == values::kInteger) {
        a.sx16(RCX, r);
        a.alu(Assembler::CMP, RCX, r);
        a.jcc(NE, error_stub(kMsgOverflow));
        if (to_memory) a.store16(m, r);
      } else if (type == values::kLong) {
        a.sx32(RCX, r);
        a.alu(Assembler::CMP, RCX, r);
        a.jcc(NE, error_stub(kMsgOverflow));
        if (to_memory) a.store32(m, r);
      } else {
        if (to_memory) a.store64(m, r);
      }
      return r;
    }
    if (type == values::kSingle && v.type == values::kSingle) {
      if (to_memory) a.movss(m, x(d));
      return x(d);
    }
    if (type == values::kDouble && v.type == values::kDouble) {
      if (to_memory) a.movsd(m, x(d));
      return x(d);
    }
    to_double(X0, d);
    if (type == values::kSingle) {
      cvt_sd2ss(X0, X0);
      if (v.is_float() && !fits_single(bd(d))) {
        cvt_ss2sd(X1, X0);
        a.movq(RAX, X1);
        a.mov_imm(RCX, 0x7FF0000000000000ll);
        a.alu(Assembler::AND, RAX, RCX);
        a.alu(Assembler::CMP, RAX, RCX);
        a.jcc(E, error_stub(kMsgOverflow));
      }
      if (to_memory) a.movss(m, X0);
    } else {
      if (to_memory) a.movsd(m, X0);
    }
    return X0;
  }
  void load_from(int d, std::uint8_t type, const Mem& m) {
    switch (type) {
      case values::kInteger: a.load_s16(g(d), m); break;
      case values::kLong: a.load_s32(g(d), m); break;
      case values::kInt64: a.load64(g(d), m); break;
      case values::kSingle: a.movss(x(d), m); break;
      default: a.movsd(x(d), m); break;
    }
  }
  void load_from_reg(Reg r, std::uint8_t type, const Mem& m) {
    switch (type) {
      case values::kInteger: a.load_s16(r, m); break;
      case values::kLong: a.load_s32(r, m); break;
      default: a.load64(r, m); break;
    }
  }
  // RAX = the element `index` of an array block at `block` (elements from
  // byte 16). @ elements (72 bytes) are past what a scaled index can say.
  void element_lea(Reg block, Reg index, std::uint32_t width) {
    if (width <= 8) {
      a.lea(RAX, mem(block, index, static_cast<std::uint8_t>(width), 16));
      return;
    }
    a.imul_imm(RDX, index, static_cast<std::int32_t>(width));
    a.lea(RAX, mem(block, RDX, 1, 16));
  }
  // Subscripts in slots d0..d0+n-1 to an element address in RAX (the
  // interpreter's checks in its order). Floating subscripts are rounded first.
  // Returns true when the address went straight to dst, false when it is in RAX.
  // With `direct`, a load may instead get the element's addressing mode
  // there (direct->base != RSP) and no address is formed.
  bool element_address(int d0, int n, const values::Descriptor* d, std::uint8_t type, Reg dst = RAX,
                       Mem* direct = nullptr) {
    for (int k = 0; k < n; ++k) {
      if (!st_[static_cast<std::size_t>(d0 + k)].is_float()) continue;
      to_tmp(0, d0 + k);
      call(reinterpret_cast<const void*>(&helper_f2i), d0 + n);
      a.test(RAX, RAX);
      a.jcc(E, error_stub(kMsgNone));
      a.load64(g(d0 + k), mem(R12, F(tmp) + kValuePayload));
      st_[static_cast<std::size_t>(d0 + k)] = ValType{values::kInt64, 0};
    }
    if (!d) {
      a.jmp(error_stub(kMsgNotDimensioned));
      return false;
    }
    if (n == 1) {
      const Reg sub = src(d0);
      if (const CachedArray* c = cached_array(d)) {
        // One unsigned comparison with the count held since the loop head;
        // a failure (or an array that was not usable there) takes the full
        // check, which finds the message.
        const int slow = a.new_label();
        const int not_dim = error_stub(kMsgNotDimensioned), wrong = error_stub(kMsgWrongSubscripts),
                  range = error_stub(kMsgSubscript);
        const std::int32_t disp = var(d).disp;
        cold_.push_back([this, slow, not_dim, wrong, range, disp] {
          a.bind(slow);
          a.load64(RAX, mem(RBX, disp));
          a.test(RAX, RAX);
          a.jcc(E, not_dim);
          a.alu_mem_imm(Assembler::CMP, mem(RAX, 0), 1);
          a.jcc(NE, wrong);
          a.jmp(range);
        });
        const auto width = static_cast<std::uint8_t>(values::slot_width(type));
        std::int64_t k;
        if (known(d0, &k) && k - values::option_base >= 0 && k < (1 << 24)) {
          // A constant subscript: valid when the count exceeds it.
          const std::int64_t index = k - values::option_base;
          a.alu_imm(Assembler::CMP, c->count, static_cast<std::int32_t>(index));
          a.jcc(BE, slow);
          if (direct) {
            *direct = mem(c->block, static_cast<std::int32_t>(16 + index * width));
          } else if (dst == RAX) {
            a.lea(RAX, mem(c->block, static_cast<std::int32_t>(16 + index * width)));
          } else {
            ab_[static_cast<std::size_t>(d0)] = c->block;  // the store addresses it directly
            ad_[static_cast<std::size_t>(d0)] = static_cast<std::int32_t>(16 + index * width);
          }
          return true;
        }
        if (values::option_base == 0) {
          a.alu(Assembler::CMP, sub, c->count);
          a.jcc(AE, slow);
          if (direct && width <= 8) *direct = mem(c->block, sub, width, 16);
          else element_lea(c->block, sub, width);
        } else {
          a.lea(RCX, mem(sub, -1));
          a.alu(Assembler::CMP, RCX, c->count);
          a.jcc(AE, slow);
          if (direct && width <= 8) *direct = mem(c->block, sub, width, static_cast<std::int32_t>(16 - width));
          else element_lea(c->block, RCX, width);
        }
        return false;
      }
      a.load64(RAX, mem(RBX, var(d).disp));  // the block pointer, re-read: REDIM and ERASE move it
      a.test(RAX, RAX);
      a.jcc(E, error_stub(kMsgNotDimensioned));
      a.alu_mem_imm(Assembler::CMP, mem(RAX, 0), 1);
      a.jcc(NE, error_stub(kMsgWrongSubscripts));
      const std::uint32_t width = values::slot_width(type);
      if (values::option_base == 0 || values::option_base == 1) {
        // OPTION BASE is part of the region's mode word: a constant here.
        // One unsigned comparison covers both bounds.
        if (values::option_base == 0) {
          a.alu(Assembler::CMP, sub, mem(RAX, 8));
          a.jcc(A, error_stub(kMsgSubscript));
          if (direct && width <= 8) *direct = mem(RAX, sub, static_cast<std::uint8_t>(width), 16);
          else element_lea(RAX, sub, width);
        } else {
          a.lea(RCX, mem(sub, -1));
          a.alu(Assembler::CMP, RCX, mem(RAX, 8));
          a.jcc(AE, error_stub(kMsgSubscript));
          element_lea(RAX, RCX, width);
        }
        return false;
      }
      a.mov(RCX, sub);
      a.alu(Assembler::SUB, RCX, mem(R12, F(option_base)));
      a.load64(RDX, mem(RAX, 8));
      a.alu(Assembler::SUB, RDX, mem(R12, F(option_base)));
      a.alu(Assembler::CMP, RCX, RDX);
      a.jcc(A, error_stub(kMsgSubscript));
      element_lea(RAX, RCX, values::slot_width(type));
      return false;
    }
    for (int k = 0; k < n; ++k) a.store64(mem(R12, F(subs) + 8 * k), g(d0 + k));
    call(reinterpret_cast<const void*>(&helper_element), d0, reinterpret_cast<std::int64_t>(d), n, 3);
    a.test(RAX, RAX);
    a.jcc(E, error_stub(kMsgNone));
    return false;
  }

  // The countdown ran out: restart it and ask the interpreter; flags NE
  // when it must take over. A loop's scalars are written back first (the
  // call clobbers their registers).
  void poll(const Loop* loop) {
    flush_cache(loop);
    a.mov_imm(R13, kPollInterval);
    a.mov(ARG[0], R12);
    a.mov_imm(RAX, reinterpret_cast<std::int64_t>(&helper_poll));
    a.call(RAX);
    a.test(RAX, RAX);
  }
  // A backward branch: count down, and every kPollInterval-th time ask
  // whether the interpreter must take over (break key, events, closing).
  void back_edge(int target) {
    a.alu_imm(Assembler::SUB, R13, 1);
    a.jcc(NE, labels_[static_cast<std::size_t>(target)]);
    const int target_stmt = info(target).stmt;
    poll(in_loop_);
    if (in_loop_) {
      a.jcc(NE, exit_stub(target_stmt, kTransferResume, false));
      load_cache();
      a.jmp(labels_[static_cast<std::size_t>(target)]);
      return;
    }
    a.jcc(E, labels_[static_cast<std::size_t>(target)]);
    a.jmp(exit_stub(target_stmt, kTransferResume));
  }
  // `checked`: the statement's marker has already made sure there is room.
  void mirror_push(std::uint32_t key, std::uint32_t kind, std::int32_t room_field, bool checked = false) {
    if (!checked) {
      a.alu(Assembler::CMP, R15, mem(R12, F(mirror_limit)));
      a.jcc(AE, resume_here());
      a.cmp32_mem(mem(R12, room_field), 0);
      a.jcc(LE, resume_here());
    }
    a.store32_imm(mem(R15, 0), static_cast<std::int32_t>(key));
    a.store32_imm(mem(R15, 4), static_cast<std::int32_t>(kind));
    a.alu_imm(Assembler::ADD, R15, 16);
    a.alu32_mem_imm(Assembler::SUB, mem(R12, room_field), 1);
  }
  void mirror_pop(std::int32_t room_field) {
    a.alu_imm(Assembler::SUB, R15, 16);
    a.alu32_mem_imm(Assembler::ADD, mem(R12, room_field), 1);
  }

  // A branch-if-false at instruction bi: jump_if_false(label) emits the test.
  void branch_false(int bi, const std::function<void(int)>& jump_if_false) {
    int target = jump_label(bi + static_cast<int>(static_cast<std::int64_t>(ins(bi).operand)) + 1);
    const bool while_test = info(bi).role == kRoleWhileTest;
    const std::uint32_t wkey = while_test ? while_key(info(bi).id) : 0;
    if (while_test && rotating_) {
      // At the WEND: true goes back into the body; false pops the loop's
      // entry (the mirror's top in a clean loop) and leaves.
      const int inside = while_inside_.at(bi), leave = a.new_label();
      true_target_ = inside;
      jump_if_false(leave);
      if (true_target_ >= 0) a.jmp(inside);  // the test could only jump when false
      true_target_ = -1;
      a.bind(leave);
      mirror_pop(F(while_room));
      flush_cache(in_loop_);
      a.jmp(labels_[static_cast<std::size_t>(bi + static_cast<int>(static_cast<std::int64_t>(ins(bi).operand)) + 1)]);
      return;
    }
    if (while_test) {
      // Leaving the loop: pop its entry when it is there (back from WEND).
      const int exit = target, leave = a.new_label();
      cold_.push_back([this, leave, exit, wkey] {
        a.bind(leave);
        a.cmp32_mem(mem(R15, -16), static_cast<std::int32_t>(wkey));
        a.jcc(NE, exit);
        mirror_pop(F(while_room));
        a.jmp(exit);
      });
      target = leave;
    }
    jump_if_false(target);
    if (while_test) {
      const int inside = a.new_label();
      a.cmp32_mem(mem(R15, -16), static_cast<std::int32_t>(wkey));
      a.jcc(E, inside);
      mirror_push(wkey, kMirrorWhile, F(while_room));
      a.bind(inside);
      while_inside_[bi] = inside;
    }
  }

  // A profiled statement: its run is counted, and the poll countdown
  // reaching 0 here takes a sample (cold code: a statement starts with an
  // empty evaluation stack, and the loop around stays compact).
  void profile_marker(int i, int d) {
    const int stmt = info(i).stmt;
    if (d != 0) return;
    const bool counted = ins(i).type == 1 && stmt < kProfileSlots;
    if (counted) a.alu_mem_imm(Assembler::ADD, mem(R12, F(prof_runs) + 8 * stmt), 1);
    const int sample = a.new_label(), back = a.new_label();
    const int leave = exit_stub(stmt, kTransferResume);
    a.alu_imm(Assembler::SUB, R13, 1);
    a.jcc(E, sample);
    a.bind(back);
    const Loop* loop = in_loop_;
    cold_.push_back([this, loop, stmt, sample, back, leave, counted] {
      const Loop* outer = in_loop_;
      in_loop_ = loop;  // the registers to reload after the call
      a.bind(sample);
      call(reinterpret_cast<const void*>(&helper_profile), 0, stmt, 0, 2);
      a.test(RAX, RAX);
      const int go_on = a.new_label();
      a.jcc(NE, go_on);
      // Handing over: the interpreter runs (and counts) this statement.
      if (counted) a.alu_mem_imm(Assembler::SUB, mem(R12, F(prof_runs) + 8 * stmt), 1);
      a.jmp(leave);
      a.bind(go_on);
      a.mov(R13, RAX);
      a.jmp(back);
      in_loop_ = outer;
    });
  }
  double bd(int d) const { return bd_[static_cast<std::size_t>(d)]; }
  void resize_slots(int n) {
    const auto k = static_cast<std::size_t>(n);
    st_.resize(k);
    bd_.resize(k, kUnbounded);
    kk_.resize(k, false);
    kv_.resize(k, 0);
    pooled_.resize(k, false);
    ab_.resize(k, RSP);
    ad_.resize(k, 0);
    ai_.resize(k, RSP);
    as_.resize(k, 1);
    loaded_.resize(k, 0);
    imm_.resize(k, false);
    rg_.resize(k, RSP);
  }
  bool known(int d, std::int64_t* v) const {
    if (!kk_[static_cast<std::size_t>(d)]) return false;
    *v = kv_[static_cast<std::size_t>(d)];
    return true;
  }
  // The literal pushed by instruction j, as a double; false when it is none.
  bool literal_at(int j, double* v) const {
    if (j < 0 || ins(j).op != OP_PUSH_CONST) return false;
    if (ins(j).type <= values::kInt64) *v = static_cast<double>(static_cast<std::int64_t>(ins(j).operand));
    else std::memcpy(v, &ins(j).operand, 8);
    return true;
  }
  // A value below this cannot become infinite when rounded to SINGLE.
  static bool fits_single(double bound) { return bound < 3.0e38; }
  double bound_after(int i, int d) const;
  // A pooled literal's value as the operation sees it: a SINGLE literal is
  // its binary32 value even where the operation is done in double.
  double pooled_value(int j) const {
    double v;
    (void)literal_at(j, &v);
    if (ins(j).type == values::kSingle) v = static_cast<float>(v);
    return v;
  }
  void sse_pooled(bool single, std::uint8_t op, Xmm dst, int j) {
    static constexpr std::uint8_t kOpcode[] = {0x58, 0x5C, 0x59, 0x5E};
    const int k = op == OP_ADD ? 0 : op == OP_SUB ? 1 : op == OP_MUL ? 2 : 3;
    a.sse_rip(single ? 0xF3 : 0xF2, kOpcode[k], dst, pool_label(pooled_value(j), single));
  }
  // The literal at i is the right operand of floating +, -, * or / right
  // after it: that operation reads it from the pool.
  bool poolable(int i) const {
    if (i + 1 >= count() || depth_[i + 1] != depth_[i] + 1 || skip_[static_cast<std::size_t>(i + 1)]) return false;
    const std::uint8_t op = ins(i + 1).op;
    if (op != OP_ADD && op != OP_SUB && op != OP_MUL && op != OP_DIV) return false;
    const ValType& r = info(i + 1).result;
    if (!r.is_float()) return false;
    double v = 0;
    (void)literal_at(i, &v);
    if (op == OP_DIV && !(std::fabs(v) >= 1e-30 && std::fabs(v) <= 1e30)) return false;  // keeps its zero test
    if (ins(i).type <= values::kInt64) return std::fabs(v) <= 16777216.0;  // exact in SINGLE as in DOUBLE
    return true;
  }
  void prologue();
  void emit_epilogue();
  bool instruction(int i);
  void compare(int i, std::uint8_t op, int d);
  void arith(std::uint8_t op, int d);
  void for_entry(int i, int d, bool lazy = false);
  bool unroll(int i, int d);
  // An INTEGER or LONG counter with a literal step and an integer limit that
  // is not a literal: its NEXT compares with the limit clamped to the type.
  bool clamped_limit(int slot, const ValType& limit) const {
    const ForInfo& f = rc_.fors[static_cast<std::size_t>(slot)];
    const ForConst& fc = for_const_[static_cast<std::size_t>(slot)];
    return (f.var_type == values::kInteger || f.var_type == values::kLong) && fc.step_c && !fc.limit_c &&
           limit.is_int() && fc.step == static_cast<std::int32_t>(fc.step) && fc.step != 0;
  }
  int resume_at_ = -1;  // after an unrolled loop: the instruction to go on with
  // A clean WHILE loop tests its condition again at its WEND and jumps
  // straight into its body (the mirror entry is known to be there).
  std::map<int, int> while_inside_;  // WHILE test instruction -> body label
  bool rotating_ = false;            // its condition being laid out at the WEND
  int true_target_ = -1;             // a fused integer test jumps here when true
  int rotate_while(int i, int ws);  // 1 laid out, 0 not suitable, -1 failed
  void fill_prefix(const Loop& loop);
  bool pool_next_ = false;  // the literal in hand is left in the pool
  void next(int i);
  bool divide_by_constant(int i, std::uint8_t op, int d);
};

double Gen::bound_after(int i, int d) const {
  const Instr& in = ins(i);
  const double type_bound = info_result_.is_int() ? std::max(info_result_.mag, 1.0) : kUnbounded;
  double r = kUnbounded;
  switch (in.op) {
    case OP_PUSH_CONST: {
      double v;
      (void)literal_at(i, &v);
      r = std::fabs(v);
      break;
    }
    case OP_ADD: case OP_SUB: r = bd(d - 2) + bd(d - 1); break;
    case OP_MUL: r = bd(d - 2) * bd(d - 1); break;
    case OP_DIV: {
      double c;
      if (literal_at(i - 1, &c) && c != 0) r = bd(d - 2) / std::fabs(c);
      break;
    }
    case OP_NEG: case OP_ABS: r = bd(d - 1); break;
    case OP_INT: case OP_FIX: r = bd(d - 1) + 1; break;
    default: break;
  }
  // Rounding may move a result up by a unit in the last place.
  r *= 1.0 + 1.0 / 1048576.0;
  return std::isnan(r) ? kUnbounded : std::min(r, type_bound);
}

void Gen::prologue() {
  const Reg saved[] = {RBX, RBP, R12, R13, R14, R15, RSI, RDI};
  const int nsaved = kWin64 ? 8 : 6;
  for (int k = 0; k < nsaved; ++k) a.push(saved[k]);
  // Return address + pushes + this keeps RSP 16-aligned at calls; Windows
  // also wants 32 bytes of shadow space and keeps XMM6-XMM15 callee-saved.
  const std::int32_t frame = kWin64 ? 8 + 32 + 160 : 8;
  a.alu_imm(Assembler::SUB, RSP, frame);
  if (kWin64)
    for (int k = 0; k < 10; ++k) a.movups_store(mem(RSP, 32 + 16 * k), static_cast<Xmm>(6 + k));
  a.mov(R12, ARG[0]);
  a.store64(mem(R12, F(saved_rsp)), RSP);
  a.load64(RBX, mem(R12, F(desc_base)));
  a.load64(R15, mem(R12, F(mirror_top)));
  a.load64(R13, mem(R12, F(poll)));
  for (std::size_t slot = 0; slot < for_const_.size(); ++slot) {
    const ForConst& fc = for_const_[slot];
    if (!fc.all()) continue;
    const int s = static_cast<int>(slot);
    const double limit = static_cast<double>(fc.limit), step = static_cast<double>(fc.step);
    std::int64_t bits;
    a.mov_imm(RAX, fc.limit);
    a.store64(mem(R12, for_field(s, offsetof(ForSlot, limit_i))), RAX);
    std::memcpy(&bits, &limit, 8);
    a.mov_imm(RAX, bits);
    a.store64(mem(R12, for_field(s, offsetof(ForSlot, limit_d))), RAX);
    a.mov_imm(RAX, fc.step);
    a.store64(mem(R12, for_field(s, offsetof(ForSlot, step_i))), RAX);
    std::memcpy(&bits, &step, 8);
    a.mov_imm(RAX, bits);
    a.store64(mem(R12, for_field(s, offsetof(ForSlot, step_d))), RAX);
  }
  // The lowest the machine stack may go for native GOSUBs (16 bytes each).
  a.load_s32(RCX, mem(R12, F(gosub_room)));
  a.shl_imm(RCX, 4);
  a.mov(RAX, RSP);
  a.alu(Assembler::SUB, RAX, RCX);
  a.store64(mem(R12, F(gosub_floor)), RAX);
}

void Gen::emit_epilogue() {
  a.bind(epilogue_);
  a.load64(RSP, mem(R12, F(saved_rsp)));  // GOSUBs in progress leave their return addresses
  a.store64(mem(R12, F(mirror_top)), R15);
  a.store64(mem(R12, F(poll)), R13);
  if (kWin64)
    for (int k = 0; k < 10; ++k) a.movups_load(static_cast<Xmm>(6 + k), mem(RSP, 32 + 16 * k));
  a.alu_imm(Assembler::ADD, RSP, kWin64 ? 8 + 32 + 160 : 8);
  const Reg saved[] = {RBX, RBP, R12, R13, R14, R15, RSI, RDI};
  const int nsaved = kWin64 ? 8 : 6;
  for (int k = nsaved - 1; k >= 0; --k) a.pop(saved[k]);
  a.ret();
}

// Relational operators; fused with a following branch-if-false.
void Gen::compare(int i, std::uint8_t op, int d) {
  const int da = d - 2, db = d - 1;
  const bool ints = st_[static_cast<std::size_t>(da)].is_int() && st_[static_cast<std::size_t>(db)].is_int();
  const bool fuse = i + 1 < count() && ins(i + 1).op == OP_BRANCH_FALSE && depth_[i + 1] >= 0;
  if (fuse) skip_[static_cast<std::size_t>(i + 1)] = true;
  if (ints) {
    if (imm_[static_cast<std::size_t>(db)]) a.alu_imm(Assembler::CMP, src(da), static_cast<std::int32_t>(kv_[static_cast<std::size_t>(db)]));
    else a.alu(Assembler::CMP, src(da), src(db));
    Cond c;
    switch (op) {
      case OP_EQ: c = E; break;
      case OP_NE: c = NE; break;
      case OP_LT: c = L; break;
      case OP_LE: c = LE; break;
      case OP_GT: c = G; break;
      default: c = GE; break;
    }
    if (fuse) {
      branch_false(i + 1, [&](int target) {
        if (true_target_ >= 0) {
          a.jcc(c, true_target_);
          true_target_ = -1;
        } else {
          a.jcc(invert(c), target);
        }
      });
      return;
    }
    a.setcc(c, RAX);
    a.movzx8(RAX, RAX);
    a.neg(RAX);
    a.mov(g(da), RAX);
    return;
  }
  const bool singles = sgl(da) && sgl(db);
  const bool da_double = st_[static_cast<std::size_t>(da)].type == values::kDouble;
  const bool db_double = st_[static_cast<std::size_t>(db)].type == values::kDouble;
  const Xmm xa = singles || da_double ? x(da) : X0;
  const Xmm xb = singles || db_double ? x(db) : X1;
  if (!singles) {
    to_double(xa, da);
    to_double(xb, db);
  }
  auto ucom = [&](Xmm p, Xmm q) {
    if (singles) a.ucomiss(p, q);
    else a.ucomisd(p, q);
  };
  Cond c;
  switch (op) {
    case OP_LT: ucom(xb, xa); c = A; break;
    case OP_LE: ucom(xb, xa); c = AE; break;
    case OP_GT: ucom(xa, xb); c = A; break;
    case OP_GE: ucom(xa, xb); c = AE; break;
    default: ucom(xa, xb); c = E; break;
  }
  if (fuse) {
    branch_false(i + 1, [&](int target) {
      if (op == OP_EQ) {
        a.jcc(NE, target);
        a.jcc(P, target);
      } else if (op == OP_NE) {
        const int skip = a.new_label();
        a.jcc(P, skip);
        a.jcc(E, target);
        a.bind(skip);
      } else {
        a.jcc(invert(c), target);
      }
    });
    return;
  }
  if (op == OP_EQ || op == OP_NE) {
    a.setcc(op == OP_EQ ? E : NE, RAX);
    a.setcc(op == OP_EQ ? NP : P, RCX);
    a.movzx8(RAX, RAX);
    a.movzx8(RCX, RCX);
    a.alu(op == OP_EQ ? Assembler::AND : Assembler::OR, RAX, RCX);
  } else {
    a.setcc(c, RAX);
    a.movzx8(RAX, RAX);
  }
  a.neg(RAX);
  a.mov(g(da), RAX);
}

void Gen::arith(std::uint8_t op, int d) {
  const int da = d - 2, db = d - 1;
  const ValType ta = st_[static_cast<std::size_t>(da)], tb = st_[static_cast<std::size_t>(db)];
  if (ta.is_int() && tb.is_int()) {
    // Operands whose magnitudes are known to be small cannot overflow 64 bits.
    const bool may_overflow = op == OP_MUL ? !(ta.mag * tb.mag < 9.0e18) : !(ta.mag + tb.mag < 9.0e18);
    const Reg rb = src(db);
    if (const Reg ra = rg_[static_cast<std::size_t>(da)]; ra != RSP) {
      // The left operand is still in its loop register: a sum that cannot
      // overflow is formed by one LEA, anything else works on a copy.
      const bool imm = imm_[static_cast<std::size_t>(db)];
      const std::int64_t v = imm ? kv_[static_cast<std::size_t>(db)] : 0;
      if (!may_overflow && op == OP_ADD) {
        a.lea(g(da), imm ? mem(ra, static_cast<std::int32_t>(v)) : mem(ra, rb, 1, 0));
        return;
      }
      if (!may_overflow && op == OP_SUB && imm && v != INT32_MIN) {
        a.lea(g(da), mem(ra, static_cast<std::int32_t>(-v)));
        return;
      }
      a.mov(g(da), ra);
    }
    if (imm_[static_cast<std::size_t>(db)]) {
      const auto v = static_cast<std::int32_t>(kv_[static_cast<std::size_t>(db)]);
      switch (op) {
        case OP_ADD: case OP_SUB:
          a.alu_imm(op == OP_ADD ? Assembler::ADD : Assembler::SUB, g(da), v);
          if (may_overflow) a.jcc(O, error_stub(kMsgOverflow));
          return;
        case OP_AND: a.alu_imm(Assembler::AND, g(da), v); return;
        case OP_OR: a.alu_imm(Assembler::OR, g(da), v); return;
        case OP_XOR: a.alu_imm(Assembler::XOR, g(da), v); return;
        default: break;
      }
    }
    switch (op) {
      case OP_ADD:
        a.alu(Assembler::ADD, g(da), rb);
        if (may_overflow) a.jcc(O, error_stub(kMsgOverflow));
        return;
      case OP_SUB:
        a.alu(Assembler::SUB, g(da), rb);
        if (may_overflow) a.jcc(O, error_stub(kMsgOverflow));
        return;
      case OP_MUL:
        a.imul(g(da), rb);
        if (may_overflow) a.jcc(O, error_stub(kMsgOverflow));
        return;
      case OP_IDIV:
      case OP_MOD: {
        a.test(rb, rb);
        a.jcc(E, error_stub(kMsgDivisionByZero));
        const int normal = a.new_label(), done = a.new_label();
        a.alu_imm(Assembler::CMP, rb, -1);
        a.jcc(NE, normal);
        if (op == OP_MOD) {
          a.mov_imm(g(da), 0);
        } else {
          a.neg(g(da));
          a.jcc(O, error_stub(kMsgOverflow));
        }
        a.jmp(done);
        a.bind(normal);
        a.mov(RAX, g(da));
        a.cqo();
        a.idiv(rb);
        a.mov(g(da), op == OP_MOD ? RDX : RAX);
        a.bind(done);
        return;
      }
      case OP_AND: a.alu(Assembler::AND, g(da), rb); return;
      case OP_OR: a.alu(Assembler::OR, g(da), rb); return;
      case OP_XOR: a.alu(Assembler::XOR, g(da), rb); return;
      case OP_EQV: a.alu(Assembler::XOR, g(da), g(db)); a.not_(g(da)); return;
      case OP_IMP: a.not_(g(da)); a.alu(Assembler::OR, g(da), g(db)); return;
      default: break;
    }
  }
  if (op == OP_ADD || op == OP_SUB || op == OP_MUL || op == OP_DIV) {
    const std::uint8_t rt = info_result_.type;
    // SINGLE results of SINGLE operands (or small integers, exact in binary32)
    // are computed in single precision: the same bits as the double
    // operation rounded once.
    auto small = [&](const ValType& t) { return t.type == values::kSingle || (t.is_int() && t.mag <= 16777216.0); };
    // A literal divisor: never zero, and a power of two divides exactly
    // as a multiplication by its reciprocal does (a few cycles, not tens).
    double divisor = 0;
    const bool literal_divisor = op == OP_DIV && literal_at(cur_ - 1, &divisor) && std::fabs(divisor) >= 1e-30 &&
                                 std::fabs(divisor) <= 1e30;
    int exponent = 0;
    const bool power_of_two = literal_divisor && std::fabs(std::frexp(divisor, &exponent)) == 0.5 &&
                              exponent >= -120 && exponent <= 120;
    const bool may_overflow = !fits_single(bound_after(cur_, d));
    const bool pooled = pooled_[static_cast<std::size_t>(db)];
    if (rt == values::kSingle && small(ta) && small(tb)) {
      if (ta.is_int()) cvt_si2ss(x(da), g(da));
      if (pooled && !power_of_two) {
        sse_pooled(true, op, x(da), cur_ - 1);
        if (may_overflow) check_single(x(da));
        return;
      }
      Xmm xb = x(db);
      if (power_of_two) {
        a.sse_rip(0xF3, 0x59, x(da), pool_label(1.0 / divisor, true));
        if (may_overflow) check_single(x(da));
        return;
      }
      if (tb.is_int()) {
        cvt_si2ss(X1, g(db));
        xb = X1;
      }
      if (op == OP_DIV && !literal_divisor) {
        const int nonzero = a.new_label();
        a.xorps(X10, X10);
        a.ucomiss(xb, X10);
        a.jcc(P, nonzero);
        a.jcc(E, error_stub(kMsgDivisionByZero));
        a.bind(nonzero);
      }
      switch (op) {
        case OP_ADD: a.addss(x(da), xb); break;
        case OP_SUB: a.subss(x(da), xb); break;
        case OP_MUL: a.mulss(x(da), xb); break;
        default: a.divss(x(da), xb); break;
      }
      if (may_overflow) check_single(x(da));
      return;
    }
    // Otherwise in double, the result straight into a's floating register.
    if (ta.is_int()) cvt_si2sd(x(da), g(da));
    else if (ta.type == values::kSingle) cvt_ss2sd(x(da), x(da));
    Xmm xb = x(db);
    if (power_of_two) {
      a.sse_rip(0xF2, 0x59, x(da), pool_label(1.0 / divisor, false));
      if (rt == values::kSingle) {
        cvt_sd2ss(x(da), x(da));
        if (may_overflow) check_single(x(da));
      }
      return;
    }
    if (pooled) {
      sse_pooled(false, op, x(da), cur_ - 1);
      if (rt == values::kSingle) {
        cvt_sd2ss(x(da), x(da));
        if (may_overflow) check_single(x(da));
      }
      return;
    }
    if (tb.type != values::kDouble) {
      to_double(X1, db);
      xb = X1;
    }
    if (op == OP_DIV && !literal_divisor) {
      const int nonzero = a.new_label();
      a.xorpd(X10, X10);
      a.ucomisd(xb, X10);
      a.jcc(P, nonzero);
      a.jcc(E, error_stub(kMsgDivisionByZero));
      a.bind(nonzero);
    }
    switch (op) {
      case OP_ADD: a.addsd(x(da), xb); break;
      case OP_SUB: a.subsd(x(da), xb); break;
      case OP_MUL: a.mulsd(x(da), xb); break;
      default: a.divsd(x(da), xb); break;
    }
    if (rt == values::kSingle) {
      cvt_sd2ss(x(da), x(da));
      if (may_overflow) check_single(x(da));
    }
    return;
  }
  // Everything else through the interpreter's own operator routine.
  values::Op vop;
  switch (op) {
    case OP_POW: vop = values::Op::Pow; break;
    case OP_IDIV: vop = values::Op::IntDiv; break;
    case OP_MOD: vop = values::Op::Mod; break;
    case OP_AND: vop = values::Op::And; break;
    case OP_OR: vop = values::Op::Or; break;
    case OP_XOR: vop = values::Op::Xor; break;
    case OP_EQV: vop = values::Op::Eqv; break;
    default: vop = values::Op::Imp; break;
  }
  to_tmp(0, da);
  to_tmp(1, db);
  call(reinterpret_cast<const void*>(&helper_binop), da, static_cast<std::int64_t>(vop), 0, 2);
  a.test(RAX, RAX);
  a.jcc(E, error_stub(kMsgNone));
  from_tmp(da, info_result_);
}

// Integer \ and MOD by a constant of at least 2 (pushed just before): a
// multiply by the divisor's magic number instead of IDIV, which costs tens
// of cycles. Truncates toward zero like IDIV; the remainder takes the
// dividend's sign.
bool Gen::divide_by_constant(int i, std::uint8_t op, int d) {
  const int da = d - 2, db = d - 1;
  if (i == 0 || ins(i - 1).op != OP_PUSH_CONST || ins(i - 1).type > values::kInt64) return false;
  if (!st_[static_cast<std::size_t>(da)].is_int() || !st_[static_cast<std::size_t>(db)].is_int()) return false;
  const std::int64_t divisor = static_cast<std::int64_t>(ins(i - 1).operand);
  if (divisor < 2) return false;
  const DivMagic m = div_magic(divisor);
  const Reg n = g(da);
  a.mov_imm(RAX, m.magic);
  a.imul_wide(n);
  if (m.magic < 0) a.alu(Assembler::ADD, RDX, n);
  if (m.shift > 0) a.sar_imm(RDX, static_cast<std::uint8_t>(m.shift));
  a.mov(RAX, n);
  a.shr_imm(RAX, 63);
  a.alu(Assembler::ADD, RDX, RAX);  // the quotient
  if (op == OP_IDIV) {
    a.mov(n, RDX);
    return true;
  }
  if (divisor <= 0x7FFFFFFF) {
    a.imul_imm(RDX, RDX, static_cast<std::int32_t>(divisor));
  } else {
    a.mov_imm(RAX, divisor);
    a.imul(RDX, RAX);
  }
  a.alu(Assembler::SUB, n, RDX);
  return true;
}

void Gen::for_entry(int i, int d, bool lazy) {
  const int slot = ins(i).count;
  const ForInfo& f = rc_.fors[static_cast<std::size_t>(slot)];
  const ForConst& fc = for_const_[static_cast<std::size_t>(slot)];
  const int ds = d - 3, dl = d - 2, dt = d - 1;
  const ValType tl = st_[static_cast<std::size_t>(dl)], tt = st_[static_cast<std::size_t>(dt)];
  // A NaN limit or step is "Illegal function call".
  for (int k : {dl, dt}) {
    if (!st_[static_cast<std::size_t>(k)].is_float()) continue;
    to_double(X0, k);
    a.ucomisd(X0, X0);
    a.jcc(P, error_stub(kMsgIllegalCall));
  }
  if (elide_[static_cast<std::size_t>(i - 1)]) {
    switch (f.var_type) {
      case values::kInteger: a.store16_imm(var(f.d), static_cast<std::int16_t>(fc.start)); break;
      case values::kLong: a.store32_imm(var(f.d), static_cast<std::int32_t>(fc.start)); break;
      default: a.store64_imm(var(f.d), static_cast<std::int32_t>(fc.start)); break;
    }
  } else {
    store_to(ds, f.var_type, var(f.d), d);
  }
  const std::int32_t o_limit_i = for_field(slot, offsetof(ForSlot, limit_i));
  const std::int32_t o_limit_d = for_field(slot, offsetof(ForSlot, limit_d));
  const std::int32_t o_sign = for_field(slot, offsetof(ForSlot, sign));
  // Literal limit and step were written once at the region's entry; the
  // interpreter reads them only if it takes the loop over.
  if (!fc.all()) {
    if (tl.is_int()) a.store64(mem(R12, o_limit_i), g(dl));
    if (clamped_limit(slot, f.limit)) {
      // Within the counter's type: a counter still at most this after its
      // step fits, so NEXT tests the type only on the way out.
      const bool up = fc.step > 0;
      a.mov(RAX, g(dl));
      a.mov_imm(RCX, f.var_type == values::kInteger ? (up ? 32767 : -32768)
                                                     : (up ? 2147483647 : -2147483648ll));
      a.alu(Assembler::CMP, RAX, RCX);
      a.cmov(up ? G : L, RAX, RCX);
      a.store64(mem(R12, for_field(slot, offsetof(ForSlot, limit_in_range))), RAX);
    }
    to_double(X0, dl);
    a.movsd(mem(R12, o_limit_d), X0);
    if (tt.is_int()) a.store64(mem(R12, for_field(slot, offsetof(ForSlot, step_i))), g(dt));
    to_double(X1, dt);
    a.movsd(mem(R12, for_field(slot, offsetof(ForSlot, step_d))), X1);
  }
  if (!f.step_const) {
    if (tt.is_int()) {
      a.alu_imm(Assembler::CMP, g(dt), 0);
    } else {
      a.xorpd(X10, X10);
      a.ucomisd(X1, X10);
    }
    a.setcc(tt.is_int() ? G : A, RAX);
    a.setcc(tt.is_int() ? L : B, RCX);
    a.movzx8(RAX, RAX);
    a.movzx8(RCX, RCX);
    a.alu(Assembler::SUB, RAX, RCX);
    a.store64(mem(R12, o_sign), RAX);
  }
  if (lazy) return;  // an unrolled loop: it runs, and its mirror entry is made only on the way out
  mirror_push(for_key(slot), kMirrorFor, F(for_room), true);
  a.store8_imm(mem(R12, F(live) + slot), 1);
  // The entry test: a loop can run zero times (known here when all three are literals).
  if (f.step_const && fc.start_c && fc.all() &&
      (f.step_sign > 0 ? fc.start <= fc.limit : f.step_sign < 0 ? fc.start >= fc.limit : false))
    return;
  const int body = a.new_label(), past = a.new_label();
  auto test = [&](int sign) {
    if (sign == 0) return;
    if (fc.start_c && fc.all()) {
      if (sign > 0 ? fc.start > fc.limit : fc.start < fc.limit) a.jmp(past);
      return;
    }
    if (values::is_integer_type(f.var_type) && tl.is_int()) {
      load_from(0, f.var_type, var(f.d));
      if (fc.limit_c && fc.limit == static_cast<std::int32_t>(fc.limit)) a.alu_imm(Assembler::CMP, g(0), static_cast<std::int32_t>(fc.limit));
      else a.alu(Assembler::CMP, g(0), mem(R12, o_limit_i));
      a.jcc(sign > 0 ? G : L, past);
    } else {
      if (values::is_integer_type(f.var_type)) {
        load_from(0, f.var_type, var(f.d));
        cvt_si2sd(X0, g(0));
      } else if (f.var_type == values::kSingle) {
        cvt_ss2sd(X0, var(f.d));
      } else {
        a.movsd(X0, var(f.d));
      }
      a.ucomisd(X0, mem(R12, o_limit_d));
      a.jcc(sign > 0 ? A : B, past);
    }
  };
  if (f.step_const) {
    test(f.step_sign);
  } else {
    const int neg = a.new_label();
    a.cmp32_mem(mem(R12, o_sign), 0);
    a.jcc(E, body);
    a.jcc(L, neg);
    test(1);
    a.jmp(body);
    a.bind(neg);
    test(-1);
  }
  a.jmp(body);
  a.bind(past);
  mirror_pop(F(for_room));
  a.store8_imm(mem(R12, F(live) + slot), 0);
  a.jmp(labels_[ins(i).position]);
  a.bind(body);
}

// A loop of at most 8 passes fixed by literals, whose body is straight-line
// code that leaves the counter alone, is laid out once per pass: no compare,
// no branch, and each pass's counter is a constant. Everything the
// interpreter would need if it took over (the counter in memory, the mirror
// entry, the loop's literal limit and step) is as in the rolled loop.
bool Gen::unroll(int i, int d) {
  const int slot = ins(i).count;
  const ForInfo& f = rc_.fors[static_cast<std::size_t>(slot)];
  const ForConst& fc = for_const_[static_cast<std::size_t>(slot)];
  if (!values::is_integer_type(f.var_type) || !fc.start_c || !fc.all()) return false;
  constexpr std::int64_t kSmall = std::int64_t{1} << 40;
  if (fc.start > kSmall || fc.start < -kSmall || fc.limit > kSmall || fc.limit < -kSmall) return false;
  if (fc.step > 0 ? fc.start > fc.limit : fc.start < fc.limit) return false;  // runs no pass
  const std::int64_t passes = (fc.limit - fc.start) / fc.step + 1;
  if (passes < 1 || passes > 8) return false;
  const int s = i + 1;
  int e = -1;
  for (int j = s; j < count() && j < s + 64; ++j)
    if (ins(j).op == OP_NEXT && ins(j).count == slot) {
      e = j;
      break;
    }
  if (e < 0 || loop_head_[static_cast<std::size_t>(s)] < 0) return false;
  Loop& loop = loops_[static_cast<std::size_t>(loop_head_[static_cast<std::size_t>(s)])];
  if (loop.tail != e || !loop.clean ||
      std::find(loop.stored.begin(), loop.stored.end(), f.d) != loop.stored.end())
    return false;
  for (int j = s; j < e; ++j) {
    if (depth_[j] < 0) continue;
    switch (ins(j).op) {
      case OP_JUMP: case OP_BRANCH_FALSE: case OP_GOTO_LOCAL: case OP_GOTO_LINE: case OP_GOSUB_LOCAL:
      case OP_GOSUB_LINE: case OP_RETURN: case OP_FOR: case OP_NEXT: case OP_END: case OP_FALLBACK:
        return false;
      case OP_STATEMENT:
        if (ins(j).type != 0) return false;  // profiled: every statement's runs are counted as written
        break;
      default: break;
    }
  }
  for (int j = s; j <= e; ++j)
    if (ins(j).op == OP_STATEMENT && ins(j).type != 0) return false;
  // The value after the last pass must fit the counter's type, as NEXT's would.
  const std::int64_t after = fc.start + passes * fc.step;
  const std::int64_t top = f.var_type == values::kInteger ? 32767 : f.var_type == values::kLong ? 2147483647 : INT64_MAX / 2;
  if (after > top || after < -top) return false;

  for_entry(i, d, true);
  loop.writeback = false;
  in_loop_ = &loop;
  load_cache();
  lazy_for_ = slot;
  // The body reads the counter as a constant; memory holds it for the
  // interpreter (errors, helpers).
  auto set_counter = [&](std::int64_t v) {
    switch (f.var_type) {
      case values::kInteger: a.store16_imm(var(f.d), static_cast<std::int16_t>(v)); break;
      case values::kLong: a.store32_imm(var(f.d), static_cast<std::int32_t>(v)); break;
      default:
        a.mov_imm(RAX, v);
        a.store64(var(f.d), RAX);
        break;
    }
  };
  unrolled_var_ = f.d;
  for (std::int64_t k = 0; k < passes; ++k) {
    unrolled_value_ = fc.start + k * fc.step;
    if (k > 0) set_counter(unrolled_value_);
    for (int j = s; j < e; ++j) {
      if (depth_[j] < 0) continue;
      resize_slots(depth_[j]);
      if (!instruction(j)) {
        unrolled_var_ = nullptr;
        lazy_for_ = -1;
        return false;
      }
    }
  }
  unrolled_var_ = nullptr;
  lazy_for_ = -1;
  stmt_ = info(e).stmt;
  set_counter(after);
  in_loop_ = nullptr;
  for (int j = s; j <= e; ++j) {
    a.bind(labels_[static_cast<std::size_t>(j)]);
    offsets[static_cast<std::size_t>(j)] = static_cast<std::uint32_t>(a.size());
  }
  st_.resize(static_cast<std::size_t>(depth_[e]));
  resume_at_ = e + 1;
  return true;
}

void Gen::next(int i) {
  const int slot = ins(i).count;
  const ForInfo& f = rc_.fors[static_cast<std::size_t>(slot)];
  const ForConst& fc = for_const_[static_cast<std::size_t>(slot)];
  const std::int32_t o_limit_i = for_field(slot, offsetof(ForSlot, limit_i));
  const std::int32_t o_limit_d = for_field(slot, offsetof(ForSlot, limit_d));
  const std::int32_t o_step_i = for_field(slot, offsetof(ForSlot, step_i));
  const std::int32_t o_step_d = for_field(slot, offsetof(ForSlot, step_d));
  const std::int32_t o_sign = for_field(slot, offsetof(ForSlot, sign));
  const bool integer = values::is_integer_type(f.var_type);
  // In a clean innermost loop this FOR is the mirror's top: it was pushed on
  // the way in and nothing in the body pushes or pops.
  const bool clean = in_loop_ && in_loop_->tail == i && in_loop_->clean;
  const std::vector<const values::Descriptor*>* assigned =
      !clean ? nullptr : in_loop_->calls ? &region_stored_ : &in_loop_->stored;
  const bool var_stored = assigned && std::find(assigned->begin(), assigned->end(), f.d) != assigned->end();
  // Only the loop on top of the mirror is stepped here; anything else is the
  // interpreter's to sort out.
  if (!clean) {
    a.cmp32_mem(mem(R15, -16), static_cast<std::int32_t>(for_key(slot)));
    a.jcc(NE, resume_here());
  }
  const bool imm_step = integer && fc.step_c && fc.step == static_cast<std::int32_t>(fc.step);
  const bool imm_limit = integer && fc.limit_c && fc.limit == static_cast<std::int32_t>(fc.limit);
  // The counter cannot overflow when the body leaves it alone: it is within
  // the literal limit on every pass, and limit + step fits its type.
  // Outside a clean loop the FOR is the mirror's top (tested above), so it
  // was entered natively: enough when no code of the region assigns the
  // counter.
  const bool untouched = clean ? !var_stored
                               : f.same_var.empty() && std::find(region_stored_.begin(), region_stored_.end(), f.d) ==
                                                           region_stored_.end();
  bool no_overflow = false;
  if (untouched && imm_step && imm_limit) {
    const std::int64_t top = f.var_type == values::kInteger ? 32767 : f.var_type == values::kLong ? 2147483647 : INT64_MAX;
    const std::int64_t bottom = f.var_type == values::kInteger ? -32768 : f.var_type == values::kLong ? -2147483647 - 1 : INT64_MIN;
    no_overflow = fc.step > 0 ? fc.limit <= top - fc.step : fc.limit >= bottom - fc.step;
  }
  // A loop whose trip count is bounded by literals, with a body free of
  // loops, needs no poll of its own: the loop around it polls.
  const bool bounded = clean && !in_loop_->calls && no_overflow && fc.start_c &&
                       (fc.step > 0 ? fc.limit - fc.start : fc.start - fc.limit) / (fc.step > 0 ? fc.step : -fc.step) < 4096;
  const int done = a.new_label(), again = a.new_label();
  const Mem v = var(f.d);
  const bool int_limit = f.limit.is_int();
  const Cached* c = cached(f.d);
  const bool in_register = c && c->dirty && in_loop_->writeback;
  auto store_counter = [&](Reg r) {
    if (in_register) return;
    switch (f.var_type) {
      case values::kInteger: a.store16(v, r); break;
      case values::kLong: a.store32(v, r); break;
      default: a.store64(v, r); break;
    }
  };
  if (integer && untouched && clamped_limit(slot, f.limit)) {
    const Reg r = c ? static_cast<Reg>(c->reg) : RAX;
    if (!c) load_from_reg(RAX, f.var_type, v);
    a.alu_imm(Assembler::ADD, r, static_cast<std::int32_t>(fc.step));
    a.alu(Assembler::CMP, r, mem(R12, for_field(slot, offsetof(ForSlot, limit_in_range))));
    const int leaving = a.new_label();
    a.jcc(fc.step > 0 ? G : L, leaving);
    store_counter(r);
    back_edge(static_cast<int>(ins(i).position));
    // Past the clamped limit: past the real one too, unless the type ran out.
    const int overflow = error_stub(kMsgOverflow);
    const bool up = fc.step > 0;
    const std::int64_t edge = f.var_type == values::kInteger ? (up ? 32767 : -32768) : (up ? 2147483647 : -2147483648ll);
    const std::uint8_t vt = f.var_type;
    const Mem vm = v;
    const std::int32_t step = static_cast<std::int32_t>(fc.step);
    const bool undo = r != RAX;
    cold_.push_back([this, leaving, overflow, up, edge, r, vt, vm, done, step, undo] {
      a.bind(leaving);
      a.mov_imm(RCX, edge);
      a.alu(Assembler::CMP, r, RCX);
      const int fits = a.new_label();
      a.jcc(up ? LE : GE, fits);
      // The counter keeps its last value for the error (and the write-back).
      if (undo) a.alu_imm(Assembler::SUB, r, step);
      a.jmp(overflow);
      a.bind(fits);
      if (vt == values::kInteger) a.store16(vm, r);
      else a.store32(vm, r);
      a.jmp(done);
    });
    a.bind(done);
    mirror_pop(F(for_room));
    a.store8_imm(mem(R12, F(live) + slot), 0);
    return;
  }
  if (integer && no_overflow) {
    const Reg r = c ? static_cast<Reg>(c->reg) : RAX;
    if (!c) load_from_reg(RAX, f.var_type, v);
    a.alu_imm(Assembler::ADD, r, static_cast<std::int32_t>(fc.step));
    store_counter(r);
    a.alu_imm(Assembler::CMP, r, static_cast<std::int32_t>(fc.limit));
    if (bounded) {
      a.jcc(fc.step > 0 ? LE : GE, labels_[ins(i).position]);
    } else {
      a.jcc(fc.step > 0 ? G : L, done);
      back_edge(static_cast<int>(ins(i).position));
    }
    a.bind(done);
    mirror_pop(F(for_room));
    a.store8_imm(mem(R12, F(live) + slot), 0);
    return;
  }
  auto beyond = [&](int sign) {
    if (sign == 0) return;
    if (integer) {
      if (imm_limit) {
        a.alu_imm(Assembler::CMP, RAX, static_cast<std::int32_t>(fc.limit));
        a.jcc(sign > 0 ? G : L, done);
      } else if (int_limit) {
        a.alu(Assembler::CMP, RAX, mem(R12, o_limit_i));
        a.jcc(sign > 0 ? G : L, done);
      } else {
        cvt_si2sd(X0, RAX);
        a.ucomisd(X0, mem(R12, o_limit_d));
        a.jcc(sign > 0 ? A : B, done);
      }
    } else {
      a.ucomisd(X0, mem(R12, o_limit_d));
      a.jcc(sign > 0 ? A : B, done);
    }
  };
  if (integer) {
    if (c) a.mov(RAX, static_cast<Reg>(c->reg));
    else load_from_reg(RAX, f.var_type, v);
    if (imm_step) a.alu_imm(Assembler::ADD, RAX, static_cast<std::int32_t>(fc.step));
    else a.alu(Assembler::ADD, RAX, mem(R12, o_step_i));
    a.jcc(O, error_stub(kMsgOverflow));
    if (f.var_type == values::kInteger) {
      a.sx16(RCX, RAX);
      a.alu(Assembler::CMP, RCX, RAX);
      a.jcc(NE, error_stub(kMsgOverflow));
    } else if (f.var_type == values::kLong) {
      a.sx32(RCX, RAX);
      a.alu(Assembler::CMP, RCX, RAX);
      a.jcc(NE, error_stub(kMsgOverflow));
    }
    store_counter(RAX);
    update_cache(f.d, RAX);
  } else {
    if (c && f.var_type == values::kSingle) cvt_ss2sd(X0, static_cast<Xmm>(c->reg));
    else if (c) a.movapd(X0, static_cast<Xmm>(c->reg));
    else if (f.var_type == values::kSingle) cvt_ss2sd(X0, v);
    else a.movsd(X0, v);
    a.addsd(X0, mem(R12, o_step_d));
    if (f.var_type == values::kSingle) {
      cvt_sd2ss(X0, X0);
      cvt_ss2sd(X0, X0);
    }
    check_finite(X0);
    if (f.var_type == values::kSingle) {
      cvt_sd2ss(X1, X0);
      if (!in_register) a.movss(v, X1);
      update_cache(f.d, X1);
    } else {
      if (!in_register) a.movsd(v, X0);
      update_cache(f.d, X0);
    }
  }
  if (f.step_const) {
    beyond(f.step_sign);
  } else {
    const int neg = a.new_label();
    a.cmp32_mem(mem(R12, o_sign), 0);
    a.jcc(E, again);
    a.jcc(L, neg);
    beyond(1);
    a.jmp(again);
    a.bind(neg);
    beyond(-1);
  }
  a.bind(again);
  back_edge(static_cast<int>(ins(i).position));
  a.bind(done);
  mirror_pop(F(for_room));
  a.store8_imm(mem(R12, F(live) + slot), 0);
}

// The WEND of a clean WHILE loop whose condition is plain arithmetic on
// numbers: the condition is laid out again here, so that a pass costs one
// taken branch and no look at the mirror. The poll is a countdown on the way;
// when it is due, the slow path goes back to the WHILE itself.
int Gen::rotate_while(int i, int ws) {
  if (ins(ws).op != OP_STATEMENT || ins(ws).type != 0) return 0;  // profiled: each test is counted
  int bf = -1;
  for (int j = ws + 1; j < i; ++j) {
    if (depth_[j] < 0) return 0;
    const Instr& in = ins(j);
    if (in.op == OP_BRANCH_FALSE) {
      if (info(j).role != kRoleWhileTest) return 0;
      bf = j;
      break;
    }
    if (touches_hyper(j)) return 0;
    switch (in.op) {
      case OP_PUSH_CONST: case OP_PUSH_VAR: case OP_NEG:
      case OP_ADD: case OP_SUB: case OP_MUL: case OP_AND: case OP_OR: case OP_XOR:
      case OP_EQ: case OP_NE: case OP_LT: case OP_LE: case OP_GT: case OP_GE:
        break;
      case OP_LOAD_ELEM:
        if (in.count != 1) return 0;
        break;
      default:
        return 0;
    }
  }
  if (bf < 0 || !while_inside_.count(bf) || unrolled_var_) return 0;
  const Loop* loop = in_loop_;
  const int slow = a.new_label();
  const int leave = exit_stub(info(ws).stmt, kTransferResume, false);
  const int head = labels_[static_cast<std::size_t>(ws)];
  a.alu_imm(Assembler::SUB, R13, 1);
  a.jcc(E, slow);
  cold_.push_back([this, slow, leave, head, loop] {
    const Loop* outer = in_loop_;
    in_loop_ = loop;
    a.bind(slow);
    poll(loop);
    a.jcc(NE, leave);
    load_cache();
    a.jmp(head);  // the WHILE tests again and finds its entry on top
    in_loop_ = outer;
  });
  rotating_ = true;
  for (int j = ws + 1; j <= bf; ++j) {
    if (skip_[static_cast<std::size_t>(j)]) continue;
    resize_slots(depth_[j]);
    if (!instruction(j)) {
      rotating_ = false;
      return -1;
    }
  }
  rotating_ = false;
  return 1;
}

// FOR v = a TO b: A(v) = literal: NEXT v, as laid out at the loop's head:
// the passes before the last store their elements at once (rep stos); the
// last pass runs as written, so the counter's final value, the end of the
// loop and any error (a subscript past the array, a counter past its type)
// come out exactly as they would pass by pass.
void Gen::fill_prefix(const Loop& loop) {
  const int s = loop.head, e = loop.tail;
  if (!loop.clean || loop.calls || !loop.writeback || e - s != 6 || ins(e).op != OP_NEXT) return;
  for (int j = s; j <= e; ++j)
    if (depth_[j] < 0) return;
  const int slot = ins(e).count;
  const ForInfo& f = rc_.fors[static_cast<std::size_t>(slot)];
  const ForConst& fc = for_const_[static_cast<std::size_t>(slot)];
  if (!values::is_integer_type(f.var_type) || !f.limit.is_int() || !fc.step_c || fc.step != 1) return;
  if (ins(s).op != OP_STATEMENT || ins(s).type != 0 || ins(s + 1).op != OP_PUSH_VAR || info(s + 1).d != f.d ||
      info(s + 1).store_addr != 1 || ins(s + 2).op != OP_PUSH_CONST || ins(s + 3).op != OP_STORE_ELEM ||
      ins(s + 3).count != 1 || ins(s + 4).op != OP_DISCARD || ins(s + 5).op != OP_STATEMENT || ins(s + 5).type != 0)
    return;
  const CachedArray* arr = cached_array(info(s + 3).d);
  const Cached* c = cached(f.d);
  if (!arr || !c || !c->dirty || arr->block == RDI || arr->count == RDI) return;
  for (const Cached& v : loop.vars)
    if (values::is_integer_type(v.type) && v.reg == RDI) return;
  // The literal as the element's type holds it, when that is exact.
  const Instr& k = ins(s + 2);
  if (k.type > values::kInt64) return;
  const auto v = static_cast<std::int64_t>(k.operand);
  const std::uint8_t et = ins(s + 3).type;
  std::uint64_t bits = 0;
  switch (et) {
    case values::kInteger:
      if (v != static_cast<std::int16_t>(v)) return;
      bits = static_cast<std::uint16_t>(v);
      break;
    case values::kLong:
      if (v != static_cast<std::int32_t>(v)) return;
      bits = static_cast<std::uint32_t>(v);
      break;
    case values::kInt64: bits = static_cast<std::uint64_t>(v); break;
    case values::kSingle: {
      if (v > (1 << 24) || v < -(1 << 24)) return;
      const auto x = static_cast<float>(v);
      std::uint32_t b;
      std::memcpy(&b, &x, 4);
      bits = b;
      break;
    }
    case values::kDouble: {
      if (v > (std::int64_t{1} << 53) || v < -(std::int64_t{1} << 53)) return;
      const auto x = static_cast<double>(v);
      std::memcpy(&bits, &x, 8);
      break;
    }
    default: return;
  }
  const auto width = static_cast<int>(values::slot_width(et));
  if (width != 2 && width != 4 && width != 8) return;
  const auto base = static_cast<std::int32_t>(values::option_base);
  const Reg r = static_cast<Reg>(c->reg);
  const int skip = a.new_label();
  a.alu_imm(Assembler::CMP, r, base);
  a.jcc(L, skip);  // the first pass fails
  // The last subscript to reach: the limit, the array's end, the counter type's end.
  a.lea(RCX, mem(arr->count, base - 1));
  a.load64(RAX, mem(R12, for_field(slot, offsetof(ForSlot, limit_i))));
  a.alu(Assembler::CMP, RAX, RCX);
  a.cmov(G, RAX, RCX);
  if (f.var_type != values::kInt64) {
    a.mov_imm(RCX, f.var_type == values::kInteger ? 32767 : 2147483647);
    a.alu(Assembler::CMP, RAX, RCX);
    a.cmov(G, RAX, RCX);
  }
  a.alu(Assembler::SUB, RAX, r);
  a.jcc(LE, skip);
  a.mov(RCX, RAX);
  a.lea(RDI, mem(arr->block, r, static_cast<std::uint8_t>(width), 16 - base * width));
  a.alu(Assembler::ADD, r, RAX);
  a.mov_imm(RAX, static_cast<std::int64_t>(bits));
  a.rep_stos(width);
  a.bind(skip);
}

bool Gen::instruction(int i) {
  const Instr& in = ins(i);
  const int d = depth_[i];
  cur_ = i;
  stmt_ = info(i).stmt;
  info_result_ = info(i).result;
  const bool hyper = touches_hyper(i);
  if (hyper) hyper_instruction(i, d);
  if (!hyper) switch (in.op) {
    case OP_STATEMENT:
      if (in.type != 0) profile_marker(i, d);
      if (info(i).role == kRoleForCheck) {
        const int slot = info(i).id;
        std::vector<int> group = rc_.fors[static_cast<std::size_t>(slot)].same_var;
        group.push_back(slot);
        for (int s : group) {
          a.cmp8_mem(mem(R12, F(live) + s), 0);
          a.jcc(NE, resume_here());
        }
        a.alu(Assembler::CMP, R15, mem(R12, F(mirror_limit)));
        a.jcc(AE, resume_here());
        a.cmp32_mem(mem(R12, F(for_room)), 0);
        a.jcc(LE, resume_here());
      }
      break;
    case OP_PUSH_CONST:
      if (elide_[static_cast<std::size_t>(i)]) break;
      if (poolable(i)) {
        pool_next_ = true;
        break;
      }
      if (immediate_operand(i, d)) {
        imm_next_ = true;
        break;
      }
      if (in.type <= values::kInt64) {
        a.mov_imm(g(d), static_cast<std::int64_t>(in.operand));
      } else if (in.type == values::kSingle) {
        double v;
        std::memcpy(&v, &in.operand, 8);
        const float f = static_cast<float>(v);
        std::uint32_t bits;
        std::memcpy(&bits, &f, 4);
        a.mov_imm(RAX, bits);
        a.movd(x(d), RAX);
      } else {
        a.mov_imm(RAX, static_cast<std::int64_t>(in.operand));
        a.movq(x(d), RAX);
      }
      break;
    case OP_PUSH_VAR:
      if (unrolled_var_ && info(i).d == unrolled_var_) {
        // Left unmaterialised when it only subscripts a register-held array
        // (the element is addressed from the constant).
        const std::int64_t index = unrolled_value_ - values::option_base;
        const bool subscript_only =
            index >= 0 && index < (1 << 24) &&
            ((info(i).store_addr == 1 && cached_array(info(info(i).id).d)) ||
             (i + 1 < count() && ins(i + 1).op == OP_LOAD_ELEM && ins(i + 1).count == 1 && cached_array(info(i + 1).d)));
        if (!subscript_only) a.mov_imm(g(d), unrolled_value_);
      } else if (const Cached* c = cached(info(i).d)) {
        if (!values::is_integer_type(c->type)) a.movapd(x(d), static_cast<Xmm>(c->reg));
        else if (forwardable(i, d)) rg_next_ = true;
        else a.mov(g(d), static_cast<Reg>(c->reg));
      } else {
        load_from(d, in.type, var(info(i).d));
      }
      break;
    case OP_NEG:
      if (st_[static_cast<std::size_t>(d - 1)].is_int()) {
        a.neg(g(d - 1));
        a.jcc(O, error_stub(kMsgOverflow));
      } else if (sgl(d - 1)) {
        a.mov_imm(RAX, 0x80000000ll);
        a.movd(X0, RAX);
        a.xorps(x(d - 1), X0);
      } else {
        a.mov_imm(RAX, static_cast<std::int64_t>(0x8000000000000000ull));
        a.movq(X0, RAX);
        a.xorpd(x(d - 1), X0);
      }
      break;
    case OP_NOT:
      if (st_[static_cast<std::size_t>(d - 1)].is_int()) {
        a.not_(g(d - 1));
      } else {
        to_tmp(0, d - 1);
        call(reinterpret_cast<const void*>(&helper_unary), d - 1, 100, 0, 2);
        a.test(RAX, RAX);
        a.jcc(E, error_stub(kMsgNone));
        from_tmp(d - 1, info_result_);
      }
      break;
    case OP_IDIV: case OP_MOD:
      if (!divide_by_constant(i, in.op, d)) arith(in.op, d);
      break;
    case OP_ADD: case OP_SUB: case OP_MUL: case OP_DIV: case OP_POW:
    case OP_AND: case OP_OR: case OP_XOR: case OP_EQV: case OP_IMP:
      arith(in.op, d);
      break;
    case OP_POW_CONST: {
      to_tmp(0, d - 1);
      const std::int32_t b1 = F(tmp) + static_cast<std::int32_t>(sizeof(values::Value));
      a.store8_imm(mem(R12, b1 + kValueType), static_cast<std::uint8_t>(in.count));
      a.store64_imm(mem(R12, b1 + kValuePayload), in.type);
      call(reinterpret_cast<const void*>(&helper_binop), d - 1, static_cast<std::int64_t>(values::Op::Pow), 0, 2);
      a.test(RAX, RAX);
      a.jcc(E, error_stub(kMsgNone));
      from_tmp(d - 1, info_result_);
      break;
    }
    case OP_EQ: case OP_NE: case OP_LT: case OP_LE: case OP_GT: case OP_GE:
      compare(i, in.op, d);
      break;
    case OP_SQR: case OP_SIN: case OP_COS: case OP_TAN: case OP_ATN: case OP_LOG: case OP_EXP:
    case OP_ABS: case OP_SGN: case OP_INT: case OP_FIX: case OP_CSNG: case OP_CDBL:
    case OP_SINH: case OP_COSH: case OP_TANH: {
      values::NumFn fn;
      switch (in.op) {
        case OP_SQR: fn = values::NumFn::Sqr; break;
        case OP_SIN: fn = values::NumFn::Sin; break;
        case OP_COS: fn = values::NumFn::Cos; break;
        case OP_TAN: fn = values::NumFn::Tan; break;
        case OP_ATN: fn = values::NumFn::Atn; break;
        case OP_LOG: fn = values::NumFn::Log; break;
        case OP_EXP: fn = values::NumFn::Exp; break;
        case OP_ABS: fn = values::NumFn::Abs; break;
        case OP_SGN: fn = values::NumFn::Sgn; break;
        case OP_INT: fn = values::NumFn::Int; break;
        case OP_FIX: fn = values::NumFn::Fix; break;
        case OP_CSNG: fn = values::NumFn::Csng; break;
        case OP_CDBL: fn = values::NumFn::Cdbl; break;
        case OP_SINH: fn = values::NumFn::Sinh; break;
        case OP_COSH: fn = values::NumFn::Cosh; break;
        default: fn = values::NumFn::Tanh; break;
      }
      if ((in.op == OP_INT || in.op == OP_FIX) && st_[static_cast<std::size_t>(d - 1)].is_int()) break;
      to_tmp(0, d - 1);
      call(reinterpret_cast<const void*>(&helper_unary), d - 1, static_cast<std::int64_t>(fn), 0, 2);
      a.test(RAX, RAX);
      a.jcc(E, error_stub(kMsgNone));
      from_tmp(d - 1, info_result_);
      break;
    }
    case OP_STORE_VAR: {
      const Cached* c = cached(info(i).d);
      const bool in_register = c && c->dirty && in_loop_->writeback;
      update_cache(info(i).d, store_to(d - 1, in.type, var(info(i).d), d - 1, !in_register));
      break;
    }
    case OP_DISCARD: break;
    case OP_JUMP: {
      const int target = i + static_cast<int>(static_cast<std::int64_t>(in.operand)) + 1;
      if (info(i).role == kRoleWend) {
        // The loop's mirror entry stays while the condition is tested again:
        // the WHILE pops it when the loop ends, and an exit at the WHILE
        // statement drops it (the interpreter's WEND would have popped it).
        // In a clean innermost loop the WHILE's entry is the mirror's top:
        // its head made sure of it and nothing in the body pushes or pops.
        if (!(in_loop_ && in_loop_->tail == i && in_loop_->clean)) {
          a.cmp32_mem(mem(R15, -16), static_cast<std::int32_t>(while_key(info(i).id)));
          a.jcc(NE, resume_here());
        } else if (const int r = rotate_while(i, target); r != 0) {
          if (r < 0) return false;
          break;
        }
        back_edge(target);
      } else if (target <= i) {
        back_edge(target);
      } else {
        a.jmp(jump_label(target));
      }
      break;
    }
    case OP_BRANCH_FALSE:
      branch_false(i, [&](int target) {
        if (st_[static_cast<std::size_t>(d - 1)].is_int()) {
          a.test(g(d - 1), g(d - 1));
          a.jcc(E, target);
        } else {
          const int truth = a.new_label();
          a.xorpd(X0, X0);
          if (sgl(d - 1)) a.ucomiss(x(d - 1), X0);
          else a.ucomisd(x(d - 1), X0);
          a.jcc(P, truth);  // NaN is true
          a.jcc(E, target);
          a.bind(truth);
        }
      });
      break;
    case OP_GOTO_LOCAL: {
      const int target = i + static_cast<int>(static_cast<std::int64_t>(in.operand)) + 1;
      if (target <= i) back_edge(target);
      else a.jmp(jump_label(target));
      break;
    }
    case OP_GOTO_LINE:
      flush_cache(in_loop_);
      a.store32_imm(mem(R12, F(exit_target)), static_cast<std::int32_t>(in.gen));
      a.store32_imm(mem(R12, F(exit_stmt)), stmt_);
      a.mov_imm(RAX, kTransferGoto);
      a.jmp(epilogue_);
      break;
    case OP_GOSUB_LOCAL: {
      const int target = i + static_cast<int>(static_cast<std::int64_t>(in.operand)) + 1;
      // The machine's own call and return: the return is always predicted.
      // 16 bytes a level keep the stack aligned for helper calls.
      a.alu(Assembler::CMP, R15, mem(R12, F(mirror_limit)));
      a.jcc(AE, resume_here());
      a.lea(RAX, mem(RSP, -16));
      a.alu(Assembler::CMP, RAX, mem(R12, F(gosub_floor)));
      a.jcc(B, resume_here());
      a.store32_imm(mem(R15, 0), static_cast<std::int32_t>(kMirrorGosub << 16 | static_cast<std::uint32_t>(info(i).id)));
      a.store32_imm(mem(R15, 4), static_cast<std::int32_t>(kMirrorGosub));
      a.alu_imm(Assembler::ADD, R15, 16);
      // No poll here: a cycle through GOSUBs alone deepens the stack until
      // it runs out, and every other cycle has a back edge that polls.
      flush_cache(in_loop_);
      a.alu_imm(Assembler::SUB, RSP, 8);
      a.call(labels_[static_cast<std::size_t>(target)]);
      a.alu_imm(Assembler::ADD, RSP, 8);
      // The subroutine may assign the loop's scalars, re-dimension its
      // arrays, and uses the registers that held them.
      load_cache();
      break;
    }
    case OP_RETURN:
      a.cmp32_mem(mem(R15, -12), static_cast<std::int32_t>(kMirrorGosub));
      a.jcc(NE, exit_stub(stmt_, kTransferReturn));
      flush_cache(in_loop_);
      a.alu_imm(Assembler::SUB, R15, 16);
      a.ret();
      break;
    case OP_GOSUB_LINE: a.jmp(exit_stub(stmt_, kTransferGosub)); break;
    case OP_FALLBACK: a.jmp(exit_stub(stmt_, kTransferResume)); break;
    case OP_END: a.jmp(exit_stub(stmt_, kTransferEnd)); break;
    case OP_PSET:
    case OP_LINE:
      if (in.count > 0) {
        // PARFOR workers: the arguments are on the stack; the helper gets
        // them in the frame, each as int64 or binary64 by its static type.
        const int n = in.count;
        std::int64_t float_mask = 0;
        for (int k = 0; k < n; ++k) {
          const int s = d - n + k;
          if (st_[static_cast<std::size_t>(s)].is_float()) {
            to_double(X0, s);
            a.movsd(mem(R12, F(subs) + 8 * k), X0);
            float_mask |= std::int64_t{1} << k;
          } else {
            a.store64(mem(R12, F(subs) + 8 * k), g(s));
          }
        }
        call(reinterpret_cast<const void*>(&helper_draw), d - n, static_cast<std::int64_t>(in.operand), float_mask, 3);
        a.test(RAX, RAX);
        a.jcc(E, error_stub(kMsgNone));
        break;
      }
      [[fallthrough]];
    case OP_PRINT:
    case OP_LOCATE:
    case OP_COLOR:
      call(reinterpret_cast<const void*>(&helper_statement), 0, static_cast<std::int64_t>(in.operand), stmt_, 3);
      a.test(RAX, RAX);
      a.jcc(E, error_stub(kMsgNone));
      break;
    case OP_FOR:
      if (!unroll(i, d)) for_entry(i, d);
      break;
    case OP_NEXT: next(i); break;
    case OP_LOAD_ELEM: {
      const int n = in.count;
      Mem at = mem(RSP);
      element_address(d - n, n, info(i).d, in.type, RAX, &at);
      load_from(d - n, in.type, at.base != RSP ? at : mem(RAX, 0));
      break;
    }
    case OP_STORE_ELEM: {
      const int n = in.count;
      // The element was addressed before the value was computed, into the
      // first subscript's register.
      const auto at = static_cast<std::size_t>(d - 1 - n);
      if (imm_[static_cast<std::size_t>(d - 1)]) {
        // A literal that fits the element's type, stored as it is.
        const Mem m = ab_[at] != RSP ? element_at(at) : mem(g(d - 1 - n), 0);
        const auto v = static_cast<std::int32_t>(kv_[static_cast<std::size_t>(d - 1)]);
        if (in.type == values::kInteger) a.store16_imm(m, static_cast<std::int16_t>(v));
        else if (in.type == values::kLong) a.store32_imm(m, v);
        else a.store64_imm(m, v);
      } else {
        store_to(d - 1, in.type, ab_[at] != RSP ? element_at(at) : mem(g(d - 1 - n), 0), d - 1);
      }
      break;
    }
    default:
      return false;  // not produced by the compiler
  }
  // The stack's types after the instruction.
  int out;
  (void)stack_effect(in, d, &out);
  const double result_bound = out > 0 && produces_value(in.op) ? bound_after(i, d) : kUnbounded;
  const bool pooled_now = in.op == OP_PUSH_CONST && pool_next_;
  pool_next_ = false;
  const bool imm_now = in.op == OP_PUSH_CONST && imm_next_;
  imm_next_ = false;
  const bool rg_now = in.op == OP_PUSH_VAR && rg_next_;
  rg_next_ = false;
  resize_slots(out);
  if (out > 0 && produces_value(in.op)) {
    const auto top = static_cast<std::size_t>(out - 1);
    st_[top] = info_result_;
    bd_[top] = result_bound;
    pooled_[top] = pooled_now;
    imm_[top] = imm_now;
    rg_[top] = rg_now ? static_cast<Reg>(cached(info(i).d)->reg) : RSP;
    loaded_[top] = (in.op == OP_PUSH_VAR || in.op == OP_LOAD_ELEM) && info_result_.is_int() ? info_result_.type : 0;
    ab_[top] = RSP;
    kk_[top] = false;
    if (in.op == OP_PUSH_CONST && in.type <= values::kInt64) {
      kk_[top] = true;
      kv_[top] = static_cast<std::int64_t>(in.operand);
    } else if (in.op == OP_PUSH_VAR && unrolled_var_ && info(i).d == unrolled_var_) {
      kk_[top] = true;
      kv_[top] = unrolled_value_;
    }
  }
  // An array store's element is addressed as soon as its subscripts are known.
  if (info(i).store_addr > 0) {
    const int n = info(i).store_addr;
    const int j = info(i).id;
    const auto k = static_cast<std::size_t>(out - n);
    ab_[k] = RSP;
    ai_[k] = RSP;
    Mem at = mem(RSP);
    const bool in_dst = element_address(out - n, n, info(j).d, ins(j).type, g(out - n), &at);
    if (at.base != RSP && at.base != RAX) {
      // Addressed from the block register when the store comes: the
      // subscript stays in its slot until then.
      ab_[k] = at.base;
      ai_[k] = at.index;
      as_[k] = at.scale;
      ad_[k] = at.disp;
    } else if (at.base == RAX) {
      a.lea(g(out - n), at);
    } else if (!in_dst) {
      a.mov(g(out - n), RAX);
    }
    st_[static_cast<std::size_t>(out - n)] = ValType{values::kInt64, 0};
  }
  return true;
}

bool Gen::touches_hyper(int i) const {
  const Instr& in = ins(i);
  switch (in.op) {
    case OP_PUSH_VAR: case OP_LOAD_ELEM: case OP_STORE_VAR: case OP_STORE_ELEM:
      return in.type == values::kHyper;
    case OP_ADD: case OP_SUB: case OP_MUL: case OP_DIV: case OP_NEG:
      return info(i).result.type == values::kHyper;
    case OP_CPLX: case OP_QUAT: case OP_OCT: case OP_CONJ: case OP_COMPONENT:
      return true;
    default:
      return false;
  }
}

// @ values live in the frame's records, one per stack depth; a number that
// meets one becomes a complex record first, as the interpreter reads it.
void Gen::hyper_instruction(int i, int d) {
  const Instr& in = ins(i);
  auto promote = [&](int s) {
    if (st_[static_cast<std::size_t>(s)].type == values::kHyper) return;
    to_double(X0, s);
    hyper_.from_double(s, X0);
  };
  auto store = [&](int s, const Mem& dst) {
    if (st_[static_cast<std::size_t>(s)].type == values::kHyper) {
      hyper_.store(s, dst);
    } else {
      to_double(X0, s);
      hyper_.store_double(dst);
    }
  };
  switch (in.op) {
    case OP_PUSH_VAR: hyper_.load(d, var(info(i).d)); break;
    case OP_LOAD_ELEM:
      element_address(d - in.count, in.count, info(i).d, in.type);
      hyper_.load(d - in.count, mem(RAX, 0));
      break;
    case OP_ADD: case OP_SUB: case OP_MUL: case OP_DIV:
      promote(d - 2);
      promote(d - 1);
      if (in.op == OP_MUL) hyper_.multiply(d - 2);
      else if (in.op == OP_DIV) hyper_.divide(d - 2);
      else hyper_.add_sub(d - 2, in.op == OP_SUB);
      break;
    case OP_NEG: hyper_.negate(d - 1); break;
    case OP_CONJ:
      promote(d - 1);
      hyper_.conjugate(d - 1);
      break;
    case OP_CPLX: case OP_QUAT: case OP_OCT: {
      const int n = in.op == OP_CPLX ? 2 : in.op == OP_QUAT ? 4 : 8;
      for (int k = 0; k < n; ++k) {
        to_double(X0, d - n + k);
        a.movsd(hyper_.component(d - n, k), X0);
      }
      hyper_.finish_constructed(d - n, n);
      break;
    }
    case OP_COMPONENT: hyper_.read_component(d - 1, in.type, x(d - 1)); break;
    case OP_STORE_VAR: store(d - 1, var(info(i).d)); break;
    case OP_STORE_ELEM: {
      const auto at = static_cast<std::size_t>(d - 1 - in.count);
      store(d - 1, ab_[at] != RSP ? mem(ab_[at], ad_[at]) : mem(g(d - 1 - in.count), 0));
      break;
    }
    default: break;
  }
  load_cache();  // the vector registers may have held loop scalars
}

// The back-edge target of instruction i, or -1 when it does not jump back.
int back_target(const Instr& in, int i) {
  if (in.op == OP_NEXT) return static_cast<int>(in.position);
  if (in.op == OP_JUMP || in.op == OP_GOTO_LOCAL) {
    const std::int64_t t = i + static_cast<std::int64_t>(in.operand) + 1;
    if (t <= i) return static_cast<int>(t);
  }
  return -1;
}

// Innermost loops whose body is entered only at its head: their most used
// scalars get the registers nothing else there needs (reloaded after a
// GOSUB, whose subroutine uses them too).
void Gen::plan_loops() {
  const int n = count();
  loop_head_.assign(static_cast<std::size_t>(n), -1);
  for_const_.assign(rc_.fors.size(), ForConst{});
  elide_.assign(static_cast<std::size_t>(n), false);
  for (int i = 0; i < n; ++i)
    if (depth_[i] >= 0 && ins(i).op == OP_STORE_VAR) region_stored_.push_back(info(i).d);
  for (int i = 0; i < n; ++i) {
    if (depth_[i] < 0 || ins(i).op != OP_FOR) continue;
    // An expression that ends in a literal is that literal: step, limit and
    // start are pushed in that order just before the FOR.
    ForConst& fc = for_const_[static_cast<std::size_t>(ins(i).count)];
    // The literal ending at instruction j (a negated one is two
    // instructions): how many instructions it takes, 0 when it is none.
    auto literal = [&](int j, std::int64_t* v) {
      auto plain = [&](int k) {
        return k >= 0 && ins(k).op == OP_PUSH_CONST && ins(k).type >= values::kInteger && ins(k).type <= values::kInt64;
      };
      if (plain(j)) {
        *v = static_cast<std::int64_t>(ins(j).operand);
        return 1;
      }
      if (j >= 1 && ins(j).op == OP_NEG && plain(j - 1) && static_cast<std::int64_t>(ins(j - 1).operand) != INT64_MIN) {
        *v = -static_cast<std::int64_t>(ins(j - 1).operand);
        return 2;
      }
      return 0;
    };
    int j = i - 1;
    if (const int n_step = literal(j, &fc.step)) {
      fc.step_c = true;
      j -= n_step;
      if (const int n_limit = literal(j, &fc.limit)) {
        fc.limit_c = true;
        j -= n_limit;
        const int n_start = literal(j, &fc.start);
        fc.start_c = n_start > 0;
        // Three plain literals need no registers: the FOR writes them itself.
        const std::uint8_t vt = rc_.fors[static_cast<std::size_t>(ins(i).count)].var_type;
        const std::int64_t top = vt == values::kInteger ? 32767 : vt == values::kLong ? 2147483647 : INT64_MAX;
        if (n_step == 1 && n_limit == 1 && n_start == 1 && fc.step != 0 && values::is_integer_type(vt) &&
            rc_.fors[static_cast<std::size_t>(ins(i).count)].step_const &&
            fc.start <= top && fc.start >= -top && fc.start >= INT32_MIN && fc.start <= INT32_MAX)
          elide_[static_cast<std::size_t>(i - 1)] = elide_[static_cast<std::size_t>(i - 2)] =
              elide_[static_cast<std::size_t>(i - 3)] = true;
      }
    }
    if (fc.step_c && fc.step == 0) fc = ForConst{};
  }
  std::vector<std::pair<int, int>> jumps;  // (from, to)
  for (int i = 0; i < n; ++i) {
    if (depth_[i] < 0) continue;
    const Instr& in = ins(i);
    switch (in.op) {
      case OP_JUMP: case OP_BRANCH_FALSE: case OP_GOTO_LOCAL: case OP_GOSUB_LOCAL:
        jumps.emplace_back(i, i + static_cast<int>(static_cast<std::int64_t>(in.operand)) + 1);
        break;
      case OP_FOR: case OP_NEXT:
        jumps.emplace_back(i, static_cast<int>(in.position));
        break;
      default: break;
    }
  }
  for (int e = 0; e < n; ++e) {
    if (depth_[e] < 0) continue;
    const int s = back_target(ins(e), e);
    if (s < 0 || loop_head_[static_cast<std::size_t>(s)] >= 0) continue;
    bool ok = true;
    int maxd = 1;
    bool calls = false, hyper = false, inner_sub = false;
    std::vector<Cached> vars;
    std::vector<const values::Descriptor*> stored, arrays;
    auto use = [&](const values::Descriptor* d, std::uint8_t type) {
      if (!d || !(values::is_integer_type(type) || type == values::kSingle || type == values::kDouble)) return;
      for (Cached& c : vars)
        if (c.d == d) {
          ++c.uses;
          return;
        }
      vars.push_back(Cached{d, type, 0, 1});
    };
    for (int j = s; j <= e && ok; ++j) {
      if (depth_[j] < 0) continue;
      const Instr& in = ins(j);
      if (j != e && back_target(in, j) >= 0) ok = false;
      if (in.op == OP_GOSUB_LINE || in.op == OP_FOR) ok = false;
      if (in.op == OP_GOSUB_LOCAL) {
        calls = true;
        const int t = j + static_cast<int>(static_cast<std::int64_t>(in.operand)) + 1;
        if (t >= s && t <= e) inner_sub = true;
      }
      if (touches_hyper(j)) hyper = true;
      int out = 0;
      (void)stack_effect(in, depth_[j], &out);
      maxd = std::max({maxd, depth_[j], out});
      if (in.op == OP_PUSH_VAR || in.op == OP_STORE_VAR) use(info(j).d, in.type);
      if (in.op == OP_STORE_VAR) stored.push_back(info(j).d);
      if ((in.op == OP_LOAD_ELEM || in.op == OP_STORE_ELEM) && in.count == 1 && info(j).d &&
          std::find(arrays.begin(), arrays.end(), info(j).d) == arrays.end())
        arrays.push_back(info(j).d);
      if (in.op == OP_NEXT) {
        const ForInfo& f = rc_.fors[static_cast<std::size_t>(in.count)];
        use(f.d, f.var_type);
      }
    }
    for (const auto& [from, to] : jumps)
      if ((from < s || from > e) && to >= s && to <= e) ok = false;
    if (!ok) continue;
    std::stable_sort(vars.begin(), vars.end(), [](const Cached& p, const Cached& q) { return p.uses > q.uses; });
    std::vector<std::uint8_t> gprs, xmms = {X11, X12, X13, X14, X15};
    for (int k = 7; k >= maxd; --k) {
      gprs.push_back(GPR_SLOT[k]);
      xmms.push_back(XMM_SLOT[k]);
    }
    Loop loop{s, e, {}, {}, !inner_sub, calls, std::move(stored)};
    std::size_t ng = 0, nx = 0;
    // Arrays first: each access saves a load and two tests.
    if (values::option_base == 0 || values::option_base == 1)
      for (const values::Descriptor* d : arrays) {
        if (gprs.size() - ng < 2) break;
        loop.arrays.push_back(CachedArray{d, static_cast<Reg>(gprs[ng]), static_cast<Reg>(gprs[ng + 1])});
        ng += 2;
      }
    for (Cached c : vars) {
      std::vector<std::uint8_t>& pool = values::is_integer_type(c.type) ? gprs : xmms;
      std::size_t& used = values::is_integer_type(c.type) ? ng : nx;
      if (used == pool.size()) continue;
      c.reg = pool[used++];
      c.dirty = std::find(loop.stored.begin(), loop.stored.end(), c.d) != loop.stored.end() ||
                (ins(e).op == OP_NEXT && rc_.fors[static_cast<std::size_t>(ins(e).count)].d == c.d);
      loop.vars.push_back(c);
    }
    // Nothing assigned: nothing to write back, and no stubs to tell apart.
    loop.writeback = !hyper && std::any_of(loop.vars.begin(), loop.vars.end(), [](const Cached& c) { return c.dirty; });
    loop_head_[static_cast<std::size_t>(s)] = static_cast<int>(loops_.size());
    loops_.push_back(std::move(loop));
  }
}

bool Gen::run() {
  labels_.resize(static_cast<std::size_t>(count()));
  for (int& l : labels_) l = a.new_label();
  skip_.assign(static_cast<std::size_t>(count()), false);
  offsets.assign(static_cast<std::size_t>(count()), 0);
  epilogue_ = a.new_label();
  plan_loops();
  prologue();
  // Statements that are branch targets (loop heads, jump targets) start on
  // 8-byte boundaries; padding elsewhere would only be executed.
  std::vector<bool> target(static_cast<std::size_t>(count()) + 1, false);
  for (int i = 0; i < count(); ++i) {
    const Instr& in = ins(i);
    if (in.op == OP_JUMP || in.op == OP_BRANCH_FALSE || in.op == OP_GOTO_LOCAL || in.op == OP_GOSUB_LOCAL) {
      const std::int64_t t = i + static_cast<std::int64_t>(in.operand) + 1;
      if (t >= 0 && t <= count()) target[static_cast<std::size_t>(t)] = true;
    } else if (in.op == OP_FOR || in.op == OP_NEXT) {
      if (in.position <= static_cast<std::uint32_t>(count())) target[in.position] = true;
    }
  }
  for (int i = 0; i < count(); ++i) {
    if (loop_head_[static_cast<std::size_t>(i)] >= 0) {
      // Entered only by falling in from above: the registers are filled here
      // and the loop's back edge jumps past this.
      in_loop_ = &loops_[static_cast<std::size_t>(loop_head_[static_cast<std::size_t>(i)])];
      load_cache();
      fill_prefix(*in_loop_);
    }
    if (ins(i).op == OP_STATEMENT && target[static_cast<std::size_t>(i)]) a.align(8);
    a.bind(labels_[static_cast<std::size_t>(i)]);
    offsets[static_cast<std::size_t>(i)] = static_cast<std::uint32_t>(a.size());
    if (depth_[i] >= 0 && !skip_[static_cast<std::size_t>(i)]) {
      resize_slots(depth_[i]);
      if (!instruction(i)) return false;
      if (resume_at_ >= 0) {
        // An unrolled loop: its body and NEXT are already laid out.
        i = resume_at_ - 1;
        resume_at_ = -1;
        continue;
      }
    }
    if (in_loop_ && in_loop_->tail == i) {
      flush_cache(in_loop_);  // falling out of the loop's end
      in_loop_ = nullptr;
    }
  }
  a.ud2();  // nothing falls off the end: the last instruction always leaves
  for (std::size_t k = 0; k < cold_.size(); ++k) cold_[k]();
  hyper_.finish();
  emit_epilogue();
  a.align(8);
  for (const auto& [key, label] : pool_) {
    if (!key.second) a.align(8);
    a.bind(label);
    if (key.second) a.u32(static_cast<std::uint32_t>(key.first));
    else a.u64(key.first);
  }
  return a.resolve();
}

}  // namespace

// The signed magic number of Hacker's Delight (section 10-4), in 64 bits.
DivMagic div_magic(std::int64_t d) {
  const std::uint64_t two63 = 1ull << 63;
  const std::uint64_t ad = static_cast<std::uint64_t>(d);
  const std::uint64_t t = two63;
  const std::uint64_t anc = t - 1 - t % ad;
  int p = 63;
  std::uint64_t q1 = two63 / anc, r1 = two63 - q1 * anc;
  std::uint64_t q2 = two63 / ad, r2 = two63 - q2 * ad;
  std::uint64_t delta;
  do {
    ++p;
    q1 *= 2;
    r1 *= 2;
    if (r1 >= anc) {
      ++q1;
      r1 -= anc;
    }
    q2 *= 2;
    r2 *= 2;
    if (r2 >= ad) {
      ++q2;
      r2 -= ad;
    }
    delta = ad - r2;
  } while (q1 < delta || (q1 == delta && r1 == 0));
  return DivMagic{static_cast<std::int64_t>(q2 + 1), p - 64};
}

const char* generate(const RegionCode& rc, const int* depth, NativeCode* out) {
  Gen gen(rc, depth);
  if (!gen.run()) return "JIT code generation failed";
  const std::size_t page = 4096;
  const std::size_t size = (gen.a.size() + page - 1) / page * page;
  auto* block = static_cast<std::uint8_t*>(host::exec_alloc(size));
  if (!block) return "JIT executable memory allocation failed";
  std::memcpy(block, gen.a.code.data(), gen.a.size());
  if (!host::exec_protect(block, size)) {
    host::exec_free(block, size);
    return "JIT executable memory protection failed";
  }
  out->block = block;
  out->block_size = size;
  out->code_size = gen.a.size();
  out->entry = reinterpret_cast<RegionEntry>(block);
  out->offsets = std::move(gen.offsets);
  return nullptr;
}

void release(NativeCode* code) {
  if (code->block) host::exec_free(code->block, code->block_size);
  *code = NativeCode{};
}

}  // namespace jit
