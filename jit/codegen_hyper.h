// Hypercomplex arithmetic in compiled regions: packed double-precision code
// on the 72-byte records (kind, c0..c7) that stand for @ values on the
// evaluation stack (NativeFrame::hyp, one per depth).
//
// Every result is bit for bit the interpreter's (values/hyper.cpp): the
// same operations on the same operands in the same order per component,
// only several components at a time. Scratch: RAX, RCX, RDX, XMM0, XMM1 and
// XMM10-XMM13 (the caller reloads whatever it keeps there).
#pragma once
#include <cstdint>
#include <functional>
#include <map>

#include "jit/x64.h"

namespace jit {

// 256-bit AVX2 code for 4- and 8-component values: the processor and the
// system allow it and TAMBRIL_AVX2=OFF is not in the environment. Decided
// once per process; otherwise everything is 128-bit SSE2.
bool hyper_avx2();

// The product of Cayley-Dickson doubling on n components, rearranged for
// vectors without changing a single operation (see codegen_hyper.cpp).
// Lane k of the result is a balanced tree over the leaves j = 0..n-1,
// leaf j being x[j] * y[j ^ k] negated when leaf_neg[j][k]; the node over
// leaves lo..lo+size-1 adds its two halves, negating the first half when
// neg_first[size][lo][k] and the second when neg_second[size][lo][k].
struct ProductPlan {
  bool ok = false;
  bool leaf_neg[8][8] = {};
  bool neg_first[9][8][8] = {};
  bool neg_second[9][8][8] = {};
};
const ProductPlan& product_plan(int n);
// Whether the plans for 2, 4 and 8 components came out (else products stay
// with the interpreter).
bool hyper_products_ok();

class HyperCode {
 public:
  // error(msg) is the label of the error exit for an inline message (kMsg*).
  HyperCode(Assembler& a, std::function<int(int)> error);

  // Record s is the @ value at `src` (its kind read as 2 unless 4 or 8).
  // `src` may be based on RAX.
  void load(int s, const Mem& src);
  // Record s is the number in `v` (XMM0 or XMM1 excluded: X0 is allowed).
  void from_double(int s, Xmm v);
  // Where component k of record s lies (CPLX/QUAT/OCT write their arguments
  // there), and the rest of such a record: zeros from n up and kind n.
  Mem component(int s, int k) const;
  void finish_constructed(int s, int n);
  // Record s op= record s + 1, with the interpreter's Overflow check.
  void add_sub(int s, bool sub);
  void multiply(int s);
  void divide(int s);
  void negate(int s);
  void conjugate(int s);
  // Component k of record s as a DOUBLE in dst (0 beyond the kind).
  void read_component(int s, int k, Xmm dst);
  // Store record s, or the number in XMM0, into an @ slot at dst.
  void store(int s, const Mem& dst);
  void store_double(const Mem& dst);
  // The product routines and constants used, placed after the code.
  void finish();

 private:
  Assembler& a;
  std::function<int(int)> error_;
  bool avx_;
  int routines_[3] = {-1, -1, -1};  // per n = 2, 4, 8
  std::map<unsigned, int> masks_;   // lane sign bits -> 32-byte constant
  int neg_table_ = -1, conj_table_ = -1;
  int regs_used_ = 0;

  std::int32_t rec(int s) const;
  void copy_components(const Mem& dst, const Mem& src);
  int mask(unsigned lanes);
  void kind_table(std::int32_t record, bool conj);  // RDX = the mask for its kind
  void flip_by_kind(int s, bool conj);
  void check_finite(std::int32_t c0);
  void product(std::int32_t x, std::int32_t y);
  void emit_routine(int n);
  Xmm product_node(int lo, int size, int k0, int w, int n);
};

}  // namespace jit
