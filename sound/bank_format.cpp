// CRC-32, the metadata tables and their compressor, and the lossless PCM
// block codec of the bank file.
#include "sound/bank_format.h"

#include <algorithm>
#include <cstring>

namespace sound::format {

namespace {

constexpr std::size_t kPartition = 256;
constexpr std::uint8_t kRawPartition = 31;
constexpr std::uint32_t kMaxQuotient = 4096;

struct CrcTables {
  std::uint32_t t[8][256];
  CrcTables() {
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[0][i] = c;
    }
    for (std::uint32_t i = 0; i < 256; ++i)
      for (int s = 1; s < 8; ++s) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
  }
};
const CrcTables crc_tables;

float getf(const std::uint8_t* p) {
  const std::uint32_t u = get32(p);
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}
void putf(std::vector<std::uint8_t>& v, float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, 4);
  put32(v, u);
}

bool finite_in(float f, float lo, float hi) { return f == f && f >= lo && f <= hi; }

// Bits written and read least significant first.
struct BitWriter {
  std::vector<std::uint8_t>& out;
  std::uint64_t acc = 0;
  int bits = 0;
  void put(std::uint32_t value, int n) {
    acc |= static_cast<std::uint64_t>(value) << bits;
    bits += n;
    while (bits >= 8) {
      out.push_back(static_cast<std::uint8_t>(acc));
      acc >>= 8;
      bits -= 8;
    }
  }
  void flush() {
    if (bits > 0) out.push_back(static_cast<std::uint8_t>(acc));
    acc = 0;
    bits = 0;
  }
};

struct BitReader {
  const std::uint8_t* p;
  std::size_t n, pos = 0;
  std::uint64_t acc = 0;
  int bits = 0;
  bool fill(int need) {
    while (bits < need) {
      if (pos >= n) return false;
      acc |= static_cast<std::uint64_t>(p[pos++]) << bits;
      bits += 8;
    }
    return true;
  }
  bool get(int count, std::uint32_t* v) {
    if (count == 0) {
      *v = 0;
      return true;
    }
    if (!fill(count)) return false;
    *v = static_cast<std::uint32_t>(acc & ((1ull << count) - 1));
    acc >>= count;
    bits -= count;
    return true;
  }
  // Unary: the count of 0 bits before a 1.
  bool unary(std::uint32_t* v) {
    std::uint32_t q = 0;
    for (;;) {
      if (!fill(1)) return false;
      if (acc == 0) {
        q += static_cast<std::uint32_t>(bits);
        acc = 0;
        bits = 0;
        if (q > kMaxQuotient) return false;
        continue;
      }
      const int z = __builtin_ctzll(acc);
      q += static_cast<std::uint32_t>(z);
      acc >>= z + 1;
      bits -= z + 1;
      *v = q;
      return q <= kMaxQuotient;
    }
  }
  void align() {
    const int drop = bits % 8;
    acc >>= drop;
    bits -= drop;
  }
};

std::int32_t predict(const std::int16_t* s, std::size_t i, int order) {
  switch (order) {
    case 1: return s[i - 1];
    case 2: return 2 * s[i - 1] - s[i - 2];
    case 3: return 3 * s[i - 1] - 3 * s[i - 2] + s[i - 3];
    default: return 0;
  }
}

std::uint32_t zigzag(std::int32_t r) { return r >= 0 ? static_cast<std::uint32_t>(r) << 1 : (static_cast<std::uint32_t>(-(r + 1)) << 1) | 1; }
std::int32_t unzigzag(std::uint32_t u) { return u & 1 ? -static_cast<std::int32_t>(u >> 1) - 1 : static_cast<std::int32_t>(u >> 1); }


}  // namespace

std::uint32_t crc32(const void* data, std::size_t n, std::uint32_t crc) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  const auto& t = crc_tables.t;
  crc = ~crc;
  while (n >= 8) {
    const std::uint32_t a = get32(p) ^ crc;
    const std::uint32_t b = get32(p + 4);
    crc = t[7][a & 0xFF] ^ t[6][(a >> 8) & 0xFF] ^ t[5][(a >> 16) & 0xFF] ^ t[4][a >> 24] ^ t[3][b & 0xFF] ^
          t[2][(b >> 8) & 0xFF] ^ t[1][(b >> 16) & 0xFF] ^ t[0][b >> 24];
    p += 8;
    n -= 8;
  }
  while (n--) crc = t[0][(crc ^ *p++) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

void put_tag(std::vector<std::uint8_t>& v, const char* tag) {
  while (*tag) v.push_back(static_cast<std::uint8_t>(*tag++));
}
void put16(std::vector<std::uint8_t>& v, std::uint16_t x) {
  v.push_back(static_cast<std::uint8_t>(x));
  v.push_back(static_cast<std::uint8_t>(x >> 8));
}
void put32(std::vector<std::uint8_t>& v, std::uint32_t x) {
  put16(v, static_cast<std::uint16_t>(x));
  put16(v, static_cast<std::uint16_t>(x >> 16));
}
void put64(std::vector<std::uint8_t>& v, std::uint64_t x) {
  put32(v, static_cast<std::uint32_t>(x));
  put32(v, static_cast<std::uint32_t>(x >> 32));
}
void set32(std::uint8_t* p, std::uint32_t x) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(x >> (8 * i));
}
void set64(std::uint8_t* p, std::uint64_t x) {
  set32(p, static_cast<std::uint32_t>(x));
  set32(p + 4, static_cast<std::uint32_t>(x >> 32));
}

