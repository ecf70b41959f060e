// The region bytecode: instruction records, the opcode list (generated from
// opcodes.def) and the stack-flow verifier.
#pragma once
#include <cstdint>

namespace jit {

constexpr int VAR = 1000;  // stack effect that depends on the count
enum Op : std::uint8_t {
#define OP(name, number, effect) OP_##name = number,
#include "jit/opcodes.def"
#undef OP
};
constexpr int kOpcodeCount = 74;
constexpr int kMaxInstructions = 1024;
constexpr int kMaxStackDepth = 128;

struct Instr {
  std::uint8_t op;
  std::uint8_t type;       // value type, function code, component or exponent
  std::uint16_t count;     // operands taken when it varies, or a FOR slot
  std::uint64_t operand;   // constant bits, token pointer, displacement or line number
  std::uint32_t line;      // program line index of the statement
  std::uint32_t position;  // token index in the line; FOR and NEXT: absolute target
  std::uint64_t gen;       // the code generator's word
};

const char* op_name(std::uint8_t op);
// One step of the check: the depth after `in` at depth `depth_in`; false for
// an unknown opcode.
bool stack_effect(const Instr& in, int depth_in, int* depth_out);
// The whole check. Returns nullptr when the list is sound, else the message
// to raise. depth[] gets each instruction's entry depth.
const char* verify_stack_flow(const Instr* list, int count, int* depth);

}  // namespace jit
