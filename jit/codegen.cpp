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
#include <cstring>
#include <functional>
#include <map>

#include "host/platform.h"
#include "jit/native.h"
#include "jit/x64.h"
#include "values/builtins.h"
#include "values/ops.h"

namespace jit {

namespace {

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
  const RegionCode& rc_;
  const int* depth_;
  std::vector<ValType> st_;   // static type per stack depth
  std::vector<int> labels_;   // one per instruction
  int epilogue_ = -1;
  int stmt_ = 0;              // statement of the instruction in hand
  std::map<std::pair<int, int>, int> error_stubs_;   // (stmt, msg) -> label
  std::map<std::pair<int, int>, int> exit_stubs_;    // (stmt, code) -> label
  std::vector<std::function<void()>> cold_;
  std::vector<bool> skip_;    // fused into the previous instruction
  ValType info_result_;       // the result type of the instruction in hand

  // A scalar kept in a register through an innermost loop.
  struct Cached {
    const values::Descriptor* d;
    std::uint8_t type;
    std::uint8_t reg;  // a Reg for integer types, an Xmm for SINGLE and DOUBLE
    int uses;
  };
  struct Loop {
    int head, tail;
    std::vector<Cached> vars;
  };
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
  }
  // After a store of `type` whose value is in register r: the cached copy.
  void update_cache(const values::Descriptor* d, int r) {
    const Cached* c = cached(d);
    if (!c) return;
    if (values::is_integer_type(c->type)) a.mov(static_cast<Reg>(c->reg), static_cast<Reg>(r));
    else a.movapd(static_cast<Xmm>(c->reg), static_cast<Xmm>(r));
  }

  Reg g(int d) const { return GPR_SLOT[d]; }
  Xmm x(int d) const { return XMM_SLOT[d]; }
  const InstrInfo& info(int i) const { return rc_.info[static_cast<std::size_t>(i)]; }
  const Instr& ins(int i) const { return rc_.code[static_cast<std::size_t>(i)]; }
  int count() const { return static_cast<int>(rc_.code.size()); }
  Mem var(const values::Descriptor* d) const {
    return mem(RBX, static_cast<std::int32_t>(reinterpret_cast<const std::uint8_t*>(d) -
                                              reinterpret_cast<const std::uint8_t*>(values::descriptor_table())) + kDescValue);
  }

