// CPUID/XGETBV probing, cached after the first query.
#include "host/cpu.h"

#include <cpuid.h>

namespace host {

static SimdInfo probe() {
  SimdInfo s{false, false, false};
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return s;
  const bool osxsave = (c >> 27) & 1, avx = (c >> 28) & 1;
  if (osxsave && avx) {
    unsigned lo, hi;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    s.ymm_enabled = (lo & 6u) == 6u;  // XMM (bit 1) and YMM (bit 2) state
  }
  if (__get_cpuid_max(0, nullptr) >= 7) {
    __cpuid_count(7, 0, a, b, c, d);
    s.avx2_hardware = (b >> 5) & 1;
  }
  s.avx2_usable = s.ymm_enabled && s.avx2_hardware;
  return s;
}

const SimdInfo& simd_info() {
  static const SimdInfo info = probe();
  return info;
}

}  // namespace host
