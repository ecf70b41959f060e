// The FLAC decoder. Frames are decoded one after another from the first
// frame after the metadata; a frame whose CRC fails, or a stream that ends
// inside a frame, is an error rather than a gap in the sound.
#include "sound/flac.h"

#include <cstring>
#include <new>

#include "host/platform.h"

namespace sound {

namespace {

constexpr std::uint64_t kLimitBytes = 1ull << 31;  // decoded float PCM

struct Crc {
  std::uint8_t crc8[256];
  std::uint16_t crc16[256];
  Crc() {
    for (int i = 0; i < 256; ++i) {
      unsigned c8 = static_cast<unsigned>(i);
      unsigned c16 = static_cast<unsigned>(i) << 8;
      for (int b = 0; b < 8; ++b) {
        c8 = (c8 & 0x80) ? (c8 << 1) ^ 0x07 : c8 << 1;
        c16 = (c16 & 0x8000) ? (c16 << 1) ^ 0x8005 : c16 << 1;
      }
      crc8[i] = static_cast<std::uint8_t>(c8);
      crc16[i] = static_cast<std::uint16_t>(c16);
    }
  }
};
const Crc crc;

std::uint8_t crc8(const std::uint8_t* p, std::size_t n) {
  std::uint8_t c = 0;
  while (n--) c = crc.crc8[c ^ *p++];
  return c;
}
std::uint16_t crc16(const std::uint8_t* p, std::size_t n) {
  std::uint16_t c = 0;
  while (n--) c = static_cast<std::uint16_t>((c << 8) ^ crc.crc16[(c >> 8) ^ *p++]);
  return c;
}

// Big-endian bits through a left-aligned 64-bit cache; reading past the end
// gives zeros and sets `over`, which the frame checks once at its end.
struct Bits {
  const std::uint8_t* p;
  const std::uint8_t* end;
  std::uint64_t cache = 0;
  int count = 0;
  bool over = false;

