// Hypercomplex arithmetic as packed vector code.
//
// Sums, differences, negation and conjugation act on all eight components
// at once, as the interpreter's loops do. The product is the hard part: the
// interpreter multiplies by Cayley-Dickson doubling, recursively,
//   (a,b)(c,d) = (ac - conj(d)b, da + b conj(c)),
// so every result component is a balanced tree of sums over n products of
// one x and one y component. The tree is kept exactly; what changes is only
// how it is laid out across lanes:
//   - a sign inside a product ((-x)y, from conj) is exact wherever it is
//     applied, and so is u - v = u + (-v) for a computed v;
//   - u + v = v + u exactly, so a node may take its halves in either order.
// With both, every lane can use the same tree with leaf j = x[j] * y[j ^ k]:
// a broadcast of x[j] times a permutation of y. The signs become XOR masks
// per lane. No sum is reassociated and nothing is fused, so the results are
// the interpreter's to the last bit, signed zeros included.
#include "jit/codegen_hyper.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/cpu.h"
#include "jit/native.h"

namespace jit {

bool hyper_avx2() {
  static const bool use = [] {
    const char* e = std::getenv("TAMBRIL_AVX2");
    const bool off = e && (!std::strcmp(e, "OFF") || !std::strcmp(e, "off") || !std::strcmp(e, "0"));
    return host::simd_info().avx2_usable && !off;
  }();
  return use;
}

namespace {

// A symbolic operand component: which side (x or y), which index, negated.
struct Sym {
  bool y;
  int idx;
  bool neg;
};
// A tree of the interpreter's product: a leaf x[x] * y[y] (negated), or a
// node l + r or l - r.
struct Node {
  int x = -1, y = -1;
  bool neg = false;
  bool sub = false;
  int l = -1, r = -1;
};

struct Expansion {
  std::vector<Node> nodes;

  // The interpreter's mul_n, step for step, building trees instead of values.
  std::vector<int> mul(const std::vector<Sym>& p, const std::vector<Sym>& q) {
    const std::size_t n = p.size();
    if (n == 1) {
      Node leaf;
      const Sym& xs = p[0].y ? q[0] : p[0];
      const Sym& ys = p[0].y ? p[0] : q[0];
      if (xs.y || !ys.y) return {};
      leaf.x = xs.idx;
      leaf.y = ys.idx;
      leaf.neg = p[0].neg != q[0].neg;
      nodes.push_back(leaf);
      return {static_cast<int>(nodes.size()) - 1};
    }
    const std::size_t h = n / 2;
    const std::vector<Sym> a(p.begin(), p.begin() + static_cast<std::ptrdiff_t>(h)),
        b(p.begin() + static_cast<std::ptrdiff_t>(h), p.end()), c(q.begin(), q.begin() + static_cast<std::ptrdiff_t>(h)),
        d(q.begin() + static_cast<std::ptrdiff_t>(h), q.end());
    std::vector<Sym> cd = d, cc = c;
    for (std::size_t i = 1; i < h; ++i) {
      cd[i].neg = !cd[i].neg;
      cc[i].neg = !cc[i].neg;
    }
    const std::vector<int> t1 = mul(a, c), t2 = mul(cd, b), t3 = mul(d, a), t4 = mul(b, cc);
    if (t1.size() != h || t2.size() != h || t3.size() != h || t4.size() != h) return {};
    std::vector<int> out(n);
    for (std::size_t i = 0; i < h; ++i) {
      Node first, second;
      first.l = t1[i];
      first.r = t2[i];
      first.sub = true;
      second.l = t3[i];
      second.r = t4[i];
      nodes.push_back(first);
      out[i] = static_cast<int>(nodes.size()) - 1;
      nodes.push_back(second);
      out[h + i] = static_cast<int>(nodes.size()) - 1;
    }
    return out;
  }

  int min_x(int id) const {
    const Node& t = nodes[static_cast<std::size_t>(id)];
    if (t.l < 0) return t.x;
    const int l = min_x(t.l), r = min_x(t.r);
    return l < r ? l : r;
  }