std::vector<std::uint8_t> build_metadata(const Bank& b) {
  std::vector<std::uint8_t> v;
  put_tag(v, "QZMD");
  put32(v, 1);
  put32(v, static_cast<std::uint32_t>(b.zones.size()));
  put32(v, static_cast<std::uint32_t>(b.samples.size()));
  std::uint64_t frames = 0;
  for (const SampleInfo& s : b.samples) frames = std::max<std::uint64_t>(frames, s.offset + s.frames);
  put64(v, frames);
  std::uint32_t present[5] = {};
  for (const Zone& z : b.zones) present[z.program / 32] |= 1u << (z.program % 32);
  for (std::uint32_t w : present) put32(v, w);
  put32(v, 0);
  for (const Zone& z : b.zones) {
    put16(v, z.program);
    for (std::uint8_t x : {z.key_lo, z.key_hi, z.vel_lo, z.vel_hi, z.root_key, z.flags}) v.push_back(x);
    put32(v, z.sample);
    put16(v, static_cast<std::uint16_t>(z.tune_cents));
    put16(v, static_cast<std::uint16_t>(z.attenuation_cb));
    put16(v, static_cast<std::uint16_t>(z.pan));
    put16(v, z.exclusive);
    put32(v, z.start);
    put32(v, z.end);
    put32(v, z.loop_start);
    put32(v, z.loop_end);
    putf(v, z.release);
    putf(v, z.attack);
    putf(v, z.decay);
    putf(v, z.sustain);
    put32(v, 0);
  }
  for (const SampleInfo& s : b.samples) {
    put64(v, s.offset);
    put32(v, s.frames);
    put32(v, s.rate);
    put32(v, s.crc);
    put32(v, s.flags);
  }
  return v;
}

bool metadata_counts(const std::uint8_t* p, std::uint64_t n, std::uint32_t* zones, std::uint32_t* samples, std::uint64_t* frames) {
  if (n < kMetaHeader || std::memcmp(p, "QZMD", 4) != 0 || get32(p + 4) != 1 || get32(p + 44) != 0) return false;
  *zones = get32(p + 8);
  *samples = get32(p + 12);
  *frames = get64(p + 16);
  return n == kMetaHeader + kZoneEntry * static_cast<std::uint64_t>(*zones) + kSampleEntry * static_cast<std::uint64_t>(*samples);
}

