// CPUID/XGETBV probing, cached after the first query.
#include "host/cpu.h"

#include <cpuid.h>

#include <cstring>

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

namespace host {

namespace {

std::string vendor() {
  unsigned a, b, c, d;
  if (!__get_cpuid(0, &a, &b, &c, &d)) return std::string();
  char v[13];
  std::memcpy(v, &b, 4);
  std::memcpy(v + 4, &d, 4);
  std::memcpy(v + 8, &c, 4);
  v[12] = 0;
  return v;
}

// The deterministic cache parameters of leaf 4 (Intel) and 0x8000001D (AMD)
// share one layout: sub-leaves until a null type.
bool deterministic_caches(unsigned leaf, std::vector<CacheLevel>* out) {
  if (static_cast<unsigned>(__get_cpuid_max(leaf & 0x80000000u, nullptr)) < leaf) return false;
  for (unsigned sub = 0; sub < 16; ++sub) {
    unsigned a, b, c, d;
    __cpuid_count(leaf, sub, a, b, c, d);
    const unsigned type = a & 31;
    if (type == 0) break;
    if (type > 3) continue;
    const std::uint64_t ways = (b >> 22) + 1, parts = ((b >> 12) & 0x3FF) + 1, line = (b & 0xFFF) + 1,
                        sets = static_cast<std::uint64_t>(c) + 1;
    out->push_back({static_cast<int>((a >> 5) & 7), "?diu"[type], ways * parts * line * sets});
  }
  return !out->empty();
}

}  // namespace

std::string cpu_brand() {
  unsigned regs[12];
  if (static_cast<unsigned>(__get_cpuid_max(0x80000000u, nullptr)) >= 0x80000004u) {
    for (unsigned i = 0; i < 3; ++i) __get_cpuid(0x80000002u + i, &regs[4 * i], &regs[4 * i + 1], &regs[4 * i + 2], &regs[4 * i + 3]);
    char text[49];
    std::memcpy(text, regs, 48);
    text[48] = 0;
    std::string s(text);
    // Brands are padded with blanks on either side, sometimes inside too.
    std::string out;
    for (char ch : s) {
      if (ch == ' ' && (out.empty() || out.back() == ' ')) continue;
      if (static_cast<unsigned char>(ch) >= 32 && static_cast<unsigned char>(ch) < 127) out += ch;
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    if (!out.empty()) return out;
  }
  const std::string v = vendor();
  return v.empty() ? "unknown" : v;
}

std::vector<CacheLevel> cpu_caches() {
  std::vector<CacheLevel> out;
  if (deterministic_caches(4, &out) || deterministic_caches(0x8000001Du, &out)) return out;
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (static_cast<unsigned>(__get_cpuid_max(0x80000000u, nullptr)) >= 0x80000005u) {
    __get_cpuid(0x80000005u, &a, &b, &c, &d);
    if (c >> 24) out.push_back({1, 'd', static_cast<std::uint64_t>(c >> 24) << 10});
    if (d >> 24) out.push_back({1, 'i', static_cast<std::uint64_t>(d >> 24) << 10});
  }
  if (static_cast<unsigned>(__get_cpuid_max(0x80000000u, nullptr)) >= 0x80000006u) {
    __get_cpuid(0x80000006u, &a, &b, &c, &d);
    if (c >> 16) out.push_back({2, 'u', static_cast<std::uint64_t>(c >> 16) << 10});
    if (d >> 18) out.push_back({3, 'u', static_cast<std::uint64_t>(d >> 18) << 19});
  }
  return out;
}

}  // namespace host
