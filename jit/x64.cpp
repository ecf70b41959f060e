#include "jit/x64.h"

namespace jit {

bool Assembler::resolve() {
  for (const Ref& r : refs_) {
    const std::int64_t target = labels_[static_cast<std::size_t>(r.label)];
    if (target < 0) return false;
    patch32(r.at, static_cast<std::uint32_t>(target - static_cast<std::int64_t>(r.at + 4)));
  }
  refs_.clear();
  return true;
}

void Assembler::rex(bool w, unsigned reg, unsigned index, unsigned base, bool force) {
  const std::uint8_t r = static_cast<std::uint8_t>(0x40 | (w ? 8 : 0) | ((reg >> 3) & 1) << 2 | ((index >> 3) & 1) << 1 |
                                                   ((base >> 3) & 1));
  if (r != 0x40 || force) byte(r);
}

// ModRM (+SIB, +displacement) for a memory operand. RSP and R12 as a base
// need a SIB byte; RBP and R13 as a base need a displacement even when it is 0.
void Assembler::modrm_mem(unsigned reg, const Mem& m) {
  const unsigned base = m.base & 7;
  const bool need_sib = m.index != RSP || base == 4;
  unsigned mod;
  if (m.disp == 0 && base != 5) mod = 0;
  else if (m.disp >= -128 && m.disp <= 127) mod = 1;
  else mod = 2;
  byte(static_cast<std::uint8_t>(mod << 6 | (reg & 7) << 3 | (need_sib ? 4 : base)));
  if (need_sib) {
    const unsigned ss = m.scale == 8 ? 3 : m.scale == 4 ? 2 : m.scale == 2 ? 1 : 0;
    byte(static_cast<std::uint8_t>(ss << 6 | (m.index & 7) << 3 | base));
  }
  if (mod == 1) byte(static_cast<std::uint8_t>(m.disp));
  else if (mod == 2) u32(static_cast<std::uint32_t>(m.disp));
}

void Assembler::rr(std::uint8_t op, Reg reg, Reg rmr, bool w) {
  rex(w, reg, 0, rmr);
  byte(op);
  byte(static_cast<std::uint8_t>(0xC0 | (reg & 7) << 3 | (rmr & 7)));
}

void Assembler::rr2(std::uint8_t op1, std::uint8_t op2, Reg reg, Reg rmr, bool w) {
  rex(w, reg, 0, rmr);
  byte(op1);
  byte(op2);
  byte(static_cast<std::uint8_t>(0xC0 | (reg & 7) << 3 | (rmr & 7)));
}

void Assembler::rm(std::uint8_t op, Reg reg, const Mem& m, bool w, bool byte_reg) {
  // A byte store of SPL..DIL needs a REX prefix to mean those and not AH..BH.
  rex(w, reg, m.index, m.base, byte_reg && reg >= 4);
  byte(op);
  modrm_mem(reg, m);
}

void Assembler::rm2(std::uint8_t op1, std::uint8_t op2, Reg reg, const Mem& m, bool w) {
  rex(w, reg, m.index, m.base);
  byte(op1);
  byte(op2);
  modrm_mem(reg, m);
}

void Assembler::sse(std::uint8_t prefix, std::uint8_t op, unsigned reg, const Mem& m) {
  byte(prefix);
  rex(false, reg, m.index, m.base);
  byte(0x0F);
  byte(op);
  modrm_mem(reg, m);
}

void Assembler::sse_rr(std::uint8_t prefix, std::uint8_t op, unsigned reg, unsigned rmr) {
  byte(prefix);
  rex(false, reg, 0, rmr);
  byte(0x0F);
  byte(op);
  byte(static_cast<std::uint8_t>(0xC0 | (reg & 7) << 3 | (rmr & 7)));
}

void Assembler::mov_imm(Reg d, std::int64_t v) {
  if (v == 0) {
    rr(0x31, d, d, false);  // xor r32, r32
  } else if (v > 0 && v <= 0xFFFFFFFFll) {
    rex(false, 0, 0, d);
    byte(static_cast<std::uint8_t>(0xB8 + (d & 7)));
    u32(static_cast<std::uint32_t>(v));
  } else if (v >= INT32_MIN && v <= INT32_MAX) {
    rex(true, 0, 0, d);
    byte(0xC7);
    byte(static_cast<std::uint8_t>(0xC0 | (d & 7)));
    u32(static_cast<std::uint32_t>(v));
  } else {
    rex(true, 0, 0, d);
    byte(static_cast<std::uint8_t>(0xB8 + (d & 7)));
    u64(static_cast<std::uint64_t>(v));
  }
}

void Assembler::alu_imm(Alu op, Reg d, std::int32_t v) {
  rex(true, 0, 0, d);
  if (v >= -128 && v <= 127) {
    byte(0x83);
    byte(static_cast<std::uint8_t>(0xC0 | op << 3 | (d & 7)));
    byte(static_cast<std::uint8_t>(v));
  } else {
    byte(0x81);
    byte(static_cast<std::uint8_t>(0xC0 | op << 3 | (d & 7)));
    u32(static_cast<std::uint32_t>(v));
  }
}

void Assembler::alu_mem_imm(Alu op, const Mem& m, std::int32_t v) {
  const bool small = v >= -128 && v <= 127;
  rm(small ? 0x83 : 0x81, static_cast<Reg>(op), m, true);
  if (small) byte(static_cast<std::uint8_t>(v));
  else u32(static_cast<std::uint32_t>(v));
}

void Assembler::alu32_mem_imm(Alu op, const Mem& m, std::int32_t v) {
  const bool small = v >= -128 && v <= 127;
  rm(small ? 0x83 : 0x81, static_cast<Reg>(op), m, false);
  if (small) byte(static_cast<std::uint8_t>(v));
  else u32(static_cast<std::uint32_t>(v));
}

void Assembler::imul_imm(Reg d, Reg s, std::int32_t v) {
  rex(true, d, 0, s);
  if (v >= -128 && v <= 127) {
    byte(0x6B);
    byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7)));
    byte(static_cast<std::uint8_t>(v));
  } else {
    byte(0x69);
    byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7)));
    u32(static_cast<std::uint32_t>(v));
  }
}

void Assembler::setcc(Cond c, Reg r) {
  rex(false, 0, 0, r, r >= 4);
  byte(0x0F);
  byte(static_cast<std::uint8_t>(0x90 | c));
  byte(static_cast<std::uint8_t>(0xC0 | (r & 7)));
}

void Assembler::movzx8(Reg d, Reg s) {
  rex(false, d, 0, s, s >= 4);
  byte(0x0F);
  byte(0xB6);
  byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7)));
}

void Assembler::cvtsi2sd(Xmm d, Reg s) {
  byte(0xF2);
  rex(true, d, 0, s);
  byte(0x0F);
  byte(0x2A);
  byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7)));
}

void Assembler::cvttsd2si(Reg d, Xmm s) {
  byte(0xF2);
  rex(true, d, 0, s);
  byte(0x0F);
  byte(0x2C);
  byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7)));
}

void Assembler::movq(Xmm d, Reg s) {
  byte(0x66);
  rex(true, d, 0, s);
  byte(0x0F);
  byte(0x6E);
  byte(static_cast<std::uint8_t>(0xC0 | (d & 7) << 3 | (s & 7)));
}

void Assembler::movq(Reg d, Xmm s) {
  byte(0x66);
  rex(true, s, 0, d);
  byte(0x0F);
  byte(0x7E);
  byte(static_cast<std::uint8_t>(0xC0 | (s & 7) << 3 | (d & 7)));
}

}  // namespace jit
