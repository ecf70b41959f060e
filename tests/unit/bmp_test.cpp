// The BMP reader against files built here in every depth and compression,
// the 24-bit writer's round trip, and damaged files that must load nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "screen/bmp.h"

using namespace screen;

namespace {

using Bytes = std::vector<std::uint8_t>;

void u16(Bytes& b, std::uint32_t v) {
  b.push_back(static_cast<std::uint8_t>(v));
  b.push_back(static_cast<std::uint8_t>(v >> 8));
}
void u32(Bytes& b, std::uint32_t v) {
  u16(b, v & 0xFFFF);
  u16(b, v >> 16);
}

struct Spec {
  std::uint32_t dib = 40;  // 12 (OS/2 core), 40, 108
  std::int32_t w = 0, h = 0;  // h < 0: top-down
  std::uint32_t bpp = 24, compression = 0;
  std::vector<std::uint32_t> palette;
  std::vector<std::uint32_t> masks;  // written after a 40-byte header, inside a bigger one
  Bytes data;
};

// A whole file around the given pixel bytes.
Bytes file(const Spec& s) {
  const std::uint32_t entry = s.dib == 12 ? 3 : 4;
  const std::uint32_t extra = s.dib == 40 ? static_cast<std::uint32_t>(s.masks.size()) * 4 : 0;
  const std::uint32_t at = 14 + s.dib + extra + static_cast<std::uint32_t>(s.palette.size()) * entry;
  Bytes b = {'B', 'M'};
  u32(b, at + static_cast<std::uint32_t>(s.data.size()));
  u32(b, 0);
  u32(b, at);
  u32(b, s.dib);
  if (s.dib == 12) {
    u16(b, static_cast<std::uint32_t>(s.w));
    u16(b, static_cast<std::uint32_t>(s.h));
    u16(b, 1);
    u16(b, s.bpp);
  } else {
    u32(b, static_cast<std::uint32_t>(s.w));
    u32(b, static_cast<std::uint32_t>(s.h));
    u16(b, 1);
    u16(b, s.bpp);
    u32(b, s.compression);
    u32(b, static_cast<std::uint32_t>(s.data.size()));
    u32(b, 2835);
    u32(b, 2835);
    // Colours used: 0 means all 2^bpp of a paletted picture.
    const bool all = s.bpp > 8 || s.palette.size() == (std::size_t{1} << s.bpp);
    u32(b, all ? 0 : static_cast<std::uint32_t>(s.palette.size()));
    u32(b, 0);
    std::size_t masks_at = b.size();
    for (std::uint32_t i = 40; i < s.dib; ++i) b.push_back(0);
    for (std::size_t i = 0; i < s.masks.size(); ++i) {
      if (s.dib == 40) {
        u32(b, s.masks[i]);
      } else {
        for (int k = 0; k < 4; ++k) b[masks_at + 4 * i + k] = static_cast<std::uint8_t>(s.masks[i] >> (8 * k));
      }
    }
  }
  for (std::uint32_t c : s.palette) {
    b.push_back(static_cast<std::uint8_t>(c));
    b.push_back(static_cast<std::uint8_t>(c >> 8));
    b.push_back(static_cast<std::uint8_t>(c >> 16));
    if (entry == 4) b.push_back(0);
  }
  b.insert(b.end(), s.data.begin(), s.data.end());
  return b;
}

// Rows of packed values (indices or whole pixels), padded to 4 bytes,
// bottom row first unless top-down.
Bytes rows(const std::vector<std::uint32_t>& v, std::uint32_t w, std::uint32_t h, std::uint32_t bpp, bool top_down) {
  const std::uint32_t stride = (w * bpp + 31) / 32 * 4;
  Bytes out(static_cast<std::size_t>(stride) * h, 0);
  for (std::uint32_t y = 0; y < h; ++y) {
    std::uint8_t* row = out.data() + static_cast<std::size_t>(top_down ? y : h - 1 - y) * stride;
    for (std::uint32_t x = 0; x < w; ++x) {
      const std::uint32_t p = v[y * w + x];
      if (bpp < 8) {
        const std::uint32_t bit = x * bpp;
        row[bit / 8] |= static_cast<std::uint8_t>(p << (8 - bpp - bit % 8));
      } else {
        for (std::uint32_t k = 0; k < bpp / 8; ++k) row[x * bpp / 8 + k] = static_cast<std::uint8_t>(p >> (8 * k));
      }
    }
  }
  return out;
}

std::vector<std::uint32_t> test_palette(std::uint32_t n) {
  std::vector<std::uint32_t> p(n);
  for (std::uint32_t i = 0; i < n; ++i) p[i] = (i * 0x3B1D07u + 0x102030u) & 0xFFFFFF;
  return p;
}

Image decode_ok(const Bytes& b) {
  Image img;
  const char* why = nullptr;
  EXPECT_TRUE(decode_bmp(b.data(), b.size(), &img, &why)) << (why ? why : "");
  return img;
}

bool refused(const Bytes& b) {
  Image img;
  img.w = 77;
  const bool ok = decode_bmp(b.data(), b.size(), &img);
  if (!ok) {
    EXPECT_EQ(img.w, 77u) << "a refused file leaves the image untouched";
  }
  return !ok;
}

}  // namespace

