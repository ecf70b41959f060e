// The x86-64 encoder against bytes GNU as produced for the same
// instructions, the bytecode verifier's messages, and executable memory
// (never writable and executable at once; injected failures leave nothing).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "host/platform.h"
#include "jit/bytecode.h"
#include "jit/codegen_hyper.h"
#include "jit/native.h"
#include "jit/x64.h"
#include "values/hyper.h"

namespace jit {
namespace {

std::string hex(const std::vector<std::uint8_t>& b) {
  std::string s;
  char buf[4];
  for (std::uint8_t c : b) {
    std::snprintf(buf, sizeof buf, "%02x", c);
    s += buf;
  }
  return s;
}

struct Golden {
  const char* text;
  std::function<void(Assembler&)> emit;
  const char* bytes;
};

// The traps: RSP and R12 as a base need a SIB byte, RBP and R13 need a
// displacement, R8-R15 need REX bits, small immediates take the imm8 form.
TEST(Encoder, MatchesGnuAssembler) {
  const Golden table[] = {
      {"mov rax,[rsp]", [](Assembler& a) { a.load64(RAX, mem(RSP)); }, "488b0424"},
      {"mov rax,[r12]", [](Assembler& a) { a.load64(RAX, mem(R12)); }, "498b0424"},
      {"mov rax,[rbp]", [](Assembler& a) { a.load64(RAX, mem(RBP)); }, "488b4500"},
      {"mov rax,[r13]", [](Assembler& a) { a.load64(RAX, mem(R13)); }, "498b4500"},
      {"mov r9,[r12+0x100]", [](Assembler& a) { a.load64(R9, mem(R12, 0x100)); }, "4d8b8c2400010000"},
      {"mov [rbx+8],r15", [](Assembler& a) { a.store64(mem(RBX, 8), R15); }, "4c897b08"},
      {"add rsi,1", [](Assembler& a) { a.alu_imm(Assembler::ADD, RSI, 1); }, "4883c601"},
      {"add rsi,1000", [](Assembler& a) { a.alu_imm(Assembler::ADD, RSI, 1000); }, "4881c6e8030000"},
      {"sub r13,1", [](Assembler& a) { a.alu_imm(Assembler::SUB, R13, 1); }, "4983ed01"},
      {"imul r8,r9", [](Assembler& a) { a.imul(R8, R9); }, "4d0fafc1"},
      {"cmp rcx,[r12+0x40]", [](Assembler& a) { a.alu(Assembler::CMP, RCX, mem(R12, 0x40)); }, "493b4c2440"},
      {"movsd xmm9,[r12+0x80]", [](Assembler& a) { a.movsd(X9, mem(R12, 0x80)); }, "f2450f108c2480000000"},
      {"addsd xmm2,xmm10", [](Assembler& a) { a.addsd(X2, X10); }, "f2410f58d2"},
      {"cvtsi2sd xmm3,r11", [](Assembler& a) { a.cvtsi2sd(X3, R11); }, "f2490f2adb"},
      {"ucomisd xmm1,xmm0", [](Assembler& a) { a.ucomisd(X1, X0); }, "660f2ec8"},
      {"movq rax,xmm8", [](Assembler& a) { a.movq(RAX, X8); }, "664c0f7ec0"},
      {"mov r10,0x7ff0...", [](Assembler& a) { a.mov_imm(R10, 0x7FF0000000000000ll); }, "49ba000000000000f07f"},
      {"mov esi,5", [](Assembler& a) { a.mov_imm(RSI, 5); }, "be05000000"},
      {"mov rdi,-1", [](Assembler& a) { a.mov_imm(RDI, -1); }, "48c7c7ffffffff"},
      {"lea rax,[rax+rcx*8+16]", [](Assembler& a) { a.lea(RAX, mem(RAX, RCX, 8, 16)); }, "488d44c810"},
      {"movsx rbp,word [rbx+0x30]", [](Assembler& a) { a.load_s16(RBP, mem(RBX, 0x30)); }, "480fbf6b30"},
      {"movsxd r14,[rbx+0x30]", [](Assembler& a) { a.load_s32(R14, mem(RBX, 0x30)); }, "4c637330"},
      {"mov [rbx+0x30],si", [](Assembler& a) { a.store16(mem(RBX, 0x30), RSI); }, "66897330"},
      {"setl al", [](Assembler& a) { a.setcc(L, RAX); }, "0f9cc0"},
      {"movzx eax,al", [](Assembler& a) { a.movzx8(RAX, RAX); }, "0fb6c0"},
      {"cmp dword [r15-16],0x10003", [](Assembler& a) { a.cmp32_mem(mem(R15, -16), 0x10003); }, "41817ff003000100"},
      {"movups [rsp+32],xmm6", [](Assembler& a) { a.movups_store(mem(RSP, 32), X6); }, "0f11742420"},
      {"mov word [r11+0x30],-2", [](Assembler& a) { a.store16_imm(mem(R11, 0x30), -2); }, "6641c74330feff"},
      {"mulss xmm9,[rip+0]", [](Assembler& a) {
         const int l = a.new_label();
         a.sse_rip(0xF3, 0x59, X9, l);
         a.bind(l);
         (void)a.resolve();
       }, "f3440f590d00000000"},
      {"addsd xmm2,[rip+0]", [](Assembler& a) {
         const int l = a.new_label();
         a.sse_rip(0xF2, 0x58, X2, l);
         a.bind(l);
         (void)a.resolve();
       }, "f20f581500000000"},
      // Packed double, SSE2 and VEX (AVX/AVX2): REX.R/B of XMM8-15 and VEX's
      // inverted R, B and vvvv, the two-byte VEX form where it suffices,
      // W1 of vpermpd, R12 needing its SIB byte inside VEX too.
      {"movupd xmm10,[r12+0x2e30]", [](Assembler& a) { a.movupd(X10, mem(R12, 0x2e30)); }, "66450f109424302e0000"},
      {"movupd [rax+8],xmm1", [](Assembler& a) { a.movupd(mem(RAX, 8), X1); }, "660f114808"},
      {"addpd xmm0,xmm1", [](Assembler& a) { a.addpd(X0, X1); }, "660f58c1"},
      {"subpd xmm11,xmm2", [](Assembler& a) { a.subpd(X11, X2); }, "66440f5cda"},
      {"mulpd xmm1,xmm0", [](Assembler& a) { a.mulpd(X1, X0); }, "660f59c8"},
      {"divpd xmm0,xmm9", [](Assembler& a) { a.divpd(X0, X9); }, "66410f5ec1"},
      {"unpcklpd xmm0,xmm0", [](Assembler& a) { a.unpcklpd(X0, X0); }, "660f14c0"},
      {"shufpd xmm13,xmm13,1", [](Assembler& a) { a.shufpd(X13, X13, 1); }, "66450fc6ed01"},
      {"cmpunordpd xmm0,xmm0", [](Assembler& a) { a.cmppd(X0, X0, 3); }, "660fc2c003"},
      {"movmskpd eax,xmm0", [](Assembler& a) { a.movmskpd(RAX, X0); }, "660f50c0"},
      {"xorpd xmm0,[rdx+16]", [](Assembler& a) { a.xorpd(X0, mem(RDX, 16)); }, "660f574210"},
      {"vmovupd ymm0,[r12+0x2e30]", [](Assembler& a) { a.vmovupd(Y0, mem(R12, 0x2e30)); }, "c4c17d108424302e0000"},
      {"vmovupd [r12+32],ymm11", [](Assembler& a) { a.vmovupd(mem(R12, 32), Y11); }, "c4417d115c2420"},
      {"vaddpd ymm10,ymm10,ymm11", [](Assembler& a) { a.vaddpd(Y10, Y10, Y11); }, "c4412d58d3"},
      {"vsubpd ymm1,ymm1,ymm1", [](Assembler& a) { a.vsubpd(Y1, Y1, Y1); }, "c5f55cc9"},
      {"vmulpd ymm1,ymm1,ymm0", [](Assembler& a) { a.vmulpd(Y1, Y1, Y0); }, "c5f559c8"},
      {"vdivpd ymm8,ymm9,ymm12", [](Assembler& a) { a.vdivpd(Y8, Y9, Y12); }, "c441355ec4"},
      {"vxorpd ymm0,ymm0,[rdx+32]", [](Assembler& a) { a.vxorpd(Y0, Y0, mem(RDX, 32)); }, "c5fd574220"},
      {"vcmpunordpd ymm0,ymm0,ymm0", [](Assembler& a) { a.vcmppd(Y0, Y0, Y0, 3); }, "c5fdc2c003"},
      {"vmovmskpd eax,ymm0", [](Assembler& a) { a.vmovmskpd(RAX, Y0); }, "c5fd50c0"},
      {"vbroadcastsd ymm0,[rax+56]", [](Assembler& a) { a.vbroadcastsd(Y0, mem(RAX, 56)); }, "c4e27d194038"},
      {"vpermpd ymm11,[rcx+32],0xb1", [](Assembler& a) { a.vpermpd(Y11, mem(RCX, 32), 0xb1); }, "c463fd015920b1"},
      {"vpermpd ymm1,ymm9,0x1b", [](Assembler& a) { a.vpermpd(Y1, Y9, 0x1b); }, "c4c3fd01c91b"},
      {"vzeroupper", [](Assembler& a) { a.vzeroupper(); }, "c5f877"},
      {"rep stosw", [](Assembler& a) { a.rep_stos(2); }, "66f3ab"},
      {"rep stosd", [](Assembler& a) { a.rep_stos(4); }, "f3ab"},
      {"rep stosq", [](Assembler& a) { a.rep_stos(8); }, "f348ab"},
      {"cmovg rax,rcx", [](Assembler& a) { a.cmov(G, RAX, RCX); }, "480f4fc1"},
  };
  for (const Golden& g : table) {
    Assembler a;
    g.emit(a);
    EXPECT_EQ(hex(a.code), g.bytes) << g.text;
  }
}

TEST(Encoder, BranchesUse32BitDisplacementsToTheirLabels) {
  Assembler a;
  const int back = a.new_label(), fwd = a.new_label();
  a.bind(back);
  a.jcc(NE, fwd);  // 6 bytes
  a.jmp(back);     // 5 bytes
  a.bind(fwd);
  ASSERT_TRUE(a.resolve());
  EXPECT_EQ(hex(a.code), "0f8505000000" "e9f5ffffff");
  Assembler b;
  b.jmp(b.new_label());
  EXPECT_FALSE(b.resolve()) << "a label never bound";
}

Instr make(std::uint8_t op, std::int64_t operand = 0, std::uint16_t count = 0, std::uint32_t position = 0) {
  Instr in{};
  in.op = op;
  in.operand = static_cast<std::uint64_t>(operand);
  in.count = count;
  in.position = position;
  return in;
}

const char* verify(std::vector<Instr> list) {
  std::vector<int> depth(list.size());
  return verify_stack_flow(list.data(), static_cast<int>(list.size()), depth.data());
}

TEST(Verifier, AcceptsSoundListsAndNamesEachFault) {
  EXPECT_EQ(verify({make(OP_PUSH_CONST), make(OP_PUSH_CONST), make(OP_ADD), make(OP_DISCARD), make(OP_END)}), nullptr);
  EXPECT_STREQ(verify({make(0), make(OP_END)}), "JIT unknown bytecode opcode");
  EXPECT_STREQ(verify({make(75), make(OP_END)}), "JIT unknown bytecode opcode");
  EXPECT_STREQ(verify({make(OP_ADD), make(OP_END)}), "JIT stack-flow error");
  EXPECT_STREQ(verify({make(OP_PUSH_CONST), make(OP_END)}), "JIT transfer stack imbalance");
  EXPECT_STREQ(verify({make(OP_PUSH_CONST), make(OP_GOSUB_LOCAL, 0), make(OP_END)}), "JIT GOSUB stack imbalance");
  EXPECT_STREQ(verify({make(OP_JUMP, 5), make(OP_END)}), "JIT branch error");
  EXPECT_STREQ(verify({make(OP_PUSH_CONST), make(OP_PUSH_CONST), make(OP_PUSH_CONST), make(OP_FOR, 0, 0, 9), make(OP_END)}),
               "JIT FOR branch error");
  // One path arrives with a value, the other without.
  EXPECT_STREQ(verify({make(OP_PUSH_CONST), make(OP_BRANCH_FALSE, 1), make(OP_PUSH_CONST), make(OP_DISCARD),
                       make(OP_END)}),
               "JIT stack-flow mismatch");
  std::vector<Instr> deep(130, make(OP_PUSH_CONST));
  deep.push_back(make(OP_END));
  EXPECT_STREQ(verify(deep), "JIT stack-flow error") << "deeper than 128";
}

TEST(Verifier, StackEffectsOfCountedInstructions) {
  int out;
  ASSERT_TRUE(stack_effect(make(OP_LOAD_ELEM, 0, 3), 3, &out));
  EXPECT_EQ(out, 1);
  ASSERT_TRUE(stack_effect(make(OP_STORE_ELEM, 0, 2), 3, &out));
  EXPECT_EQ(out, 1) << "the stored value stays";
  ASSERT_TRUE(stack_effect(make(OP_OCT), 8, &out));
  EXPECT_EQ(out, 1);
  EXPECT_FALSE(stack_effect(make(0), 0, &out));
}

// A region of one statement that ends at once: enough to exercise memory.
RegionCode tiny_region() {
  RegionCode rc;
  rc.code = {make(OP_STATEMENT, 0), make(OP_END)};
  rc.info.resize(2);
  rc.info[0].stmt = rc.info[1].stmt = 0;
  rc.stmts.push_back(StmtInfo{0, 0, 0});
  return rc;
}

int mapping_count() {
  std::FILE* f = std::fopen("/proc/self/maps", "r");
  if (!f) return -1;
  int n = 0;
  char line[512];
  while (std::fgets(line, sizeof line, f)) ++n;
  std::fclose(f);
  return n;
}

TEST(ExecutableMemory, CodeRunsAndIsNeverWritableAndExecutable) {
  const RegionCode rc = tiny_region();
  const int depth[2] = {0, 0};
  NativeCode code;
  ASSERT_EQ(generate(rc, depth, &code), nullptr);
  EXPECT_FALSE(host::any_writable_executable_mapping());
  static NativeFrame frame;
  frame.mirror_top = frame.mirror;
  frame.poll = kPollInterval;
  EXPECT_EQ(code.entry(&frame, 1), kTransferEnd);
  EXPECT_EQ(frame.exit_stmt, 0);
  release(&code);
}

TEST(ExecutableMemory, InjectedFailuresLeaveNothingBehind) {
  const RegionCode rc = tiny_region();
  const int depth[2] = {0, 0};
  const int before = mapping_count();
  NativeCode code;
  host::exec_fail_next = 1;
  EXPECT_STREQ(generate(rc, depth, &code), "JIT executable memory allocation failed");
  EXPECT_EQ(code.block, nullptr);
  host::exec_fail_next = 2;
  EXPECT_STREQ(generate(rc, depth, &code), "JIT executable memory protection failed");
  EXPECT_EQ(code.block, nullptr);
  if (before >= 0) {
    EXPECT_EQ(mapping_count(), before) << "the unprotected block was released";
  }
  EXPECT_EQ(host::exec_fail_next, 0);
}

}  // namespace
}  // namespace jit