bool parse_metadata(const std::uint8_t* p, std::uint64_t n, std::uint64_t pcm_frames, Bank* out) {
  std::uint32_t zc, sc;
  std::uint64_t frames;
  if (!metadata_counts(p, n, &zc, &sc, &frames) || frames != pcm_frames || sc == 0) return false;
  std::uint32_t present[5];
  for (int i = 0; i < 5; ++i) present[i] = get32(p + 24 + 4 * i);
  if (present[4] >> 4) return false;  // ids above 131
  out->zones.resize(zc);
  out->samples.resize(sc);
  const std::uint8_t* s = p + kMetaHeader + kZoneEntry * static_cast<std::uint64_t>(zc);
  for (std::uint32_t i = 0; i < sc; ++i, s += kSampleEntry) {
    SampleInfo& x = out->samples[i];
    x.offset = get64(s);
    x.frames = get32(s + 8);
    x.rate = get32(s + 12);
    x.crc = get32(s + 16);
    x.flags = get32(s + 20);
    if (x.frames == 0 || x.offset > pcm_frames || x.frames > pcm_frames - x.offset || x.rate < 1000 || x.rate > 192000)
      return false;
  }
  const std::uint8_t* z = p + kMetaHeader;
  std::uint32_t seen[5] = {};
  for (std::uint32_t i = 0; i < zc; ++i, z += kZoneEntry) {
    Zone& x = out->zones[i];
    x.program = get16(z);
    x.key_lo = z[2], x.key_hi = z[3], x.vel_lo = z[4], x.vel_hi = z[5], x.root_key = z[6], x.flags = z[7];
    x.sample = get32(z + 8);
    x.tune_cents = static_cast<std::int16_t>(get16(z + 12));
    x.attenuation_cb = static_cast<std::int16_t>(get16(z + 14));
    x.pan = static_cast<std::int16_t>(get16(z + 16));
    x.exclusive = get16(z + 18);
    x.start = get32(z + 20);
    x.end = get32(z + 24);
    x.loop_start = get32(z + 28);
    x.loop_end = get32(z + 32);
    x.release = getf(z + 36);
    x.attack = getf(z + 40);
    x.decay = getf(z + 44);
    x.sustain = getf(z + 48);
    if (x.program >= kPrograms || (i > 0 && x.program < out->zones[i - 1].program)) return false;
    if (x.key_lo > x.key_hi || x.key_hi > 127 || x.vel_lo > x.vel_hi || x.vel_hi > 127 || x.root_key > 127) return false;
    if (x.flags > 3 || x.sample >= sc || get32(z + 52) != 0) return false;
    if (x.pan < -500 || x.pan > 500 || x.attenuation_cb < 0 || x.attenuation_cb > 1440) return false;
    if (x.tune_cents < -12800 || x.tune_cents > 12800) return false;
    const std::uint32_t len = out->samples[x.sample].frames;
    if (x.start >= x.end || x.end > len || x.loop_start > x.loop_end || x.loop_end > len) return false;
    if (!finite_in(x.release, 0, 100) || !finite_in(x.attack, 0, 100) || !finite_in(x.decay, 0, 100) ||
        !finite_in(x.sustain, 0, 1))
      return false;
    seen[x.program / 32] |= 1u << (x.program % 32);
  }
  if (std::memcmp(seen, present, sizeof seen) != 0) return false;
  return index_zones(out);
}

bool index_zones(Bank* b) {
  std::uint32_t i = 0;
  for (int p = 0; p <= kPrograms; ++p) {
    b->first_zone[p] = i;
    while (i < b->zones.size() && b->zones[i].program == p) ++i;
  }
  return i == b->zones.size();
}

std::vector<std::uint8_t> lz_compress(const std::uint8_t* p, std::size_t n) {
  // Tokens: 0lllllll = l+1 literal bytes follow; 1lllllll dd = a copy of
  // l+3 bytes from d+1 bytes back (d < 65536).
  std::vector<std::uint8_t> out;
  std::vector<std::int64_t> head(1 << 16, -1);
  std::size_t lit_start = 0, i = 0;
  auto flush_literals = [&](std::size_t to) {
    while (lit_start < to) {
      const std::size_t k = std::min<std::size_t>(128, to - lit_start);
      out.push_back(static_cast<std::uint8_t>(k - 1));
      out.insert(out.end(), p + lit_start, p + lit_start + k);
      lit_start += k;
    }
  };
  while (i + 3 <= n) {
    const std::uint32_t h = (p[i] * 2654435761u ^ p[i + 1] * 40503u ^ p[i + 2]) & 0xFFFF;
    const std::int64_t cand = head[h];
    head[h] = static_cast<std::int64_t>(i);
    std::size_t len = 0;
    if (cand >= 0 && i - static_cast<std::size_t>(cand) <= 65536) {
      const auto c = static_cast<std::size_t>(cand);
      while (i + len < n && len < 130 && p[c + len] == p[i + len]) ++len;
    }
    if (len >= 3) {
      flush_literals(i);
      const std::size_t d = i - static_cast<std::size_t>(cand) - 1;
      out.push_back(static_cast<std::uint8_t>(0x80 | (len - 3)));
      out.push_back(static_cast<std::uint8_t>(d));
      out.push_back(static_cast<std::uint8_t>(d >> 8));
      i += len;
      lit_start = i;
    } else {
      ++i;
    }
  }
  flush_literals(n);
  return out;
}

bool lz_decompress(const std::uint8_t* p, std::size_t n, std::uint8_t* out, std::size_t out_n) {
  std::size_t i = 0, o = 0;
  while (i < n) {
    const std::uint8_t tok = p[i++];
    if (tok & 0x80) {
      if (i + 2 > n) return false;
      const std::size_t len = (tok & 0x7F) + 3u;
      const std::size_t d = (p[i] | p[i + 1] << 8) + 1u;
      i += 2;
      if (d > o || len > out_n - o) return false;
      for (std::size_t k = 0; k < len; ++k, ++o) out[o] = out[o - d];
    } else {
      const std::size_t len = tok + 1u;
      if (len > n - i || len > out_n - o) return false;
      std::memcpy(out + o, p + i, len);
      i += len;
      o += len;
    }
  }
  return o == out_n;
}

