// PNG (stored deflate blocks, no compression library needed) and BMP writers.
#include "screen/snapshot.h"

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
  for (std::size_t at = 0; at < raw.size() || at == 0;) {
    const std::size_t n = raw.size() - at > 65535 ? 65535 : raw.size() - at;
    const bool last = at + n == raw.size();
    z.push_back(last ? 1 : 0);
    z.push_back(static_cast<std::uint8_t>(n));
    z.push_back(static_cast<std::uint8_t>(n >> 8));
    z.push_back(static_cast<std::uint8_t>(~n));
    z.push_back(static_cast<std::uint8_t>(~n >> 8));
    z.insert(z.end(), raw.begin() + static_cast<std::ptrdiff_t>(at), raw.begin() + static_cast<std::ptrdiff_t>(at + n));
    at += n;
    if (last) break;
  }
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
