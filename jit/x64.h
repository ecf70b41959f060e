// An x86-64 instruction encoder. It knows registers, memory operands and
// labels, nothing of BASIC. Branches always use 32-bit displacements.
#pragma once
#include <cstdint>
#include <cstring>
#include <vector>

namespace jit {

enum Reg : std::uint8_t { RAX, RCX, RDX, RBX, RSP, RBP, RSI, RDI, R8, R9, R10, R11, R12, R13, R14, R15 };
enum Xmm : std::uint8_t { X0, X1, X2, X3, X4, X5, X6, X7, X8, X9, X10, X11, X12, X13, X14, X15 };
// The same register numbers as 256-bit YMM registers (VEX.L = 1).
enum Ymm : std::uint8_t { Y0, Y1, Y2, Y3, Y4, Y5, Y6, Y7, Y8, Y9, Y10, Y11, Y12, Y13, Y14, Y15 };
enum Cond : std::uint8_t { O = 0, NO, B, AE, E, NE, BE, A, S, NS, P, NP, L, GE, LE, G };

// [base + index * scale + disp]; index RSP means none.
struct Mem {
  Reg base;
  std::int32_t disp = 0;
  Reg index = RSP;
  std::uint8_t scale = 1;
};
inline Mem mem(Reg base, std::int32_t disp = 0) { return Mem{base, disp}; }
inline Mem mem(Reg base, Reg index, std::uint8_t scale, std::int32_t disp = 0) { return Mem{base, disp, index, scale}; }

class Assembler {
 public:
  std::vector<std::uint8_t> code;

  std::size_t size() const { return code.size(); }
  void byte(std::uint8_t b) { code.push_back(b); }
  void u32(std::uint32_t v) { for (int i = 0; i < 4; ++i) byte(static_cast<std::uint8_t>(v >> (8 * i))); }
  void u64(std::uint64_t v) { for (int i = 0; i < 8; ++i) byte(static_cast<std::uint8_t>(v >> (8 * i))); }
  void patch32(std::size_t at, std::uint32_t v) { std::memcpy(&code[at], &v, 4); }
  void align(unsigned n) { while (code.size() % n) byte(0x90); }

  // --- labels ----------------------------------------------------------
  int new_label() { labels_.push_back(-1); return static_cast<int>(labels_.size()) - 1; }
  void bind(int label) { labels_[static_cast<std::size_t>(label)] = static_cast<std::int64_t>(code.size()); }
  bool bound(int label) const { return labels_[static_cast<std::size_t>(label)] >= 0; }
  std::int64_t label_offset(int label) const { return labels_[static_cast<std::size_t>(label)]; }
  void jmp(int label) { byte(0xE9); ref(label); }
  void jcc(Cond c, int label) { byte(0x0F); byte(static_cast<std::uint8_t>(0x80 | c)); ref(label); }
  // Resolve every label reference; false when one was never bound.
  bool resolve();

  // --- general registers ------------------------------------------------
  void mov(Reg d, Reg s) { rr(0x89, s, d, true); }
  void mov32(Reg d, Reg s) { rr(0x89, s, d, false); }
  void mov_imm(Reg d, std::int64_t v);
  void load64(Reg d, const Mem& m) { rm(0x8B, d, m, true); }
  void load32(Reg d, const Mem& m) { rm(0x8B, d, m, false); }
  void store64(const Mem& m, Reg s) { rm(0x89, s, m, true); }
  void store32(const Mem& m, Reg s) { rm(0x89, s, m, false); }
  void store16(const Mem& m, Reg s) { byte(0x66); rm(0x89, s, m, false); }
  void store8(const Mem& m, Reg s) { rm(0x88, s, m, false, true); }
  void store64_imm(const Mem& m, std::int32_t v) { rm(0xC7, static_cast<Reg>(0), m, true); u32(static_cast<std::uint32_t>(v)); }
  void store32_imm(const Mem& m, std::int32_t v) { rm(0xC7, static_cast<Reg>(0), m, false); u32(static_cast<std::uint32_t>(v)); }
  void load_s16(Reg d, const Mem& m) { rm2(0x0F, 0xBF, d, m, true); }   // movsx r64, word
  void load_s32(Reg d, const Mem& m) { rm(0x63, d, m, true); }          // movsxd r64, dword
  void sx16(Reg d, Reg s) { rr2(0x0F, 0xBF, d, s, true); }
  void sx32(Reg d, Reg s) { rr(0x63, d, s, true); }
  void lea(Reg d, const Mem& m) { rm(0x8D, d, m, true); }
  void lea_rip(Reg d, int label) { rex(true, d, 0, 0); byte(0x8D); byte(static_cast<std::uint8_t>(0x05 | (d & 7) << 3)); ref(label); }
  void cmp32_mem(const Mem& m, std::int32_t v) { alu32_mem_imm(CMP, m, v); }
  void cmp8_mem(const Mem& m, std::uint8_t v) { rm(0x80, static_cast<Reg>(7), m, false); byte(v); }
  void store16_imm(const Mem& m, std::int16_t v) {
    byte(0x66);
    rm(0xC7, static_cast<Reg>(0), m, false);
    byte(static_cast<std::uint8_t>(v));
    byte(static_cast<std::uint8_t>(static_cast<std::uint16_t>(v) >> 8));
  }
  void store8_imm(const Mem& m, std::uint8_t v) { rm(0xC6, static_cast<Reg>(0), m, false); byte(v); }
  void movups_store(const Mem& m, Xmm s) { rex(false, s, m.index, m.base); byte(0x0F); byte(0x11); modrm_mem(s, m); }
  void movups_load(Xmm d, const Mem& m) { rex(false, d, m.index, m.base); byte(0x0F); byte(0x10); modrm_mem(d, m); }

