// The VEX-encoded part of the encoder (256-bit packed double).
#include "jit/x64.h"

namespace jit {

void Assembler::vex(unsigned map, bool w, unsigned reg, unsigned vvvv, unsigned index, unsigned base) {
  // R, X, B and vvvv are stored inverted.
  const unsigned r = (~reg >> 3) & 1, x = (~index >> 3) & 1, b = (~base >> 3) & 1;
  const unsigned tail = (~vvvv & 15u) << 3 | 1u << 2 | 1u;  // L = 1 (256 bits), pp = 1 (66)
  if (map == 1 && !w && x && b) {
    byte(0xC5);
    byte(static_cast<std::uint8_t>(r << 7 | tail));
    return;
  }
  byte(0xC4);
  byte(static_cast<std::uint8_t>(r << 7 | x << 6 | b << 5 | map));
  byte(static_cast<std::uint8_t>((w ? 0x80u : 0u) | tail));
}

void Assembler::vxorpd_rip(Ymm d, Ymm a, int label) {
  vex(1, false, d, a, 0, 0);
  byte(0x57);
  byte(static_cast<std::uint8_t>(0x05 | (d & 7) << 3));
  ref(label);
}

void Assembler::vpermpd(Ymm d, Ymm s, std::uint8_t imm) {
  vex_r(0x01, 3, d, Y0, s, true);
  byte(imm);
}

}  // namespace jit
