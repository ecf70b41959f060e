#include "jit/bytecode.h"

namespace jit {

namespace {

struct OpInfo {
  const char* name;
  int effect;
};

constexpr OpInfo kOps[kOpcodeCount + 1] = {
    {"?", 0},
#define OP(name, number, effect) {#name, effect},
#include "jit/opcodes.def"
#undef OP
};

bool is_terminal(std::uint8_t op) { return op >= OP_RETURN && op <= OP_END; }

}  // namespace

const char* op_name(std::uint8_t op) { return op >= 1 && op <= kOpcodeCount ? kOps[op].name : "?"; }

bool stack_effect(const Instr& in, int depth_in, int* depth_out) {
  if (in.op < 1 || in.op > kOpcodeCount) return false;
  int e = kOps[in.op].effect;
  if (e == VAR) {
    switch (in.op) {
      case OP_CALL_BUILTIN:
      case OP_CALL_FN:
      case OP_LOAD_ELEM: e = 1 - in.count; break;
      default: e = -in.count; break;  // PSET, LINE, STORE_ELEM
    }
  }
  *depth_out = depth_in + e;
  return true;
}

const char* verify_stack_flow(const Instr* list, int count, int* depth) {
  for (int i = 0; i < count; ++i) depth[i] = -1;
  if (count == 0) return nullptr;
  depth[0] = 0;
  bool changed = true;
  for (int sweep = 0; changed && sweep < count + 3; ++sweep) {
    changed = false;
    for (int i = 0; i < count; ++i) {
      if (depth[i] < 0) continue;
      const Instr& in = list[i];
      int out;
      if (!stack_effect(in, depth[i], &out)) return "JIT unknown bytecode opcode";
      if (out < 0 || out > kMaxStackDepth) return "JIT stack-flow error";
      auto flow = [&](int target, int d) -> const char* {
        if (target >= count) return nullptr;  // the end: nothing follows
        if (depth[target] < 0) {
          depth[target] = d;
          changed = true;
        } else if (depth[target] != d) {
          return "JIT stack-flow mismatch";
        }
        return nullptr;
      };
      const char* e = nullptr;
      if (in.op == OP_GOSUB_LOCAL) {
        if (depth[i] != 0) return "JIT GOSUB stack imbalance";
        const std::int64_t target = i + static_cast<std::int64_t>(in.operand) + 1;
        if (target < 0 || target >= count) return "JIT branch error";
        if ((e = flow(static_cast<int>(target), 0)) || (e = flow(i + 1, 0))) return e;
        continue;
      }
      if (is_terminal(in.op)) {
        if (depth[i] != 0) return "JIT transfer stack imbalance";
        continue;
      }
      if (in.op == OP_JUMP || in.op == OP_BRANCH_FALSE) {
        const std::int64_t target = i + static_cast<std::int64_t>(in.operand) + 1;
        if (target < 0 || target >= count) return "JIT branch error";
        if ((e = flow(static_cast<int>(target), out))) return e;
        if (in.op == OP_JUMP) continue;
      }
      if (in.op == OP_GOTO_LOCAL) {
        const std::int64_t target = i + static_cast<std::int64_t>(in.operand) + 1;
        if (target < 0 || target >= count) return "JIT branch error";
        if ((e = flow(static_cast<int>(target), out))) return e;
        continue;
      }
      if (in.op == OP_FOR || in.op == OP_NEXT) {
        if (in.position >= static_cast<std::uint32_t>(count)) return "JIT FOR branch error";
        if ((e = flow(static_cast<int>(in.position), out))) return e;
      }
      if ((e = flow(i + 1, out))) return e;
    }
  }
  return nullptr;
}

}  // namespace jit