TEST(Bmp, PalettedDepthsBothRowOrdersAndTheCoreHeader) {
  const std::uint32_t w = 13, h = 5;  // odd width: every row has padding
  for (const std::uint32_t bpp : {1u, 4u, 8u}) {
    for (const std::uint32_t dib : {12u, 40u, 108u}) {
      for (const bool top_down : {false, true}) {
        if (top_down && dib == 12) continue;  // 16-bit unsigned sizes
        std::vector<std::uint32_t> index(w * h);
        for (std::uint32_t i = 0; i < w * h; ++i) index[i] = (i * 7 + i / w) % (1u << bpp);
        Spec s;
        s.dib = dib;
        s.w = w;
        s.h = top_down ? -static_cast<std::int32_t>(h) : static_cast<std::int32_t>(h);
        s.bpp = bpp;
        s.palette = test_palette(1u << bpp);
        s.data = rows(index, w, h, bpp, top_down);
        const Image img = decode_ok(file(s));
        ASSERT_EQ(img.w, w);
        ASSERT_EQ(img.h, h);
        for (std::uint32_t i = 0; i < w * h; ++i)
          ASSERT_EQ(img.px[i], s.palette[index[i]]) << "bpp " << bpp << " dib " << dib << " pixel " << i;
      }
    }
  }
}

TEST(Bmp, DirectColourDepthsAndBitFields) {
  const std::uint32_t w = 7, h = 3;
  std::vector<std::uint32_t> rgb(w * h);
  for (std::uint32_t i = 0; i < w * h; ++i) rgb[i] = (i * 0x0B1F3Du) & 0xFFFFFF;
  {  // 24 bits, BGR
    Spec s;
    s.w = w, s.h = h, s.bpp = 24, s.data = rows(rgb, w, h, 24, false);
    EXPECT_EQ(decode_ok(file(s)).px, rgb);
  }
  {  // 32 bits BGRX, the top byte ignored
    std::vector<std::uint32_t> x(rgb);
    for (auto& p : x) p |= 0xA5000000u;
    Spec s;
    s.w = w, s.h = h, s.bpp = 32, s.data = rows(x, w, h, 32, false);
    EXPECT_EQ(decode_ok(file(s)).px, rgb);
  }
  {  // 32 bits with masks in another order (R in the low byte)
    std::vector<std::uint32_t> x(rgb.size());
    for (std::size_t i = 0; i < rgb.size(); ++i)
      x[i] = (rgb[i] >> 16 & 0xFF) | (rgb[i] & 0xFF00) << 8 | (rgb[i] & 0xFF) << 24;
    for (const std::uint32_t dib : {40u, 108u}) {
      Spec s;
      s.dib = dib, s.w = w, s.h = h, s.bpp = 32, s.compression = 3;
      s.masks = {0x000000FF, 0x00FF0000, 0xFF000000};
      s.data = rows(x, w, h, 32, false);
      EXPECT_EQ(decode_ok(file(s)).px, rgb) << "dib " << dib;
    }
  }
  {  // 16 bits: 5-5-5 by default, 5-6-5 by bit fields; channels scaled to 0..255
    std::vector<std::uint32_t> v = {0x7FFF, 0x0000, 0x7C00, 0x03E0, 0x001F, 0x4210, 0x0421};
    Spec s;
    s.w = 7, s.h = 1, s.bpp = 16, s.data = rows(v, 7, 1, 16, false);
    const std::vector<std::uint32_t> want = {0xFFFFFF, 0, 0xFF0000, 0x00FF00, 0x0000FF, 0x848484, 0x080808};
    EXPECT_EQ(decode_ok(file(s)).px, want);
    std::vector<std::uint32_t> v565 = {0xFFFF, 0xF800, 0x07E0, 0x001F};
    Spec t;
    t.w = 4, t.h = 1, t.bpp = 16, t.compression = 3, t.masks = {0xF800, 0x07E0, 0x001F};
    t.data = rows(v565, 4, 1, 16, false);
    EXPECT_EQ(decode_ok(file(t)).px, (std::vector<std::uint32_t>{0xFFFFFF, 0xFF0000, 0x00FF00, 0x0000FF}));
  }
}