  int error_stub(int msg) {
    auto key = std::make_pair(stmt_, msg);
    auto it = error_stubs_.find(key);
    if (it != error_stubs_.end()) return it->second;
    const int l = a.new_label();
    const int s = stmt_;
    cold_.push_back([this, l, s, msg] {
      a.bind(l);
      a.store32_imm(mem(R12, F(exit_stmt)), s);
      a.store32_imm(mem(R12, F(error_msg)), msg);
      a.mov_imm(RAX, 0);
      a.jmp(epilogue_);
    });
    error_stubs_[key] = l;
    return l;
  }
  int exit_stub(int stmt, int code) {
    auto key = std::make_pair(stmt, code);
    auto it = exit_stubs_.find(key);
    if (it != exit_stubs_.end()) return it->second;
    const int l = a.new_label();
    cold_.push_back([this, l, stmt, code] {
      a.bind(l);
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
      if (st_[static_cast<std::size_t>(d)].is_float()) a.movsd(mem(R12, F(spill_f) + 8 * d), x(d));
      else a.store64(mem(R12, F(spill) + 8 * d), g(d));
    }
  }
  void reload(int live) {
    for (int d = 0; d < live; ++d) {
      if (st_[static_cast<std::size_t>(d)].is_float()) a.movsd(x(d), mem(R12, F(spill_f) + 8 * d));
      else a.load64(g(d), mem(R12, F(spill) + 8 * d));
    }
  }
  // Calls fn(frame, a1, a2); live slots below `live` survive. Result in RAX.
  void call(const void* fn, int live, std::int64_t a1 = 0, std::int64_t a2 = 0, int nargs = 1) {
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
      a.cvtss2sd(X0, x(d));
      a.movsd(mem(R12, base + kValuePayload), X0);
    } else if (t.is_float()) {
      a.movsd(mem(R12, base + kValuePayload), x(d));
    } else {
      a.store64(mem(R12, base + kValuePayload), g(d));
    }
  }
  void from_tmp(int d, const ValType& t) {
    const std::int32_t base = F(tmp);
    if (t.type == values::kSingle) a.cvtsd2ss(x(d), mem(R12, base + kValuePayload));
    else if (t.is_float()) a.movsd(x(d), mem(R12, base + kValuePayload));
    else a.load64(g(d), mem(R12, base + kValuePayload));
  }
  // SINGLE values live in registers as binary32 (their exact value): the
  // single-precision operations give the same bits as the double operation
  // rounded to single, and save the conversions on every step.
  bool sgl(int d) const { return st_[static_cast<std::size_t>(d)].type == values::kSingle; }
  void to_double(Xmm dst, int d) {
    if (sgl(d)) a.cvtss2sd(dst, x(d));
    else if (st_[static_cast<std::size_t>(d)].is_float()) a.movapd(dst, x(d));
    else a.cvtsi2sd(dst, g(d));
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
    a.cvtsd2ss(r, r);
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
  int store_to(int d, std::uint8_t type, const Mem& m, int live) {
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
      const bool fits = v.is_int() && ((type == values::kInteger && v.mag <= 32767.0) ||
                                       (type == values::kLong && v.mag <= 2147483647.0));
      if (fits) {
        if (type == values::kInteger) a.store16(m, r);
        else a.store32(m, r);
      } else if (type == values::kInteger) {
        a.sx16(RCX, r);
        a.alu(Assembler::CMP, RCX, r);
        a.jcc(NE, error_stub(kMsgOverflow));
        a.store16(m, r);
      } else if (type == values::kLong) {
        a.sx32(RCX, r);
        a.alu(Assembler::CMP, RCX, r);
        a.jcc(NE, error_stub(kMsgOverflow));
        a.store32(m, r);
      } else {
        a.store64(m, r);
      }
      return r;
    }
    if (type == values::kSingle && v.type == values::kSingle) {
      a.movss(m, x(d));
      return x(d);
    }
    to_double(X0, d);
    if (type == values::kSingle) {
      a.cvtsd2ss(X0, X0);
      if (v.is_float()) {
        a.cvtss2sd(X1, X0);
        a.movq(RAX, X1);
        a.mov_imm(RCX, 0x7FF0000000000000ll);
        a.alu(Assembler::AND, RAX, RCX);
        a.alu(Assembler::CMP, RAX, RCX);
        a.jcc(E, error_stub(kMsgOverflow));
      }
      a.movss(m, X0);
    } else {
      a.movsd(m, X0);
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
  // Subscripts in slots d0..d0+n-1 to an element address in RAX (the
  // interpreter's checks in its order). Floating subscripts are rounded first.
  void element_address(int d0, int n, const values::Descriptor* d, std::uint8_t type) {
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
      return;
    }
    if (n == 1) {
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
          a.alu(Assembler::CMP, g(d0), mem(RAX, 8));
          a.jcc(A, error_stub(kMsgSubscript));
          a.lea(RAX, mem(RAX, g(d0), static_cast<std::uint8_t>(width), 16));
        } else {
          a.lea(RCX, mem(g(d0), -1));
          a.alu(Assembler::CMP, RCX, mem(RAX, 8));
          a.jcc(AE, error_stub(kMsgSubscript));
          a.lea(RAX, mem(RAX, RCX, static_cast<std::uint8_t>(width), 16));
        }
        return;
      }
      a.mov(RCX, g(d0));
      a.alu(Assembler::SUB, RCX, mem(R12, F(option_base)));
      a.load64(RDX, mem(RAX, 8));
      a.alu(Assembler::SUB, RDX, mem(R12, F(option_base)));
      a.alu(Assembler::CMP, RCX, RDX);
      a.jcc(A, error_stub(kMsgSubscript));
      const std::uint32_t w = values::slot_width(type);
      a.lea(RAX, mem(RAX, RCX, static_cast<std::uint8_t>(w), 16));
      return;
    }
    for (int k = 0; k < n; ++k) a.store64(mem(R12, F(subs) + 8 * k), g(d0 + k));
    call(reinterpret_cast<const void*>(&helper_element), d0, reinterpret_cast<std::int64_t>(d), n, 3);
    a.test(RAX, RAX);
    a.jcc(E, error_stub(kMsgNone));
  }
  // A backward branch: count down, and every kPollInterval-th time ask
  // whether the interpreter must take over (break key, events, closing).
  void back_edge(int target) {
    a.alu_imm(Assembler::SUB, R13, 1);
    a.jcc(NE, labels_[static_cast<std::size_t>(target)]);
    const int target_stmt = info(target).stmt;
    a.mov_imm(R13, kPollInterval);
    a.mov(ARG[0], R12);
    a.mov_imm(RAX, reinterpret_cast<std::int64_t>(&helper_poll));
    a.call(RAX);
    a.test(RAX, RAX);
    if (in_loop_) {
      a.jcc(NE, exit_stub(target_stmt, kTransferResume));
      load_cache();
      a.jmp(labels_[static_cast<std::size_t>(target)]);
      return;
    }
    a.jcc(E, labels_[static_cast<std::size_t>(target)]);
    a.jmp(exit_stub(target_stmt, kTransferResume));
  }
  void mirror_push(std::uint32_t key, std::uint32_t kind, std::int32_t room_field) {
    a.alu(Assembler::CMP, R15, mem(R12, F(mirror_limit)));
    a.jcc(AE, resume_here());
    a.cmp32_mem(mem(R12, room_field), 0);
    a.jcc(LE, resume_here());
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
    int target = labels_[static_cast<std::size_t>(bi + static_cast<int>(static_cast<std::int64_t>(ins(bi).operand)) + 1)];
    const bool while_test = info(bi).role == kRoleWhileTest;
    const std::uint32_t wkey = while_test ? while_key(info(bi).id) : 0;
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
  void prologue();
  void emit_epilogue();
  bool instruction(int i);
  void compare(int i, std::uint8_t op, int d);
  void arith(std::uint8_t op, int d);
  void for_entry(int i, int d);
  void next(int i);
  bool divide_by_constant(int i, std::uint8_t op, int d);
};

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
    a.alu(Assembler::CMP, g(da), g(db));
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
      branch_false(i + 1, [&](int target) { a.jcc(invert(c), target); });
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
    switch (op) {
      case OP_ADD: a.alu(Assembler::ADD, g(da), g(db)); a.jcc(O, error_stub(kMsgOverflow)); return;
      case OP_SUB: a.alu(Assembler::SUB, g(da), g(db)); a.jcc(O, error_stub(kMsgOverflow)); return;
      case OP_MUL: a.imul(g(da), g(db)); a.jcc(O, error_stub(kMsgOverflow)); return;
      case OP_IDIV:
      case OP_MOD: {
        a.test(g(db), g(db));
        a.jcc(E, error_stub(kMsgDivisionByZero));
        const int normal = a.new_label(), done = a.new_label();
        a.alu_imm(Assembler::CMP, g(db), -1);
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
        a.idiv(g(db));
        a.mov(g(da), op == OP_MOD ? RDX : RAX);
        a.bind(done);
        return;
      }
      case OP_AND: a.alu(Assembler::AND, g(da), g(db)); return;
      case OP_OR: a.alu(Assembler::OR, g(da), g(db)); return;
      case OP_XOR: a.alu(Assembler::XOR, g(da), g(db)); return;
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
    if (rt == values::kSingle && small(ta) && small(tb)) {
      if (ta.is_int()) a.cvtsi2ss(x(da), g(da));
      Xmm xb = x(db);
      if (tb.is_int()) {
        a.cvtsi2ss(X1, g(db));
        xb = X1;
      }
      if (op == OP_DIV) {
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
      check_single(x(da));
      return;
    }
    // Otherwise in double, the result straight into a's floating register.
    if (ta.is_int()) a.cvtsi2sd(x(da), g(da));
    else if (ta.type == values::kSingle) a.cvtss2sd(x(da), x(da));
    Xmm xb = x(db);
    if (tb.type != values::kDouble) {
      to_double(X1, db);
      xb = X1;
    }
    if (op == OP_DIV) {
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
    if (rt == values::kSingle) round_single(x(da));
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

void Gen::for_entry(int i, int d) {
  const int slot = ins(i).count;
  const ForInfo& f = rc_.fors[static_cast<std::size_t>(slot)];
  const int ds = d - 3, dl = d - 2, dt = d - 1;
  const ValType tl = st_[static_cast<std::size_t>(dl)], tt = st_[static_cast<std::size_t>(dt)];
  // A NaN limit or step is "Illegal function call".
  for (int k : {dl, dt}) {
    if (!st_[static_cast<std::size_t>(k)].is_float()) continue;
    to_double(X0, k);
    a.ucomisd(X0, X0);
    a.jcc(P, error_stub(kMsgIllegalCall));
  }
  store_to(ds, f.var_type, var(f.d), d);
  const std::int32_t fs = F(fors) + slot * static_cast<std::int32_t>(sizeof(ForSlot));
  const std::int32_t o_limit_i = fs + static_cast<std::int32_t>(offsetof(ForSlot, limit_i));
  const std::int32_t o_limit_d = fs + static_cast<std::int32_t>(offsetof(ForSlot, limit_d));
  const std::int32_t o_step_i = fs + static_cast<std::int32_t>(offsetof(ForSlot, step_i));
  const std::int32_t o_step_d = fs + static_cast<std::int32_t>(offsetof(ForSlot, step_d));
  const std::int32_t o_sign = fs + static_cast<std::int32_t>(offsetof(ForSlot, sign));
  if (tl.is_int()) a.store64(mem(R12, o_limit_i), g(dl));
  to_double(X0, dl);
  a.movsd(mem(R12, o_limit_d), X0);
  if (tt.is_int()) a.store64(mem(R12, o_step_i), g(dt));
  to_double(X1, dt);
  a.movsd(mem(R12, o_step_d), X1);
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
  mirror_push(for_key(slot), kMirrorFor, F(for_room));
  a.store8_imm(mem(R12, F(live) + slot), 1);
  // The entry test: a loop can run zero times.
  const int body = a.new_label(), past = a.new_label();
  auto test = [&](int sign) {
    if (sign == 0) return;
    if (values::is_integer_type(f.var_type) && tl.is_int()) {
      load_from(0, f.var_type, var(f.d));
      a.alu(Assembler::CMP, g(0), mem(R12, o_limit_i));
      a.jcc(sign > 0 ? G : L, past);
    } else {
      if (values::is_integer_type(f.var_type)) {
        load_from(0, f.var_type, var(f.d));
        a.cvtsi2sd(X0, g(0));
      } else if (f.var_type == values::kSingle) {
        a.cvtss2sd(X0, var(f.d));
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

void Gen::next(int i) {
  const int slot = ins(i).count;
  const ForInfo& f = rc_.fors[static_cast<std::size_t>(slot)];
  const std::int32_t fs = F(fors) + slot * static_cast<std::int32_t>(sizeof(ForSlot));
  const std::int32_t o_limit_i = fs + static_cast<std::int32_t>(offsetof(ForSlot, limit_i));
  const std::int32_t o_limit_d = fs + static_cast<std::int32_t>(offsetof(ForSlot, limit_d));
  const std::int32_t o_step_i = fs + static_cast<std::int32_t>(offsetof(ForSlot, step_i));
  const std::int32_t o_step_d = fs + static_cast<std::int32_t>(offsetof(ForSlot, step_d));
  const std::int32_t o_sign = fs + static_cast<std::int32_t>(offsetof(ForSlot, sign));
  // Only the loop on top of the mirror is stepped here; anything else is the
  // interpreter's to sort out.
  a.cmp32_mem(mem(R15, -16), static_cast<std::int32_t>(for_key(slot)));
  a.jcc(NE, resume_here());
  const int done = a.new_label(), again = a.new_label();
  const Mem v = var(f.d);
  const bool int_limit = f.limit.is_int();
  auto beyond = [&](int sign) {
    if (sign == 0) return;
    if (values::is_integer_type(f.var_type)) {
      if (int_limit) {
        a.alu(Assembler::CMP, RAX, mem(R12, o_limit_i));
        a.jcc(sign > 0 ? G : L, done);
      } else {
        a.cvtsi2sd(X0, RAX);
        a.ucomisd(X0, mem(R12, o_limit_d));
        a.jcc(sign > 0 ? A : B, done);
      }
    } else {
      a.ucomisd(X0, mem(R12, o_limit_d));
      a.jcc(sign > 0 ? A : B, done);
    }
  };
  const Cached* c = cached(f.d);
  if (values::is_integer_type(f.var_type)) {
    if (c) {
      a.mov(RAX, static_cast<Reg>(c->reg));
    } else {
      switch (f.var_type) {
        case values::kInteger: a.load_s16(RAX, v); break;
        case values::kLong: a.load_s32(RAX, v); break;
        default: a.load64(RAX, v); break;
      }
    }
    a.alu(Assembler::ADD, RAX, mem(R12, o_step_i));
    a.jcc(O, error_stub(kMsgOverflow));
    if (f.var_type == values::kInteger) {
      a.sx16(RCX, RAX);
      a.alu(Assembler::CMP, RCX, RAX);
      a.jcc(NE, error_stub(kMsgOverflow));
      a.store16(v, RAX);
    } else if (f.var_type == values::kLong) {
      a.sx32(RCX, RAX);
      a.alu(Assembler::CMP, RCX, RAX);
      a.jcc(NE, error_stub(kMsgOverflow));
      a.store32(v, RAX);
    } else {
      a.store64(v, RAX);
    }
    update_cache(f.d, RAX);
  } else {
    if (c && f.var_type == values::kSingle) a.cvtss2sd(X0, static_cast<Xmm>(c->reg));
    else if (c) a.movapd(X0, static_cast<Xmm>(c->reg));
    else if (f.var_type == values::kSingle) a.cvtss2sd(X0, v);
    else a.movsd(X0, v);
    a.addsd(X0, mem(R12, o_step_d));
    if (f.var_type == values::kSingle) {
      a.cvtsd2ss(X0, X0);
      a.cvtss2sd(X0, X0);
    }
    check_finite(X0);
    if (f.var_type == values::kSingle) {
      a.cvtsd2ss(X1, X0);
      a.movss(v, X1);
      update_cache(f.d, X1);
    } else {
      a.movsd(v, X0);
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

bool Gen::instruction(int i) {
  const Instr& in = ins(i);
  const int d = depth_[i];
  stmt_ = info(i).stmt;
  info_result_ = info(i).result;
  switch (in.op) {
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
      if (const Cached* c = cached(info(i).d)) {
        if (values::is_integer_type(c->type)) a.mov(g(d), static_cast<Reg>(c->reg));
        else a.movapd(x(d), static_cast<Xmm>(c->reg));
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
    case OP_STORE_VAR: update_cache(info(i).d, store_to(d - 1, in.type, var(info(i).d), d - 1)); break;
    case OP_DISCARD: break;
    case OP_JUMP: {
      const int target = i + static_cast<int>(static_cast<std::int64_t>(in.operand)) + 1;
      if (info(i).role == kRoleWend) {
        // The loop's mirror entry stays while the condition is tested again:
        // the WHILE pops it when the loop ends, and an exit at the WHILE
        // statement drops it (the interpreter's WEND would have popped it).
        a.cmp32_mem(mem(R15, -16), static_cast<std::int32_t>(while_key(info(i).id)));
        a.jcc(NE, resume_here());
        back_edge(target);
      } else if (target <= i) {
        back_edge(target);
      } else {
        a.jmp(labels_[static_cast<std::size_t>(target)]);
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
      else a.jmp(labels_[static_cast<std::size_t>(target)]);
      break;
    }
    case OP_GOTO_LINE:
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
      a.alu_imm(Assembler::SUB, RSP, 8);
      {
        const int enter = a.new_label(), after = a.new_label();
        a.call(enter);
        a.jmp(after);
        a.bind(enter);
        back_edge(target);
        a.bind(after);
      }
      a.alu_imm(Assembler::ADD, RSP, 8);
      break;
    }
    case OP_RETURN:
      a.cmp32_mem(mem(R15, -12), static_cast<std::int32_t>(kMirrorGosub));
      a.jcc(NE, exit_stub(stmt_, kTransferReturn));
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
    case OP_FOR: for_entry(i, d); break;
    case OP_NEXT: next(i); break;
    case OP_LOAD_ELEM: {
      const int n = in.count;
      element_address(d - n, n, info(i).d, in.type);
      load_from(d - n, in.type, mem(RAX, 0));
      break;
    }
    case OP_STORE_ELEM: {
      const int n = in.count;
      // The element was addressed before the value was computed, into the
      // first subscript's register.
      store_to(d - 1, in.type, mem(g(d - 1 - n), 0), d - 1);
      break;
    }
    default:
      return false;  // not produced by the compiler
  }
  // The stack's types after the instruction.
  int out;
  (void)stack_effect(in, d, &out);
  st_.resize(static_cast<std::size_t>(out));
  if (out > 0 && produces_value(in.op)) st_[static_cast<std::size_t>(out - 1)] = info_result_;
  // An array store's element is addressed as soon as its subscripts are known.
  if (info(i).store_addr > 0) {
    const int n = info(i).store_addr;
    const int j = info(i).id;
    element_address(out - n, n, info(j).d, ins(j).type);
    a.mov(g(out - n), RAX);
    st_[static_cast<std::size_t>(out - n)] = ValType{values::kInt64, 0};
  }
  return true;
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

// Innermost loops whose body is entered only at its head and calls no
// subroutine: their most used scalars get the registers nothing else there
// needs.
void Gen::plan_loops() {
  const int n = count();
  loop_head_.assign(static_cast<std::size_t>(n), -1);
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
    std::vector<Cached> vars;
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
      if (in.op == OP_GOSUB_LOCAL || in.op == OP_GOSUB_LINE || in.op == OP_FOR) ok = false;
      int out = 0;
      (void)stack_effect(in, depth_[j], &out);
      maxd = std::max({maxd, depth_[j], out});
      if (in.op == OP_PUSH_VAR || in.op == OP_STORE_VAR) use(info(j).d, in.type);
      if (in.op == OP_NEXT) {
        const ForInfo& f = rc_.fors[static_cast<std::size_t>(in.count)];
        use(f.d, f.var_type);
      }
    }
    for (const auto& [from, to] : jumps)
      if ((from < s || from > e) && to >= s && to <= e) ok = false;
    if (!ok || vars.empty()) continue;
    std::stable_sort(vars.begin(), vars.end(), [](const Cached& p, const Cached& q) { return p.uses > q.uses; });
    std::vector<std::uint8_t> gprs, xmms = {X11, X12, X13, X14, X15};
    for (int k = 7; k >= maxd; --k) {
      gprs.push_back(GPR_SLOT[k]);
      xmms.push_back(XMM_SLOT[k]);
    }
    Loop loop{s, e, {}};
    std::size_t ng = 0, nx = 0;
    for (Cached c : vars) {
      std::vector<std::uint8_t>& pool = values::is_integer_type(c.type) ? gprs : xmms;
      std::size_t& used = values::is_integer_type(c.type) ? ng : nx;
      if (used == pool.size()) continue;
      c.reg = pool[used++];
      loop.vars.push_back(c);
    }
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
  plan_loops();
  for (int i = 0; i < count(); ++i) {
    if (loop_head_[static_cast<std::size_t>(i)] >= 0) {
      // Entered only by falling in from above: the registers are filled here
      // and the loop's back edge jumps past this.
      in_loop_ = &loops_[static_cast<std::size_t>(loop_head_[static_cast<std::size_t>(i)])];
      load_cache();
    }
    if (ins(i).op == OP_STATEMENT && target[static_cast<std::size_t>(i)]) a.align(8);
    a.bind(labels_[static_cast<std::size_t>(i)]);
    offsets[static_cast<std::size_t>(i)] = static_cast<std::uint32_t>(a.size());
    if (depth_[i] >= 0 && !skip_[static_cast<std::size_t>(i)]) {
      st_.resize(static_cast<std::size_t>(depth_[i]));
      if (!instruction(i)) return false;
    }
    if (in_loop_ && in_loop_->tail == i) in_loop_ = nullptr;
  }
  a.ud2();  // nothing falls off the end: the last instruction always leaves
  for (std::size_t k = 0; k < cold_.size(); ++k) cold_[k]();
  emit_epilogue();
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
