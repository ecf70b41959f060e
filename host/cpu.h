// Processor identification: the SIMD level the JIT may use.
#pragma once

namespace host {

struct SimdInfo {
  bool avx2_hardware;  // CPUID leaf 7 reports AVX2
  bool ymm_enabled;    // OSXSAVE + AVX, and XCR0 has XMM and YMM state
  bool avx2_usable;    // both of the above; decided once per process
};
const SimdInfo& simd_info();

}  // namespace host