TEST(Bmp, Rle8AndRle4RunsAbsoluteRunsDeltaAndEndOfLine) {
  const std::vector<std::uint32_t> pal = test_palette(16);
  const std::uint32_t K = 0;  // pixels a delta or early end of line skips are black
  {
    // 6 x 3, bottom row first.
    Spec s;
    s.w = 6, s.h = 3, s.bpp = 8, s.compression = 1, s.palette = pal;
    s.data = {
        3, 1, 0, 3, 2, 3, 4, 0,  // bottom: run of three 1s, absolute 2 3 4 (padded)
        0, 0,                    // end of line
        0, 2, 2, 0,              // middle row: skip two pixels
        4, 5,                    // run of four 5s
        0, 0,                    // end of line
        1, 6,                    // top row: one 6, the rest skipped by the end of bitmap
        0, 1,
    };
    const Image img = decode_ok(file(s));
    const std::vector<std::uint32_t> want = {
        pal[6], K,      K,      K,      K,      K,       // top
        K,      K,      pal[5], pal[5], pal[5], pal[5],  // middle
        pal[1], pal[1], pal[1], pal[2], pal[3], pal[4],  // bottom
    };
    EXPECT_EQ(img.px, want);
  }
  {
    // RLE4: runs alternate the two nibbles; absolute runs pack two per byte.
    Spec s;
    s.w = 8, s.h = 2, s.bpp = 4, s.compression = 2, s.palette = pal;
    s.data = {
        5, 0x12,                 // 1 2 1 2 1
        0, 3, 0x34, 0x50,        // absolute 3 4 5: two bytes, already 16-bit aligned
        0, 0,                    // end of line
        8, 0xAB,                 // top: A B A B A B A B
        0, 1,
    };
    const Image img = decode_ok(file(s));
    const std::vector<std::uint32_t> want = {
        pal[10], pal[11], pal[10], pal[11], pal[10], pal[11], pal[10], pal[11],
        pal[1],  pal[2],  pal[1],  pal[2],  pal[1],  pal[3],  pal[4],  pal[5],
    };
    EXPECT_EQ(img.px, want);
  }
}

TEST(Bmp, WriterRoundTrip) {
  const std::uint32_t w = 17, h = 9, pitch = 20;
  std::vector<std::uint32_t> px(pitch * h, 0xDEADBEEF);
  for (std::uint32_t y = 0; y < h; ++y)
    for (std::uint32_t x = 0; x < w; ++x) px[y * pitch + x] = (x * 0x0F0000 + y * 0x00170B + x * y) & 0xFFFFFF;
  const Bytes b = encode_bmp24(px.data(), w, h, pitch);
  EXPECT_EQ(b.size(), 54u + ((w * 3 + 3) & ~3u) * h);
  const Image img = decode_ok(b);
  ASSERT_EQ(img.w, w);
  ASSERT_EQ(img.h, h);
  for (std::uint32_t y = 0; y < h; ++y)
    for (std::uint32_t x = 0; x < w; ++x) ASSERT_EQ(img.px[y * w + x], px[y * pitch + x]);
}