  enum Alu : std::uint8_t { ADD = 0, OR = 1, AND = 4, SUB = 5, XOR = 6, CMP = 7 };
  void alu(Alu op, Reg d, Reg s) { rr(static_cast<std::uint8_t>(op * 8 + 1), s, d, true); }
  void alu(Alu op, Reg d, const Mem& m) { rm(static_cast<std::uint8_t>(op * 8 + 3), d, m, true); }
  void alu_imm(Alu op, Reg d, std::int32_t v);
  void alu32_imm(Alu op, Reg d, std::int32_t v) { rex(false, 0, 0, d); byte(0x81); byte(static_cast<std::uint8_t>(0xC0 | op << 3 | (d & 7))); u32(static_cast<std::uint32_t>(v)); }
  void alu_mem_imm(Alu op, const Mem& m, std::int32_t v);  // 64-bit
  void alu32_mem_imm(Alu op, const Mem& m, std::int32_t v);
  void test(Reg a, Reg b) { rr(0x85, b, a, true); }
  void imul(Reg d, Reg s) { rr2(0x0F, 0xAF, d, s, true); }
  void imul(Reg d, const Mem& m) { rm2(0x0F, 0xAF, d, m, true); }
  void imul_imm(Reg d, Reg s, std::int32_t v);
  void neg(Reg r) { rr(0xF7, static_cast<Reg>(3), r, true); }
  void not_(Reg r) { rr(0xF7, static_cast<Reg>(2), r, true); }
  void idiv(Reg r) { rr(0xF7, static_cast<Reg>(7), r, true); }
  void imul_wide(Reg r) { rr(0xF7, static_cast<Reg>(5), r, true); }  // RDX:RAX = RAX * r, signed
  void cqo() { byte(0x48); byte(0x99); }
  // rep stos of 2, 4 or 8 bytes: RCX elements of RAX from [RDI] upward.
  void rep_stos(int width) {
    if (width == 2) byte(0x66);
    byte(0xF3);
    if (width == 8) byte(0x48);
    byte(0xAB);
  }
  void sar_imm(Reg r, std::uint8_t n) { rr(0xC1, static_cast<Reg>(7), r, true); byte(n); }
  void shl_imm(Reg r, std::uint8_t n) { rr(0xC1, static_cast<Reg>(4), r, true); byte(n); }
  void shr_imm(Reg r, std::uint8_t n) { rr(0xC1, static_cast<Reg>(5), r, true); byte(n); }
  void setcc(Cond c, Reg r);                 // r8 = cc
  void movzx8(Reg d, Reg s);                 // r32 = zero-extended r8
  void cmov(Cond c, Reg d, Reg s) { rr2(0x0F, static_cast<std::uint8_t>(0x40 | c), d, s, true); }
  void push(Reg r) { if (r >= R8) byte(0x41); byte(static_cast<std::uint8_t>(0x50 + (r & 7))); }
  void pop(Reg r) { if (r >= R8) byte(0x41); byte(static_cast<std::uint8_t>(0x58 + (r & 7))); }
  void call(Reg r) { rr(0xFF, static_cast<Reg>(2), r, false); }
  void jmp(Reg r) { rr(0xFF, static_cast<Reg>(4), r, false); }
  void jmp_mem(const Mem& m) { rm(0xFF, static_cast<Reg>(4), m, false); }
  void ret() { byte(0xC3); }
  void call(int label) { byte(0xE8); ref(label); }
  void movd(Reg d, Xmm s) { byte(0x66); rex(false, s, 0, d); byte(0x0F); byte(0x7E); byte(static_cast<std::uint8_t>(0xC0 | (s & 7) << 3 | (d & 7))); }
  void ud2() { byte(0x0F); byte(0x0B); }