// Division by a constant through its magic number, checked against the
// machine's own division for divisors and dividends at the edges.
TEST(DivMagic, MatchesTruncatingDivision) {
  auto quotient = [](std::int64_t n, const jit::DivMagic& m) {
    __int128 prod = static_cast<__int128>(n) * m.magic;
    std::int64_t q = static_cast<std::int64_t>(prod >> 64);
    if (m.magic < 0) q += n;
    q >>= m.shift;
    return q + static_cast<std::int64_t>(static_cast<std::uint64_t>(n) >> 63);
  };
  std::vector<std::int64_t> divisors = {2, 3, 5, 6, 7, 10, 100, 641, 1009, 30269, 999983, 1ll << 31,
                                        (1ll << 31) + 1, 1ll << 62, INT64_MAX - 1, INT64_MAX};
  for (std::int64_t d = 2; d < 300; ++d) divisors.push_back(d);
  std::vector<std::int64_t> dividends = {0, 1, -1, 2, -2, INT64_MAX, INT64_MIN, INT64_MIN + 1, INT64_MAX - 1};
  std::uint64_t x = 88172645463325252ull;
  for (int k = 0; k < 2000; ++k) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    dividends.push_back(static_cast<std::int64_t>(x) >> (k % 60));
  }
  for (std::int64_t d : divisors) {
    const jit::DivMagic m = jit::div_magic(d);
    for (std::int64_t n : dividends) {
      // The dividend, the multiple of d below it and its neighbours.
      const std::int64_t base = n - n % d;
      for (std::int64_t step : {0, -1, 1}) {
        std::int64_t v;
        if (__builtin_add_overflow(base, step, &v)) continue;
        ASSERT_EQ(quotient(v, m), v / d) << v << " / " << d;
      }
      ASSERT_EQ(quotient(n, m), n / d) << n << " / " << d;
    }
  }
}

