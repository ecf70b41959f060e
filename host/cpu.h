// Processor identification: the SIMD level the JIT may use, the brand and
// the caches (for SYSTEMINFO$).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace host {

struct SimdInfo {
  bool avx2_hardware;  // CPUID leaf 7 reports AVX2
  bool ymm_enabled;    // OSXSAVE + AVX, and XCR0 has XMM and YMM state
  bool avx2_usable;    // both of the above; decided once per process
};
const SimdInfo& simd_info();

// The processor's brand string (CPUID 0x80000002-4), blanks trimmed; else its
// vendor name; else "unknown".
std::string cpu_brand();

struct CacheLevel {
  int level;           // 1, 2, 3
  char kind;           // 'd' data, 'i' instruction, 'u' unified
  std::uint64_t bytes;
};
// The caches CPUID describes (leaf 4, AMD's 0x8000001D, else 0x80000005/6).
std::vector<CacheLevel> cpu_caches();

}  // namespace host
