// PNG (our own deflate: LZ77 with the fixed Huffman codes, no compression
// library needed) and BMP writers.
#include "screen/snapshot.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "screen/framebuffer.h"

namespace screen {

std::uint32_t crc32(const std::uint8_t* data, std::size_t n, std::uint32_t crc) {
  static std::uint32_t table[256];
  static bool ready = false;
  if (!ready) {
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      table[i] = c;
    }
    ready = true;
  }
  crc = ~crc;
  for (std::size_t i = 0; i < n; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

namespace {
void be32(std::vector<std::uint8_t>& v, std::uint32_t x) {
  v.push_back(static_cast<std::uint8_t>(x >> 24));
  v.push_back(static_cast<std::uint8_t>(x >> 16));
  v.push_back(static_cast<std::uint8_t>(x >> 8));
  v.push_back(static_cast<std::uint8_t>(x));
}
void chunk(std::vector<std::uint8_t>& out, const char* type, const std::vector<std::uint8_t>& data) {
  be32(out, static_cast<std::uint32_t>(data.size()));
  std::vector<std::uint8_t> body(type, type + 4);
  body.insert(body.end(), data.begin(), data.end());
  out.insert(out.end(), body.begin(), body.end());
  be32(out, crc32(body.data(), body.size()));
}
// Deflate with one block of the fixed Huffman codes and greedy LZ77 matches
// found through hash chains. Screens are mostly runs and repeats, which this
// shrinks about a hundredfold; a dynamic-code block would gain little more.
class BitWriter {
 public:
  explicit BitWriter(std::vector<std::uint8_t>* out) : out_(out) {}
  void bits(std::uint32_t value, int n) {  // least significant bit first
    acc_ |= static_cast<std::uint64_t>(value) << count_;
    count_ += n;
    while (count_ >= 8) {
      out_->push_back(static_cast<std::uint8_t>(acc_));
      acc_ >>= 8;
      count_ -= 8;
    }
  }
  void code(std::uint32_t value, int n) {  // Huffman codes go most significant bit first
    std::uint32_t r = 0;
    for (int i = 0; i < n; ++i) r |= ((value >> i) & 1) << (n - 1 - i);
    bits(r, n);
  }
  void flush() {
    if (count_) out_->push_back(static_cast<std::uint8_t>(acc_));
    acc_ = 0;
    count_ = 0;
  }

 private:
  std::vector<std::uint8_t>* out_;
  std::uint64_t acc_ = 0;
  int count_ = 0;
};

void literal_code(BitWriter& w, std::uint32_t v) {
  if (v < 144) w.code(0x30 + v, 8);
  else if (v < 256) w.code(0x190 + v - 144, 9);
  else if (v < 280) w.code(v - 256, 7);
  else w.code(0xC0 + v - 280, 8);
}

const std::uint16_t kLengthBase[29] = {3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 15, 17, 19, 23, 27, 31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
const std::uint8_t kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
const std::uint16_t kDistBase[30] = {1, 2, 3, 4, 5, 7, 9, 13, 17, 25, 33, 49, 65, 97, 129, 193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
const std::uint8_t kDistExtra[30] = {0, 0, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};

void match_code(BitWriter& w, std::uint32_t len, std::uint32_t dist) {
  int i = 28;
  while (kLengthBase[i] > len) --i;
  literal_code(w, 257 + static_cast<std::uint32_t>(i));
  w.bits(len - kLengthBase[i], kLengthExtra[i]);
  int d = 29;
  while (kDistBase[d] > dist) --d;
  w.code(static_cast<std::uint32_t>(d), 5);
  w.bits(dist - kDistBase[d], kDistExtra[d]);
}

void deflate_fixed(const std::vector<std::uint8_t>& in, std::vector<std::uint8_t>* out) {
  constexpr std::size_t kWindow = 32768, kMaxLen = 258, kChain = 16;
  constexpr std::uint32_t kHashBits = 15;
  BitWriter w(out);
  w.bits(1, 1);  // final block
  w.bits(1, 2);  // fixed codes
  std::vector<std::int64_t> head(std::size_t{1} << kHashBits, -1), prev(kWindow, -1);
  const std::size_t n = in.size();
  auto hash = [&](std::size_t i) {
    return ((static_cast<std::uint32_t>(in[i]) << 16 | in[i + 1] << 8 | in[i + 2]) * 2654435761u) >> (32 - kHashBits);
  };
  auto insert = [&](std::size_t i) {
    if (i + 2 >= n) return;
    const std::uint32_t h = hash(i);
    prev[i % kWindow] = head[h];
    head[h] = static_cast<std::int64_t>(i);
  };
  std::size_t i = 0;
  while (i < n) {
    std::size_t best = 0, best_dist = 0;
    if (i + 2 < n) {
      std::int64_t cand = head[hash(i)];
      for (std::size_t k = 0; k < kChain && cand >= 0 && i - static_cast<std::size_t>(cand) <= kWindow; ++k) {
        const std::size_t c = static_cast<std::size_t>(cand);
        std::size_t len = 0;
        const std::size_t limit = std::min(kMaxLen, n - i);
        while (len < limit && in[c + len] == in[i + len]) ++len;
        if (len > best) {
          best = len;
          best_dist = i - c;
          if (len == limit) break;
        }
        const std::int64_t next = prev[c % kWindow];
        if (next >= cand) break;  // the slot was reused by a newer position
        cand = next;
      }
    }
    if (best >= 3) {
      match_code(w, static_cast<std::uint32_t>(best), static_cast<std::uint32_t>(best_dist));
      for (std::size_t k = 0; k < best; ++k) insert(i + k);
      i += best;
    } else {
      literal_code(w, in[i]);
      insert(i);
      ++i;
    }
  }
  literal_code(w, 256);
  w.flush();
}

bool save(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}
}  // namespace

bool write_png(const std::string& path, const std::uint32_t* px, std::uint32_t w, std::uint32_t h) {
  std::vector<std::uint8_t> raw;
  raw.reserve(static_cast<std::size_t>(w * 3 + 1) * h);
  for (std::uint32_t y = 0; y < h; ++y) {
    raw.push_back(0);  // filter: none
    for (std::uint32_t x = 0; x < w; ++x) {
      const std::uint32_t p = px[static_cast<std::size_t>(y) * w + x];
      raw.push_back(static_cast<std::uint8_t>(p >> 16));
      raw.push_back(static_cast<std::uint8_t>(p >> 8));
      raw.push_back(static_cast<std::uint8_t>(p));
    }
  }
  std::vector<std::uint8_t> z = {0x78, 0x01};
  std::uint32_t a = 1, b = 0;
  for (std::uint8_t c : raw) {
    a = (a + c) % 65521;
    b = (b + a) % 65521;
  }
  deflate_fixed(raw, &z);
  be32(z, (b << 16) | a);
  std::vector<std::uint8_t> out = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  std::vector<std::uint8_t> ihdr;
  be32(ihdr, w);
  be32(ihdr, h);
  ihdr.insert(ihdr.end(), {8, 2, 0, 0, 0});  // 8-bit RGB
  chunk(out, "IHDR", ihdr);
  chunk(out, "IDAT", z);
  chunk(out, "IEND", {});
  return save(path, out);
}

bool write_bmp(const std::string& path, const std::uint32_t* px, std::uint32_t w, std::uint32_t h) {
  const std::uint32_t row = w * 4, size = 54 + row * h;
  std::vector<std::uint8_t> out(54, 0);
  auto le32 = [&](std::size_t at, std::uint32_t x) {
    for (int i = 0; i < 4; ++i) out[at + i] = static_cast<std::uint8_t>(x >> (8 * i));
  };
  out[0] = 'B';
  out[1] = 'M';
  le32(2, size);
  le32(10, 54);
  le32(14, 40);
  le32(18, w);
  le32(22, static_cast<std::uint32_t>(-static_cast<std::int32_t>(h)));  // top-down
  out[26] = 1;
  out[28] = 32;
  le32(34, row * h);
  for (std::uint32_t i = 0; i < w * h; ++i) {
    const std::uint32_t p = px[i];
    out.push_back(static_cast<std::uint8_t>(p));
    out.push_back(static_cast<std::uint8_t>(p >> 8));
    out.push_back(static_cast<std::uint8_t>(p >> 16));
    out.push_back(0);
  }
  return save(path, out);
}

bool write_snapshot(const std::string& path) {
  std::shared_lock guard(fb.lock);
  if (!fb.front) return false;
  const bool bmp = path.size() >= 4 && (path.compare(path.size() - 4, 4, ".bmp") == 0 ||
                                        path.compare(path.size() - 4, 4, ".BMP") == 0);
  return bmp ? write_bmp(path, fb.front, fb.width, fb.height) : write_png(path, fb.front, fb.width, fb.height);
}

}  // namespace screen
