// Our native FLAC decoder: STREAMINFO, every frame with its header CRC-8 and
// frame CRC-16 checked, constant, verbatim, fixed and LPC subframes with
// wasted bits, Rice residuals (4- and 5-bit parameters, escapes), and the
// three stereo decorrelations; 4..32 bits per sample.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace sound {

// An allocator whose resize leaves new elements uninitialised: decoded
// samples are written once, so zeroing them first would only cost time.
template <class T>
struct UninitAlloc : std::allocator<T> {
  using std::allocator<T>::allocator;
  template <class U>
  struct rebind {
    using other = UninitAlloc<U>;
  };
  template <class U>
  void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>) {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... A>
  void construct(U* p, A&&... a) {
    ::new (static_cast<void*>(p)) U(std::forward<A>(a)...);
  }
};

struct FlacAudio {
  std::uint32_t rate = 0;
  int channels = 0;
  int bits = 0;
  std::vector<std::int32_t, UninitAlloc<std::int32_t>> samples;  // interleaved
};

// True when the data starts as a native FLAC stream ("fLaC").
bool is_flac(const std::uint8_t* data, std::size_t size);

// Decode a whole stream. Errors: "FLAC needs mono/stereo, 4000..192000 Hz,
// 4..32 bits", "Invalid or truncated FLAC", "Decoded FLAC exceeds 2 GiB
// limit", "WAV load cancelled" (when `cancel` returns true).
bool decode_flac(const std::uint8_t* data, std::size_t size, FlacAudio* out, bool (*cancel)(), std::string* error);

}  // namespace sound