// The vector layout of the hypercomplex product must be the interpreter's
// Cayley-Dickson recursion exactly: every lane's tree of sums, evaluated the
// way the generated code does (leaf j = x[j] * y[j ^ k], halves added with
// their masks), gives the interpreter's bits for operands full of signed
// zeros, cancellations and roundings.
TEST(HyperPlan, LanesReproduceTheInterpretersProductBitForBit) {
  const double pool[] = {0.0, -0.0, 1.0, -1.0, 0.1, -3.7, 1e300, -1e-300, 2.5, 7.0, 1.0 / 3.0};
  std::uint64_t seed = 12345;
  auto next = [&] {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    return pool[(seed >> 33) % (sizeof pool / sizeof pool[0])];
  };
  for (int n : {2, 4, 8}) {
    const jit::ProductPlan& plan = jit::product_plan(n);
    ASSERT_TRUE(plan.ok) << n;
    for (int trial = 0; trial < 2000; ++trial) {
      values::Hyper x{}, y{}, want;
      x.kind = y.kind = static_cast<std::uint64_t>(n);
      for (int k = 0; k < n; ++k) {
        x.c[k] = next();
        y.c[k] = next();
      }
      values::hyper_multiply(x, y, &want);
      for (int k = 0; k < n; ++k) {
        std::function<double(int, int)> node = [&](int lo, int size) -> double {
          if (size == 1) {
            const double yy = plan.leaf_neg[lo][k] ? -y.c[lo ^ k] : y.c[lo ^ k];
            return yy * x.c[lo];
          }
          double f = node(lo, size / 2), s = node(lo + size / 2, size / 2);
          if (plan.neg_first[size][lo][k]) f = -f;
          if (plan.neg_second[size][lo][k]) s = -s;
          return f + s;
        };
        const double got = node(0, n);
        EXPECT_EQ(std::memcmp(&got, &want.c[k], 8) == 0 || (got != got && want.c[k] != want.c[k]), true)
            << "n=" << n << " lane " << k << " got " << got << " want " << want.c[k];
      }
    }
  }
}