  // --- SSE2 scalar double ----------------------------------------------
  void movsd(Xmm d, const Mem& m) { sse(0xF2, 0x10, d, m); }
  void movsd(const Mem& m, Xmm s) { sse(0xF2, 0x11, s, m); }
  void movss(Xmm d, const Mem& m) { sse(0xF3, 0x10, d, m); }
  void movss(const Mem& m, Xmm s) { sse(0xF3, 0x11, s, m); }
  void movapd(Xmm d, Xmm s) { if (d != s) sse_rr(0x66, 0x28, d, s); }
  void addsd(Xmm d, Xmm s) { sse_rr(0xF2, 0x58, d, s); }
  void subsd(Xmm d, Xmm s) { sse_rr(0xF2, 0x5C, d, s); }
  void mulsd(Xmm d, Xmm s) { sse_rr(0xF2, 0x59, d, s); }
  void divsd(Xmm d, Xmm s) { sse_rr(0xF2, 0x5E, d, s); }
  void addsd(Xmm d, const Mem& m) { sse(0xF2, 0x58, d, m); }
  void mulsd(Xmm d, const Mem& m) { sse(0xF2, 0x59, d, m); }
  void subsd(Xmm d, const Mem& m) { sse(0xF2, 0x5C, d, m); }
  void ucomisd(Xmm a, Xmm b) { sse_rr(0x66, 0x2E, a, b); }
  void ucomisd(Xmm a, const Mem& m) { sse(0x66, 0x2E, a, m); }
  void xorpd(Xmm d, Xmm s) { sse_rr(0x66, 0x57, d, s); }
  void andpd(Xmm d, Xmm s) { sse_rr(0x66, 0x54, d, s); }
  void cvtsd2ss(Xmm d, Xmm s) { sse_rr(0xF2, 0x5A, d, s); }
  void cvtss2sd(Xmm d, Xmm s) { sse_rr(0xF3, 0x5A, d, s); }
  void cvtss2sd(Xmm d, const Mem& m) { sse(0xF3, 0x5A, d, m); }
  void addss(Xmm d, Xmm s) { sse_rr(0xF3, 0x58, d, s); }
  void subss(Xmm d, Xmm s) { sse_rr(0xF3, 0x5C, d, s); }
  void mulss(Xmm d, Xmm s) { sse_rr(0xF3, 0x59, d, s); }
  void divss(Xmm d, Xmm s) { sse_rr(0xF3, 0x5E, d, s); }
  void ucomiss(Xmm a, Xmm b) { rex(false, a, 0, b); byte(0x0F); byte(0x2E); byte(static_cast<std::uint8_t>(0xC0 | (a & 7) << 3 | (b & 7))); }
  void xorps(Xmm d, Xmm s) { rex(false, d, 0, s); byte(0x0F); byte(0x57); byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7))); }
  void cvtsd2ss(Xmm d, const Mem& m) { sse(0xF2, 0x5A, d, m); }
  void cvtsi2ss(Xmm d, Reg s) { byte(0xF3); rex(true, d, 0, s); byte(0x0F); byte(0x2A); byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7))); }
  void movd(Xmm d, Reg s) { byte(0x66); rex(false, d, 0, s); byte(0x0F); byte(0x6E); byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7))); }
  // A scalar SSE operation (prefix, 0F, op) whose source is 4 or 8 bytes of
  // data at a label, addressed relative to the next instruction.
  void sse_rip(std::uint8_t prefix, std::uint8_t op, Xmm d, int label) {
    byte(prefix);
    rex(false, d, 0, 0);
    byte(0x0F);
    byte(op);
    byte(static_cast<std::uint8_t>(0x05 | (d & 7) << 3));
    ref(label);
  }
  void cvtsi2sd(Xmm d, Reg s);               // from r64
  void cvttsd2si(Reg d, Xmm s);              // to r64, truncating
  void movq(Xmm d, Reg s);
  void movq(Reg d, Xmm s);

  // --- packed double: SSE2 (2 lanes) and AVX/AVX2 (4 lanes, VEX) ----------
  // Legacy SSE memory operands of packed operations must be 16-byte aligned;
  // the loads and stores here are the unaligned forms, and VEX operations
  // accept any address.
  void movupd(Xmm d, const Mem& m) { sse(0x66, 0x10, d, m); }
  void movupd(const Mem& m, Xmm s) { sse(0x66, 0x11, s, m); }
  void addpd(Xmm d, Xmm s) { sse_rr(0x66, 0x58, d, s); }
  void subpd(Xmm d, Xmm s) { sse_rr(0x66, 0x5C, d, s); }
  void mulpd(Xmm d, Xmm s) { sse_rr(0x66, 0x59, d, s); }
  void divpd(Xmm d, Xmm s) { sse_rr(0x66, 0x5E, d, s); }
  void unpcklpd(Xmm d, Xmm s) { sse_rr(0x66, 0x14, d, s); }
  void shufpd(Xmm d, Xmm s, std::uint8_t imm) { sse_rr(0x66, 0xC6, d, s); byte(imm); }
  void cmppd(Xmm d, Xmm s, std::uint8_t predicate) { sse_rr(0x66, 0xC2, d, s); byte(predicate); }
  void movmskpd(Reg d, Xmm s) { sse_rr(0x66, 0x50, d, s); }
  void xorpd(Xmm d, const Mem& m) { sse(0x66, 0x57, d, m); }             // 16-byte aligned data
  void xorpd_rip(Xmm d, int label) { sse_rip(0x66, 0x57, d, label); }  // 16-byte aligned data
  void vmovupd(Ymm d, const Mem& m) { vex_m(0x10, 1, d, 0, m); }
  void vmovupd(const Mem& m, Ymm s) { vex_m(0x11, 1, s, 0, m); }
  void vaddpd(Ymm d, Ymm a, Ymm b) { vex_r(0x58, 1, d, a, b); }
  void vsubpd(Ymm d, Ymm a, Ymm b) { vex_r(0x5C, 1, d, a, b); }
  void vmulpd(Ymm d, Ymm a, Ymm b) { vex_r(0x59, 1, d, a, b); }
  void vdivpd(Ymm d, Ymm a, Ymm b) { vex_r(0x5E, 1, d, a, b); }
  void vxorpd(Ymm d, Ymm a, Ymm b) { vex_r(0x57, 1, d, a, b); }
  void vxorpd(Ymm d, Ymm a, const Mem& m) { vex_m(0x57, 1, d, a, m); }
  void vxorpd_rip(Ymm d, Ymm a, int label);
  void vcmppd(Ymm d, Ymm a, Ymm b, std::uint8_t predicate) { vex_r(0xC2, 1, d, a, b); byte(predicate); }
  void vmovmskpd(Reg d, Ymm s) { vex_r(0x50, 1, static_cast<Ymm>(d), Y0, s); }
  void vbroadcastsd(Ymm d, const Mem& m) { vex_m(0x19, 2, d, 0, m); }  // AVX (memory source)
  void vpermpd(Ymm d, const Mem& m, std::uint8_t imm) { vex_m(0x01, 3, d, 0, m, true); byte(imm); }  // AVX2
  void vpermpd(Ymm d, Ymm s, std::uint8_t imm);                                                     // AVX2
  void vzeroupper() { byte(0xC5); byte(0xF8); byte(0x77); }

 private:
  // VEX prefix for a 256-bit operation with the 66 prefix: map 1 = 0F,
  // 2 = 0F38, 3 = 0F3A. The two-byte form when W, X and B allow it.
  void vex(unsigned map, bool w, unsigned reg, unsigned vvvv, unsigned index, unsigned base);
  void vex_r(std::uint8_t op, unsigned map, Ymm d, Ymm v, Ymm s, bool w = false) {
    vex(map, w, d, v, 0, s);
    byte(op);
    byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7)));
  }
  void vex_m(std::uint8_t op, unsigned map, unsigned reg, unsigned vvvv, const Mem& m, bool w = false) {
    vex(map, w, reg, vvvv, m.index, m.base);
    byte(op);
    modrm_mem(reg, m);
  }

  std::vector<std::int64_t> labels_;
  struct Ref { std::size_t at; int label; };
  std::vector<Ref> refs_;
  void ref(int label) { refs_.push_back({code.size(), label}); u32(0); }

  void rex(bool w, unsigned reg, unsigned index, unsigned base, bool force = false);
  void modrm_mem(unsigned reg, const Mem& m);
  void rr(std::uint8_t op, Reg reg, Reg rmr, bool w);
  void rr2(std::uint8_t op1, std::uint8_t op2, Reg reg, Reg rmr, bool w);
  void rm(std::uint8_t op, Reg reg, const Mem& m, bool w, bool byte_reg = false);
  void rm2(std::uint8_t op1, std::uint8_t op2, Reg reg, const Mem& m, bool w);
  void sse(std::uint8_t prefix, std::uint8_t op, unsigned reg, const Mem& m);
  void sse_rr(std::uint8_t prefix, std::uint8_t op, unsigned reg, unsigned rmr);
};

}  // namespace jit