TEST(Bmp, DamagedFilesAreRefused) {
  const std::vector<std::uint32_t> pal = test_palette(256);
  Spec good;
  good.w = 5, good.h = 4, good.bpp = 8, good.palette = pal;
  good.data = rows(std::vector<std::uint32_t>(20, 9), 5, 4, 8, false);
  const Bytes base = file(good);
  ASSERT_FALSE(refused(base));

  // Cut anywhere before the last row's pixels end: refused. Only the last
  // row's padding may be missing.
  const std::size_t last_padding = 3;
  for (std::size_t n = 0; n < base.size() - last_padding; ++n)
    EXPECT_TRUE(refused(Bytes(base.begin(), base.begin() + static_cast<std::ptrdiff_t>(n)))) << "cut at " << n;
  EXPECT_FALSE(refused(Bytes(base.begin(), base.end() - static_cast<std::ptrdiff_t>(last_padding))));

  auto patched = [&](std::size_t at, std::uint32_t value, int bytes) {
    Bytes b = base;
    for (int k = 0; k < bytes; ++k) b[at + static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(value >> (8 * k));
    return b;
  };
  EXPECT_TRUE(refused(patched(0, 'X', 1))) << "magic";
  EXPECT_TRUE(refused(patched(14, 41, 4))) << "unknown header size";
  EXPECT_TRUE(refused(patched(26, 2, 2))) << "two planes";
  EXPECT_TRUE(refused(patched(28, 2, 2))) << "2 bits per pixel";
  EXPECT_TRUE(refused(patched(28, 7, 2))) << "7 bits per pixel";
  EXPECT_TRUE(refused(patched(30, 2, 4))) << "RLE4 on an 8-bit picture";
  EXPECT_TRUE(refused(patched(30, 4, 4))) << "JPEG inside a BMP";
  EXPECT_TRUE(refused(patched(18, 0, 4))) << "zero width";
  EXPECT_TRUE(refused(patched(22, 0, 4))) << "zero height";
  {
    Bytes b = patched(18, 100000, 4);
    b = Bytes(b);
    for (int k = 0; k < 4; ++k) b[22 + static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(100000 >> (8 * k));
    EXPECT_TRUE(refused(b)) << "ten billion pixels";
  }
  EXPECT_TRUE(refused(patched(10, 0x7FFFFFF0, 4))) << "pixel data beyond the end";
  EXPECT_TRUE(refused(patched(10, 60, 4))) << "pixel data inside the palette";

  // RLE streams that run outside the picture or end without end-of-bitmap.
  auto rle = [&](Bytes data, std::int32_t h = 2) {
    Spec s;
    s.w = 4, s.h = h, s.bpp = 8, s.compression = 1, s.palette = pal;
    s.data = std::move(data);
    return file(s);
  };
  EXPECT_FALSE(refused(rle({4, 1, 0, 0, 4, 2, 0, 1})));
  EXPECT_TRUE(refused(rle({5, 1, 0, 1}))) << "run past the row's end";
  EXPECT_TRUE(refused(rle({0, 5, 1, 2, 3, 4, 5, 0, 0, 1}))) << "absolute run past the row's end";
  EXPECT_TRUE(refused(rle({0, 2, 0, 3, 0, 1}))) << "delta below the last row";
  EXPECT_TRUE(refused(rle({0, 2, 5, 0, 0, 1}))) << "delta past the row's end";
  EXPECT_TRUE(refused(rle({0, 0, 0, 0, 1, 1, 0, 1}))) << "a run after the last row";
  EXPECT_TRUE(refused(rle({0, 0, 0, 0, 0, 0, 0, 1}))) << "end of line after the last row";
  EXPECT_TRUE(refused(rle({4, 1, 0, 0}))) << "no end of bitmap";
  EXPECT_TRUE(refused(rle({0, 3, 1, 2}))) << "absolute run cut short";
  EXPECT_TRUE(refused(rle({0, 2, 1}))) << "delta cut short";
  EXPECT_TRUE(refused(rle({4, 1, 0, 1}, -2))) << "top-down RLE";
}