  // Lays lane k's tree over leaves lo..lo+size-1; false when it does not fit
  // the common shape.
  bool place(int id, int lo, int size, int k, ProductPlan* plan) const {
    const Node& t = nodes[static_cast<std::size_t>(id)];
    if (size == 1) {
      if (t.l >= 0 || t.x != lo || t.y != (lo ^ k)) return false;
      plan->leaf_neg[lo][k] = t.neg;
      return true;
    }
    if (t.l < 0) return false;
    const int h = size / 2;
    const bool swapped = min_x(t.l) >= lo + h;
    const int first = swapped ? t.r : t.l, second = swapped ? t.l : t.r;
    plan->neg_first[size][lo][k] = swapped && t.sub;
    plan->neg_second[size][lo][k] = !swapped && t.sub;
    return place(first, lo, h, k, plan) && place(second, lo + h, h, k, plan);
  }
};

ProductPlan make_plan(int n) {
  ProductPlan plan;
  std::vector<Sym> x, y;
  for (int i = 0; i < n; ++i) {
    x.push_back(Sym{false, i, false});
    y.push_back(Sym{true, i, false});
  }
  Expansion e;
  const std::vector<int> lanes = e.mul(x, y);
  if (static_cast<int>(lanes.size()) != n) return plan;
  for (int k = 0; k < n; ++k)
    if (!e.place(lanes[static_cast<std::size_t>(k)], 0, n, k, &plan)) return plan;
  plan.ok = true;
  return plan;
}

constexpr std::int32_t kRecord = static_cast<std::int32_t>(sizeof(values::Hyper));
constexpr std::int32_t kC0 = static_cast<std::int32_t>(offsetof(values::Hyper, c));
constexpr Xmm kPool[] = {X1, X10, X11, X12, X13};  // product partial sums, used as a stack

std::int32_t frame_field(std::size_t off) { return static_cast<std::int32_t>(off); }

}  // namespace

const ProductPlan& product_plan(int n) {
  static const ProductPlan plans[3] = {make_plan(2), make_plan(4), make_plan(8)};
  return plans[n == 2 ? 0 : n == 4 ? 1 : 2];
}

bool hyper_products_ok() { return product_plan(2).ok && product_plan(4).ok && product_plan(8).ok; }

HyperCode::HyperCode(Assembler& as, std::function<int(int)> error) : a(as), error_(std::move(error)), avx_(hyper_avx2()) {}

std::int32_t HyperCode::rec(int s) const { return frame_field(offsetof(NativeFrame, hyp)) + kRecord * s; }

Mem HyperCode::component(int s, int k) const { return mem(R12, rec(s) + kC0 + 8 * k); }

int HyperCode::mask(unsigned lanes) {
  auto it = masks_.find(lanes);
  if (it != masks_.end()) return it->second;
  const int l = a.new_label();
  masks_[lanes] = l;
  return l;
}

// The eight components from src to dst. With AVX2 in 32-byte moves: the
// 256-bit loads that follow then read what one store wrote (a load spanning
// two narrower stores waits for both to retire).
void HyperCode::copy_components(const Mem& dst, const Mem& src) {
  auto at = [](const Mem& m, std::int32_t off) { return Mem{m.base, m.disp + kC0 + off, m.index, m.scale}; };
  if (avx_) {
    for (int q = 0; q < 2; ++q) {
      a.vmovupd(Y0, at(src, 32 * q));
      a.vmovupd(at(dst, 32 * q), Y0);
    }
    a.vzeroupper();
    return;
  }
  for (int p = 0; p < 4; ++p) {
    a.movupd(X0, at(src, 16 * p));
    a.movupd(at(dst, 16 * p), X0);
  }
}

void HyperCode::load(int s, const Mem& src) {
  const int done = a.new_label();
  a.load64(RCX, src);
  a.alu_imm(Assembler::CMP, RCX, 4);
  a.jcc(E, done);
  a.alu_imm(Assembler::CMP, RCX, 8);
  a.jcc(E, done);
  a.mov_imm(RCX, 2);
  a.bind(done);
  a.store64(mem(R12, rec(s)), RCX);
  copy_components(mem(R12, rec(s)), src);
}

void HyperCode::from_double(int s, Xmm v) {
  a.movsd(component(s, 0), v);
  a.xorpd(X1, X1);
  a.movsd(component(s, 1), X1);
  for (int k = 2; k < 8; k += 2) a.movupd(component(s, k), X1);
  a.store64_imm(mem(R12, rec(s)), 2);
}

void HyperCode::finish_constructed(int s, int n) {
  if (n < 8) {
    a.xorpd(X1, X1);
    for (int k = n; k < 8; k += 2) a.movupd(component(s, k), X1);
  }
  a.store64_imm(mem(R12, rec(s)), n);
}

// Infinity or NaN in any of the eight components at frame offset c0 is
// "Overflow": x - x is NaN exactly for those, and a NaN survives the sums.
void HyperCode::check_finite(std::int32_t c0) {
  if (avx_) {
    a.vmovupd(Y0, mem(R12, c0));
    a.vsubpd(Y0, Y0, Y0);
    a.vmovupd(Y1, mem(R12, c0 + 32));
    a.vsubpd(Y1, Y1, Y1);
    a.vaddpd(Y0, Y0, Y1);
    a.vcmppd(Y0, Y0, Y0, 3);  // unordered
    a.vmovmskpd(RAX, Y0);
    a.vzeroupper();
  } else {
    for (int p = 0; p < 4; ++p) {
      const Xmm r = p == 0 ? X0 : X1;
      a.movupd(r, mem(R12, c0 + 16 * p));
      a.subpd(r, r);
      if (p) a.addpd(X0, X1);
    }
    a.cmppd(X0, X0, 3);
    a.movmskpd(RAX, X0);
  }
  a.test(RAX, RAX);
  a.jcc(NE, error_(kMsgOverflow));
}

void HyperCode::add_sub(int s, bool sub) {
  const std::int32_t x = rec(s) + kC0, y = rec(s + 1) + kC0;
  if (avx_) {
    for (int q = 0; q < 2; ++q) {
      a.vmovupd(Y0, mem(R12, x + 32 * q));
      a.vmovupd(Y1, mem(R12, y + 32 * q));
      if (sub) a.vsubpd(Y0, Y0, Y1);
      else a.vaddpd(Y0, Y0, Y1);
      a.vmovupd(mem(R12, x + 32 * q), Y0);
    }
    a.vzeroupper();
  } else {
    for (int p = 0; p < 4; ++p) {
      a.movupd(X0, mem(R12, x + 16 * p));
      a.movupd(X1, mem(R12, y + 16 * p));
      if (sub) a.subpd(X0, X1);
      else a.addpd(X0, X1);
      a.movupd(mem(R12, x + 16 * p), X0);
    }
  }
  // The kind of the result is the larger one.
  a.load64(RAX, mem(R12, rec(s)));
  a.load64(RCX, mem(R12, rec(s + 1)));
  a.alu(Assembler::CMP, RAX, RCX);
  a.cmov(B, RAX, RCX);
  a.store64(mem(R12, rec(s)), RAX);
  check_finite(x);
}

// hyp_out = x * y for records at frame offsets x and y, through the routine
// for the larger kind.
void HyperCode::product(std::int32_t x, std::int32_t y) {
  a.load64(RDX, mem(R12, x));
  a.load64(RCX, mem(R12, y));
  a.alu(Assembler::CMP, RDX, RCX);
  a.cmov(B, RDX, RCX);
  a.lea(RAX, mem(R12, x + kC0));
  a.lea(RCX, mem(R12, y + kC0));
  for (int& r : routines_)
    if (r < 0) r = a.new_label();
  const int four = a.new_label(), eight = a.new_label(), done = a.new_label();
  a.alu_imm(Assembler::CMP, RDX, 4);
  a.jcc(E, four);
  a.jcc(A, eight);
  a.call(routines_[0]);
  a.jmp(done);
  a.bind(four);
  a.call(routines_[1]);
  a.jmp(done);
  a.bind(eight);
  a.call(routines_[2]);
  a.bind(done);
  a.test(RAX, RAX);
  a.jcc(NE, error_(kMsgOverflow));
}

void HyperCode::multiply(int s) {
  const std::int32_t out = frame_field(offsetof(NativeFrame, hyp_out));
  product(rec(s), rec(s + 1));
  a.load64(RAX, mem(R12, out));
  a.store64(mem(R12, rec(s)), RAX);
  copy_components(mem(R12, rec(s)), mem(R12, out));
}

// x / y is x * INV(y): INV(y) = conj(y) / NORM2(y), "Division by zero" when
// the norm is 0, "Overflow" when the inverse is not finite.
void HyperCode::divide(int s) {
  const std::int32_t y = rec(s + 1), inv = frame_field(offsetof(NativeFrame, hyp_inv));
  // The squared norm as the interpreter sums it: one component after another.
  a.xorpd(X1, X1);
  for (int k = 0; k < 8; ++k) {
    a.movsd(X0, mem(R12, y + kC0 + 8 * k));
    a.mulsd(X0, X0);
    a.addsd(X1, X0);
  }
  const int nonzero = a.new_label();
  a.xorpd(X0, X0);
  a.ucomisd(X1, X0);
  a.jcc(P, nonzero);  // NaN: not 0, it fails as Overflow below
  a.jcc(E, error_(kMsgDivisionByZero));
  a.bind(nonzero);
  a.unpcklpd(X1, X1);
  // conj(y), divided by the norm: all eight components, as the interpreter.
  a.load64(RAX, mem(R12, y));
  a.store64(mem(R12, inv), RAX);
  kind_table(rec(s + 1), true);
  for (int p = 0; p < 4; ++p) {
    a.movupd(X0, mem(R12, y + kC0 + 16 * p));
    a.xorpd(X0, mem(RDX, 16 * p));
    a.divpd(X0, X1);
    a.movupd(mem(R12, inv + kC0 + 16 * p), X0);
  }
  check_finite(inv + kC0);
  const std::int32_t out = frame_field(offsetof(NativeFrame, hyp_out));
  product(rec(s), inv);
  a.load64(RAX, mem(R12, out));
  a.store64(mem(R12, rec(s)), RAX);
  copy_components(mem(R12, rec(s)), mem(R12, out));
}

// Negation flips the components below the kind, conjugation those from 1 up
// to the kind; the masks come from a table indexed by the kind.
void HyperCode::kind_table(std::int32_t record, bool conj) {
  int& table = conj ? conj_table_ : neg_table_;
  if (table < 0) table = a.new_label();
  a.load64(RCX, mem(R12, record));
  a.shr_imm(RCX, 2);  // 2, 4, 8 -> 0, 1, 2
  a.shl_imm(RCX, 6);  // 64 bytes per kind
  a.lea_rip(RDX, table);
  a.alu(Assembler::ADD, RDX, RCX);
}

void HyperCode::flip_by_kind(int s, bool conj) {
  kind_table(rec(s), conj);
  if (avx_) {
    for (int q = 0; q < 2; ++q) {
      a.vmovupd(Y0, mem(R12, rec(s) + kC0 + 32 * q));
      a.vxorpd(Y0, Y0, mem(RDX, 32 * q));
      a.vmovupd(mem(R12, rec(s) + kC0 + 32 * q), Y0);
    }
    a.vzeroupper();
  } else {
    for (int p = 0; p < 4; ++p) {
      a.movupd(X0, component(s, 2 * p));
      a.xorpd(X0, mem(RDX, 16 * p));
      a.movupd(component(s, 2 * p), X0);
    }
  }
}

void HyperCode::negate(int s) { flip_by_kind(s, false); }
void HyperCode::conjugate(int s) { flip_by_kind(s, true); }

void HyperCode::read_component(int s, int k, Xmm dst) {
  if (k < 2) {  // every kind has c0 and c1
    a.movsd(dst, component(s, k));
    return;
  }
  const int beyond = a.new_label();
  a.xorpd(dst, dst);
  a.alu_mem_imm(Assembler::CMP, mem(R12, rec(s)), k);
  a.jcc(BE, beyond);
  a.movsd(dst, component(s, k));
  a.bind(beyond);
}

void HyperCode::store(int s, const Mem& dst) {
  a.load64(RCX, mem(R12, rec(s)));
  a.store64(dst, RCX);
  copy_components(dst, mem(R12, rec(s)));
}

void HyperCode::store_double(const Mem& dst) {
  auto at = [&](std::int32_t off) { return Mem{dst.base, dst.disp + off, dst.index, dst.scale}; };
  a.movsd(at(kC0), X0);
  a.xorpd(X1, X1);
  a.movsd(at(kC0 + 8), X1);
  for (int k = 2; k < 8; k += 2) a.movupd(at(kC0 + 8 * k), X1);
  a.store64_imm(dst, 2);
}

// One node of the product over lanes k0..k0+w-1 (w = 2 with SSE2, 4 with
// AVX2): its value in a register taken from kPool.
Xmm HyperCode::product_node(int lo, int size, int k0, int w, int n) {
  const ProductPlan& plan = product_plan(n);
  auto lanes = [&](const bool* per_lane) {
    unsigned m = 0;
    for (int t = 0; t < w; ++t)
      if (per_lane[k0 + t]) m |= 1u << t;
    return m;
  };
  if (size == 1) {
    const Xmm r = kPool[regs_used_++];
    const int p = lo ^ k0;  // the y component of lane k0
    if (w == 4) {
      const int base = p & ~3, perm = p & 3;
      if (perm == 0) {
        a.vmovupd(static_cast<Ymm>(r), mem(RCX, 8 * base));
      } else {
        std::uint8_t imm = 0;
        for (int t = 0; t < 4; ++t) imm = static_cast<std::uint8_t>(imm | (perm ^ t) << (2 * t));
        a.vpermpd(static_cast<Ymm>(r), mem(RCX, 8 * base), imm);
      }
      if (const unsigned m = lanes(plan.leaf_neg[lo])) a.vxorpd_rip(static_cast<Ymm>(r), static_cast<Ymm>(r), mask(m));
      a.vbroadcastsd(Y0, mem(RAX, 8 * lo));
      a.vmulpd(static_cast<Ymm>(r), static_cast<Ymm>(r), Y0);
    } else {
      a.movupd(r, mem(RCX, 8 * (p & ~1)));
      if (p & 1) a.shufpd(r, r, 1);
      if (const unsigned m = lanes(plan.leaf_neg[lo])) a.xorpd_rip(r, mask(m));
      a.movsd(X0, mem(RAX, 8 * lo));
      a.unpcklpd(X0, X0);
      a.mulpd(r, X0);
    }
    return r;
  }
  const int h = size / 2;
  const Xmm f = product_node(lo, h, k0, w, n);
  const Xmm s = product_node(lo + h, h, k0, w, n);
  const unsigned mf = lanes(plan.neg_first[size][lo]), ms = lanes(plan.neg_second[size][lo]);
  if (w == 4) {
    if (mf) a.vxorpd_rip(static_cast<Ymm>(f), static_cast<Ymm>(f), mask(mf));
    if (ms) a.vxorpd_rip(static_cast<Ymm>(s), static_cast<Ymm>(s), mask(ms));
    a.vaddpd(static_cast<Ymm>(f), static_cast<Ymm>(f), static_cast<Ymm>(s));
  } else {
    if (mf) a.xorpd_rip(f, mask(mf));
    if (ms) a.xorpd_rip(s, mask(ms));
    a.addpd(f, s);
  }
  --regs_used_;
  return f;
}

// x (components at RAX) times y (at RCX) on n components into hyp_out;
// returns in EAX a nonzero value when a component is not finite.
void HyperCode::emit_routine(int n) {
  const std::int32_t out = frame_field(offsetof(NativeFrame, hyp_out));
  const int w = avx_ && n >= 4 ? 4 : 2;
  for (int k0 = 0; k0 < n; k0 += w) {
    regs_used_ = 0;
    const Xmm r = product_node(0, n, k0, w, n);
    if (w == 4) a.vmovupd(mem(R12, out + kC0 + 8 * k0), static_cast<Ymm>(r));
    else a.movupd(mem(R12, out + kC0 + 8 * k0), r);
  }
  if (w == 4) a.vzeroupper();
  a.xorpd(X0, X0);
  for (int k = n; k < 8; k += 2) a.movupd(mem(R12, out + kC0 + 8 * k), X0);
  a.store64_imm(mem(R12, out), n);
  // The check, without the jump: the caller knows its statement.
  for (int p = 0; p < n / 2; ++p) {
    const Xmm r = p == 0 ? X0 : X1;
    a.movupd(r, mem(R12, out + kC0 + 16 * p));
    a.subpd(r, r);
    if (p) a.addpd(X0, X1);
  }
  a.cmppd(X0, X0, 3);
  a.movmskpd(RAX, X0);
  a.ret();
}

void HyperCode::finish() {
  static const int kinds[3] = {2, 4, 8};
  for (int i = 0; i < 3; ++i) {
    if (routines_[i] < 0) continue;
    a.bind(routines_[i]);
    emit_routine(kinds[i]);
  }
  // Constants: 32 bytes each, aligned for the legacy SSE memory operands.
  auto lane_sign = [&](bool on) { a.u64(on ? 0x8000000000000000ull : 0); };
  for (const auto& [lanes, label] : masks_) {
    a.align(32);
    a.bind(label);
    for (int t = 0; t < 4; ++t) lane_sign((lanes >> t) & 1);
  }
  for (int conj = 0; conj < 2; ++conj) {
    const int table = conj ? conj_table_ : neg_table_;
    if (table < 0) continue;
    a.align(32);
    a.bind(table);
    for (int kind : kinds)
      for (int k = 0; k < 8; ++k) lane_sign(k < kind && (k > 0 || !conj));
  }
}

}  // namespace jit