std::vector<std::uint8_t> encode_block(const std::int16_t* pcm, std::size_t samples) {
  std::vector<std::uint8_t> out;
  // The predictor whose residuals are smallest overall.
  int order = 0;
  std::uint64_t best = ~0ull;
  for (int o = 0; o <= 3; ++o) {
    std::uint64_t sum = 0;
    for (std::size_t i = static_cast<std::size_t>(o); i < samples; ++i) {
      const std::int32_t r = pcm[i] - predict(pcm, i, o);
      sum += static_cast<std::uint64_t>(r < 0 ? -r : r);
    }
    if (sum < best) best = sum, order = o;
  }
  if (static_cast<std::size_t>(order) > samples) order = 0;
  out.push_back(static_cast<std::uint8_t>(order));
  for (int k = 0; k < order; ++k) put16(out, static_cast<std::uint16_t>(pcm[k]));
  BitWriter w{out};
  for (std::size_t start = static_cast<std::size_t>(order); start < samples; start += kPartition) {
    const std::size_t end = std::min(samples, start + kPartition);
    std::uint32_t u[kPartition];
    std::uint64_t sum = 0;
    for (std::size_t i = start; i < end; ++i) sum += u[i - start] = zigzag(pcm[i] - predict(pcm, i, order));
    // The Rice parameter near log2 of the mean, checked against its neighbours.
    const std::uint64_t mean = sum / (end - start);
    int k = 0;
    while (k < 16 && (1ull << (k + 1)) <= mean) ++k;
    std::uint64_t best_bits = ~0ull;
    int best_k = 0;
    for (int c = k > 0 ? k - 1 : 0; c <= k + 1 && c <= 16; ++c) {
      std::uint64_t bits = 0;
      for (std::size_t i = 0; i < end - start; ++i) bits += (u[i] >> c) + 1 + static_cast<unsigned>(c);
      if (bits < best_bits) best_bits = bits, best_k = c;
    }
    std::uint32_t largest = 0;
    for (std::size_t i = 0; i < end - start; ++i) largest = std::max(largest, u[i] >> best_k);
    // A lone spike in a quiet partition would need a long unary run.
    if (best_bits >= 18 * (end - start) || largest > kMaxQuotient) {
      w.put(kRawPartition, 8);
      for (std::size_t i = start; i < end; ++i) w.put(static_cast<std::uint16_t>(pcm[i]), 16);
      continue;
    }
    w.put(static_cast<std::uint32_t>(best_k), 8);
    for (std::size_t i = 0; i < end - start; ++i) {
      std::uint32_t q = u[i] >> best_k;
      while (q >= 16) {
        w.put(0, 16);
        q -= 16;
      }
      w.put(1u << q, static_cast<int>(q) + 1);
      w.put(u[i] & ((1u << best_k) - 1), best_k);
    }
  }
  w.flush();
  return out;
}

bool decode_block(const std::uint8_t* p, std::size_t n, std::int16_t* out, std::size_t samples) {
  if (n < 1 || p[0] > 3) return false;
  const int order = p[0];
  if (static_cast<std::size_t>(order) > samples || n < 1 + 2u * static_cast<unsigned>(order)) return false;
  for (int k = 0; k < order; ++k) out[k] = static_cast<std::int16_t>(get16(p + 1 + 2 * k));
  BitReader r{p + 1 + 2 * order, n - 1 - 2 * static_cast<std::size_t>(order)};
  for (std::size_t start = static_cast<std::size_t>(order); start < samples; start += kPartition) {
    const std::size_t end = std::min(samples, start + kPartition);
    std::uint32_t k;
    if (!r.get(8, &k)) return false;
    if (k == kRawPartition) {
      for (std::size_t i = start; i < end; ++i) {
        std::uint32_t v;
        if (!r.get(16, &v)) return false;
        out[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>(v));
      }
      continue;
    }
    if (k > 16) return false;
    for (std::size_t i = start; i < end; ++i) {
      std::uint32_t q, low;
      if (!r.unary(&q) || !r.get(static_cast<int>(k), &low)) return false;
      const std::int64_t v = predict(out, i, order) + static_cast<std::int64_t>(unzigzag((q << k) | low));
      if (v < -32768 || v > 32767) return false;
      out[i] = static_cast<std::int16_t>(v);
    }
  }
  return true;
}

}  // namespace sound::format