  void refill() {
    if (end - p >= 8) {
      // Eight bytes at once; only the whole bytes that fit are taken, and
      // the bits below them stay zero (unary() relies on that).
      std::uint64_t w;
      std::memcpy(&w, p, 8);
      w = __builtin_bswap64(w);
      const int take = (64 - count) >> 3;
      if (take == 0) return;
      const int now = count + take * 8;
      cache |= w >> count;
      if (now < 64) cache &= ~(~std::uint64_t{0} >> now);
      p += take;
      count = now;
      return;
    }
    while (count <= 56 && p < end) {
      cache |= static_cast<std::uint64_t>(*p++) << (56 - count);
      count += 8;
    }
  }
  // One Rice-coded value with parameter k: the common case, a quotient and
  // remainder that fit in the cache, takes no loop.
  std::int64_t rice(int k) {
    if (count < 40) refill();
    if (cache != 0) {
      const int lz = __builtin_clzll(cache);
      if (lz + 1 + k <= count) {
        std::uint64_t u = static_cast<std::uint64_t>(lz) << k;
        cache <<= lz;
        cache <<= 1;
        if (k) {
          u |= cache >> (64 - k);
          cache <<= k;
        }
        count -= lz + 1 + k;
        return static_cast<std::int64_t>(u >> 1) ^ -static_cast<std::int64_t>(u & 1);
      }
    }
    const std::uint64_t q = unary();
    const std::uint64_t u = q << k | read(k);
    return static_cast<std::int64_t>(u >> 1) ^ -static_cast<std::int64_t>(u & 1);
  }
  std::uint32_t read(int n) {  // 0..32 bits
    if (n == 0) return 0;
    if (count < n) {
      refill();
      if (count < n) {
        over = true;
        count = 0;
        cache = 0;
        return 0;
      }
    }
    const std::uint32_t v = static_cast<std::uint32_t>(cache >> (64 - n));
    cache <<= n;
    count -= n;
    return v;
  }
  std::int32_t read_signed(int n) {
    if (n == 0) return 0;
    const std::uint32_t v = read(n);
    return static_cast<std::int32_t>(v << (32 - n)) >> (32 - n);
  }
  std::int64_t read_signed64(int n) {  // up to 33 bits (a 32-bit side channel)
    if (n <= 32) return read_signed(n);
    const std::int64_t hi = read_signed(n - 32);
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(hi) << 32) | read(32);
  }
  std::uint32_t unary() {  // zeros before the next one bit
    std::uint32_t zeros = 0;
    for (;;) {
      if (count == 0) {
        refill();
        if (count == 0) {
          over = true;
          return 0;
        }
      }
      if (cache == 0) {
        zeros += static_cast<std::uint32_t>(count);
        count = 0;
        continue;
      }
      const int lz = __builtin_clzll(cache);
      zeros += static_cast<std::uint32_t>(lz);
      cache <<= lz;
      cache <<= 1;
      count -= lz + 1;
      return zeros;
    }
  }
  void align() {
    const int drop = count & 7;
    cache <<= drop;
    count -= drop;
  }
  const std::uint8_t* byte_pos() const { return p - count / 8; }
};

// Damaged input is found by the frame CRC only after the frame is decoded,
// so the arithmetic below must not overflow on garbage: it wraps in unsigned
// integers, which valid streams never reach.
inline std::int64_t wrap_add(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
inline std::int64_t wrap_sub(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
inline std::int64_t wrap_mul(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

bool residual(Bits& b, int order, std::uint32_t block, std::int64_t* out) {
  const std::uint32_t method = b.read(2);
  if (method > 1) return false;
  const int param_bits = method == 0 ? 4 : 5;
  const std::uint32_t escape = method == 0 ? 15 : 31;
  const std::uint32_t porder = b.read(4);
  const std::uint32_t parts = 1u << porder;
  if (block % parts != 0 || (block >> porder) < static_cast<std::uint32_t>(order)) return false;
  std::uint32_t i = static_cast<std::uint32_t>(order);
  for (std::uint32_t part = 0; part < parts; ++part) {
    const std::uint32_t n = (block >> porder) - (part == 0 ? static_cast<std::uint32_t>(order) : 0);
    const std::uint32_t k = b.read(param_bits);
    if (k == escape) {
      const int raw = static_cast<int>(b.read(5));
      for (std::uint32_t j = 0; j < n; ++j) out[i++] = b.read_signed(raw);
      continue;
    }
    const int kk = static_cast<int>(k);
    for (std::uint32_t j = 0; j < n; ++j) out[i++] = b.rice(kk);
    if (b.over) return false;
  }
  return true;
}

// The LPC predictor with its order known at compile time, so the inner sum
// is unrolled; orders above 12 (rare) take the general loop.
template <int N>
void lpc_fixed(const std::int64_t* coef, int shift, std::uint32_t block, std::int64_t* out) {
  for (std::uint32_t i = N; i < block; ++i) {
    std::int64_t sum = 0;
    const std::int64_t* h = out + i;
    for (int j = 0; j < N; ++j) sum = wrap_add(sum, wrap_mul(coef[j], h[-1 - j]));
    out[i] = wrap_add(out[i], sum >> shift);
  }
}

void lpc_any(int order, const std::int64_t* coef, int shift, std::uint32_t block, std::int64_t* out) {
  using Fn = void (*)(const std::int64_t*, int, std::uint32_t, std::int64_t*);
  static constexpr Fn kFixed[13] = {nullptr,         lpc_fixed<1>,  lpc_fixed<2>, lpc_fixed<3>, lpc_fixed<4>,
                                    lpc_fixed<5>,    lpc_fixed<6>,  lpc_fixed<7>, lpc_fixed<8>, lpc_fixed<9>,
                                    lpc_fixed<10>,   lpc_fixed<11>, lpc_fixed<12>};
  if (order <= 12) return kFixed[order](coef, shift, block, out);
  for (std::uint32_t i = static_cast<std::uint32_t>(order); i < block; ++i) {
    std::int64_t sum = 0;
    const std::int64_t* h = out + i;
    for (int j = 0; j < order; ++j) sum = wrap_add(sum, wrap_mul(coef[j], h[-1 - j]));
    out[i] = wrap_add(out[i], sum >> shift);
  }
}

bool subframe(Bits& b, int bps, std::uint32_t block, std::int64_t* out) {
  if (b.read(1) != 0) return false;
  const std::uint32_t type = b.read(6);
  int wasted = 0;
  if (b.read(1)) wasted = static_cast<int>(b.unary()) + 1;
  if (wasted >= bps) return false;
  bps -= wasted;
  if (type == 0) {
    const std::int64_t v = b.read_signed64(bps);
    for (std::uint32_t i = 0; i < block; ++i) out[i] = v;
  } else if (type == 1) {
    for (std::uint32_t i = 0; i < block; ++i) out[i] = b.read_signed64(bps);
  } else if (type >= 8 && type <= 12) {
    const int order = static_cast<int>(type - 8);
    if (static_cast<std::uint32_t>(order) > block) return false;
    for (int i = 0; i < order; ++i) out[i] = b.read_signed64(bps);
    if (!residual(b, order, block, out)) return false;
    // The fixed predictors as LPC with small coefficients.
    static constexpr std::int64_t kFixed[5][4] = {{0}, {1}, {2, -1}, {3, -3, 1}, {4, -6, 4, -1}};
    if (order > 0) lpc_any(order, kFixed[order], 0, block, out);
  } else if (type >= 32) {
    const int order = static_cast<int>(type - 31);
    if (static_cast<std::uint32_t>(order) > block) return false;
    for (int i = 0; i < order; ++i) out[i] = b.read_signed64(bps);
    const int precision = static_cast<int>(b.read(4)) + 1;
    if (precision == 16) return false;
    const int shift = b.read_signed(5);
    if (shift < 0) return false;
    std::int64_t coef[32];
    for (int i = 0; i < order; ++i) coef[i] = b.read_signed(precision);
    if (!residual(b, order, block, out)) return false;
    lpc_any(order, coef, shift, block, out);
  } else {
    return false;
  }
  if (wasted)
    for (std::uint32_t i = 0; i < block; ++i) out[i] = static_cast<std::int64_t>(static_cast<std::uint64_t>(out[i]) << wasted);
  return !b.over;
}

}  // namespace

bool is_flac(const std::uint8_t* data, std::size_t size) { return size >= 4 && std::memcmp(data, "fLaC", 4) == 0; }

bool decode_flac(const std::uint8_t* data, std::size_t size, FlacAudio* out, bool (*cancel)(), std::string* error) {
  auto bad = [&] {
    *error = "Invalid or truncated FLAC";
    return false;
  };
  if (!is_flac(data, size)) return bad();
  std::size_t at = 4;
  bool have_info = false, last = false;
  std::uint64_t total = 0;
  while (!last) {
    if (size - at < 4) return bad();
    last = (data[at] & 0x80) != 0;
    const int type = data[at] & 0x7F;
    const std::size_t len = static_cast<std::size_t>(data[at + 1]) << 16 | static_cast<std::size_t>(data[at + 2]) << 8 | data[at + 3];
    at += 4;
    if (size - at < len) return bad();
    if (type == 0) {
      if (len < 34 || have_info) return bad();
      const std::uint8_t* s = data + at;
      out->rate = static_cast<std::uint32_t>(s[10]) << 12 | static_cast<std::uint32_t>(s[11]) << 4 | s[12] >> 4;
      out->channels = ((s[12] >> 1) & 7) + 1;
      out->bits = ((s[12] & 1) << 4 | s[13] >> 4) + 1;
      total = static_cast<std::uint64_t>(s[13] & 0x0F) << 32 | static_cast<std::uint64_t>(s[14]) << 24 |
              static_cast<std::uint64_t>(s[15]) << 16 | static_cast<std::uint64_t>(s[16]) << 8 | s[17];
      have_info = true;
    } else if (type == 127 || !have_info) {
      return bad();  // STREAMINFO comes first; 127 is forbidden
    }
    at += len;
  }
  if (out->channels > 2 || out->rate < 4000 || out->rate > 192000 || out->bits < 4 || out->bits > 32) {
    *error = "FLAC needs mono/stereo, 4000..192000 Hz, 4..32 bits";
    return false;
  }
  const int channels = out->channels;
  if (total * channels * 4 > kLimitBytes) {
    *error = "Decoded FLAC exceeds 2 GiB limit";
    return false;
  }
  try {
    out->samples.clear();
    // The header's sample count sizes the buffer only as far as the file's
    // size makes it plausible; a lying header costs growth, not memory.
    const std::uint64_t plausible = static_cast<std::uint64_t>(size) * 16;
    out->samples.reserve(static_cast<std::size_t>(total * channels < plausible ? total * channels : plausible));
    host::advise_large_buffer(out->samples.data(), out->samples.capacity() * sizeof(std::int32_t));
  } catch (const std::bad_alloc&) {
    *error = "Decoded FLAC exceeds 2 GiB limit";
    return false;
  }
  std::vector<std::int64_t> ch[2];
  std::uint32_t capacity = 0;
  std::uint64_t frames_done = 0;
  while (at < size) {
    const std::uint8_t* frame = data + at;
    if (size - at < 2 || frame[0] != 0xFF || (frame[1] & 0xFE) != 0xF8) {
      // Trailing bytes after every sample (a tag, padding) end the stream.
      if (total && out->samples.size() >= total * channels) break;
      return bad();
    }
    if ((++frames_done & 63) == 0 && cancel && cancel()) {
      *error = "WAV load cancelled";
      return false;
    }
    Bits b{frame + 2, data + size};
    const std::uint32_t bs_code = b.read(4), rate_code = b.read(4), assign = b.read(4), size_code = b.read(3);
    if (b.read(1)) return bad();
    // The frame or sample number, UTF-8 coded; only its length matters here.
    std::uint32_t first = b.read(8);
    int more = 0;
    if (first == 0xFF) return bad();
    while (first & 0x80) {
      first <<= 1;
      first &= 0xFF;
      ++more;
    }
    if (more == 1) return bad();
    for (int i = 1; i < more; ++i)
      if ((b.read(8) & 0xC0) != 0x80) return bad();
    std::uint32_t block;
    if (bs_code == 0) return bad();
    else if (bs_code == 1) block = 192;
    else if (bs_code <= 5) block = 576u << (bs_code - 2);
    else if (bs_code == 6) block = b.read(8) + 1;
    else if (bs_code == 7) block = b.read(16) + 1;
    else block = 256u << (bs_code - 8);
    if (rate_code == 12) b.read(8);
    else if (rate_code == 13 || rate_code == 14) b.read(16);
    else if (rate_code == 15) return bad();
    int bps;
    static constexpr int kSizes[8] = {0, 8, 12, -1, 16, 20, 24, 32};
    if (kSizes[size_code] < 0) return bad();
    bps = size_code == 0 ? out->bits : kSizes[size_code];
    if (bps != out->bits) return bad();
    const std::uint8_t* header_end = b.byte_pos();
    if (b.over || crc8(frame, static_cast<std::size_t>(header_end - frame)) != b.read(8)) return bad();
    const int frame_channels = assign <= 7 ? static_cast<int>(assign) + 1 : 2;
    if (assign > 10 || frame_channels != channels) return bad();
    if (block > capacity) {
      capacity = block;
      ch[0].resize(block);
      ch[1].resize(block);
    }
    for (int c = 0; c < channels; ++c) {
      // The side channel carries one bit more.
      const int extra = (assign == 8 && c == 1) || (assign == 9 && c == 0) || (assign == 10 && c == 1) ? 1 : 0;
      if (!subframe(b, bps + extra, block, ch[c].data())) return bad();
    }
    b.align();
    const std::uint8_t* body_end = b.byte_pos();
    if (b.over || crc16(frame, static_cast<std::size_t>(body_end - frame)) != b.read(16) || b.over) return bad();
    at = static_cast<std::size_t>(b.byte_pos() - data);
    if ((out->samples.size() + static_cast<std::uint64_t>(block) * channels) * 4 > kLimitBytes) {
      *error = "Decoded FLAC exceeds 2 GiB limit";
      return false;
    }
    const std::size_t base = out->samples.size();
    try {
      out->samples.resize(base + static_cast<std::size_t>(block) * channels);
    } catch (const std::bad_alloc&) {
      *error = "Decoded FLAC exceeds 2 GiB limit";
      return false;
    }
    std::int32_t* o = out->samples.data() + base;
    const std::int64_t* a = ch[0].data();
    const std::int64_t* s = ch[1].data();
    if (channels == 1) {
      for (std::uint32_t i = 0; i < block; ++i) o[i] = static_cast<std::int32_t>(a[i]);
    } else if (assign == 8) {  // left, side
      for (std::uint32_t i = 0; i < block; ++i) {
        o[2 * i] = static_cast<std::int32_t>(a[i]);
        o[2 * i + 1] = static_cast<std::int32_t>(wrap_sub(a[i], s[i]));
      }
    } else if (assign == 9) {  // side, right
      for (std::uint32_t i = 0; i < block; ++i) {
        o[2 * i] = static_cast<std::int32_t>(wrap_add(a[i], s[i]));
        o[2 * i + 1] = static_cast<std::int32_t>(s[i]);
      }
    } else if (assign == 10) {  // mid, side
      for (std::uint32_t i = 0; i < block; ++i) {
        const std::int64_t m = static_cast<std::int64_t>(static_cast<std::uint64_t>(a[i]) << 1) | (s[i] & 1);
        o[2 * i] = static_cast<std::int32_t>(wrap_add(m, s[i]) >> 1);
        o[2 * i + 1] = static_cast<std::int32_t>(wrap_sub(m, s[i]) >> 1);
      }
    } else {
      for (std::uint32_t i = 0; i < block; ++i) {
        o[2 * i] = static_cast<std::int32_t>(a[i]);
        o[2 * i + 1] = static_cast<std::int32_t>(s[i]);
      }
    }
  }
  if (total && out->samples.size() > total * channels) out->samples.resize(static_cast<std::size_t>(total * channels));
  if (out->samples.empty()) return bad();
  return true;
}

}  // namespace sound
