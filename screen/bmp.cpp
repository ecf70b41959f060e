// BMP reader and 24-bit writer.
#include "screen/bmp.h"

#include <cstring>

namespace screen {

namespace {

std::uint32_t le16(const std::uint8_t* p) { return static_cast<std::uint32_t>(p[0] | p[1] << 8); }
std::uint32_t le32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

enum : std::uint32_t { kRgb = 0, kRle8 = 1, kRle4 = 2, kBitFields = 3, kAlphaBitFields = 6 };

// One colour channel of a bit-field pixel, scaled to 0..255.
struct Channel {
  std::uint32_t mask = 0;
  int shift = 0;
  std::uint32_t max = 0;
  void set(std::uint32_t m) {
    mask = m;
    shift = 0;
    if (!m) return;
    while (!((m >> shift) & 1)) ++shift;
    max = m >> shift;
  }
  std::uint32_t get(std::uint32_t v) const {
    if (!max) return 0;
    const std::uint64_t x = (v & mask) >> shift;
    return static_cast<std::uint32_t>((x * 255 + max / 2) / max);
  }
};

struct Header {
  std::int64_t w = 0, h = 0;
  bool top_down = false;
  std::uint32_t bpp = 0, compression = kRgb;
  std::uint32_t colours_used = 0;
  std::uint32_t palette_at = 0, palette_entry = 4;
  std::uint32_t data_at = 0, data_size = 0;
  Channel r, g, b;
};

class Reader {
 public:
  Reader(const std::uint8_t* d, std::size_t n) : d_(d), n_(n) {}
  const char* why = nullptr;

  bool fault(const char* w) {
    why = w;
    return false;
  }

  bool header(Header* hd, std::uint64_t max_pixels) {
    if (n_ < 26 || d_[0] != 'B' || d_[1] != 'M') return fault("not a BMP file");
    hd->data_at = le32(d_ + 10);
    const std::uint32_t dib = le32(d_ + 14);
    const std::uint8_t* p = d_ + 14;
    std::uint32_t planes;
    if (dib == 12) {  // OS/2 1.x core header: 16-bit sizes, 3-byte palette entries
      hd->w = le16(p + 4);
      hd->h = le16(p + 6);
      planes = le16(p + 8);
      hd->bpp = le16(p + 10);
      hd->palette_entry = 3;
    } else if (dib == 40 || dib == 52 || dib == 56 || dib == 64 || dib == 108 || dib == 124) {
      if (n_ < 14 + static_cast<std::uint64_t>(dib)) return fault("header cut short");
      hd->w = static_cast<std::int32_t>(le32(p + 4));
      hd->h = static_cast<std::int32_t>(le32(p + 8));
      planes = le16(p + 12);
      hd->bpp = le16(p + 14);
      hd->compression = le32(p + 16);
      hd->data_size = le32(p + 20);
      hd->colours_used = le32(p + 32);
      // OS/2 2.x numbers its compressions differently from 3 on (Huffman, RLE24).
      if (dib == 64 && hd->compression >= kBitFields) return fault("unsupported compression");
    } else {
      return fault("unknown header");
    }
    if (planes != 1) return fault("planes");
    if (hd->h < 0) {
      hd->top_down = true;
      hd->h = -hd->h;
    }
    if (hd->w <= 0 || hd->h <= 0) return fault("empty image");
    if (static_cast<std::uint64_t>(hd->w) * static_cast<std::uint64_t>(hd->h) > max_pixels)
      return fault("image too large");
    const std::uint32_t bpp = hd->bpp, cmp = hd->compression;
    if (bpp != 1 && bpp != 4 && bpp != 8 && bpp != 16 && bpp != 24 && bpp != 32) return fault("bit depth");
    const bool ok_cmp = cmp == kRgb || (cmp == kRle8 && bpp == 8) || (cmp == kRle4 && bpp == 4) ||
                        ((cmp == kBitFields || cmp == kAlphaBitFields) && (bpp == 16 || bpp == 32));
    if (!ok_cmp) return fault("unsupported compression");
    if ((cmp == kRle8 || cmp == kRle4) && hd->top_down) return fault("top-down RLE");
    std::uint64_t after = 14 + static_cast<std::uint64_t>(dib);
    if (bpp == 16) {
      hd->r.set(0x7C00), hd->g.set(0x03E0), hd->b.set(0x001F);
    } else if (bpp == 32) {
      hd->r.set(0xFF0000), hd->g.set(0xFF00), hd->b.set(0xFF);
    }
    if (cmp == kBitFields || cmp == kAlphaBitFields) {
      // Masks inside a V2+ header, or right after a 40-byte one.
      const std::uint64_t at = 14 + 40;
      if (dib == 40) after += cmp == kAlphaBitFields ? 16 : 12;
      if (after > n_) return fault("masks cut short");
      hd->r.set(le32(d_ + at)), hd->g.set(le32(d_ + at + 4)), hd->b.set(le32(d_ + at + 8));
    }
    hd->palette_at = static_cast<std::uint32_t>(after);
    return true;
  }

  bool palette(const Header& hd, std::uint32_t pal[256]) {
    std::memset(pal, 0, 256 * sizeof(std::uint32_t));
    if (hd.bpp > 8) return true;
    std::uint64_t count = hd.colours_used ? hd.colours_used : 1u << hd.bpp;
    if (count > 256) count = 256;
    const std::uint64_t end = hd.palette_at + count * hd.palette_entry;
    if (end > n_ || end > hd.data_at) return fault("palette cut short");
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint8_t* e = d_ + hd.palette_at + i * hd.palette_entry;
      pal[i] = static_cast<std::uint32_t>(e[2]) << 16 | static_cast<std::uint32_t>(e[1]) << 8 | e[0];
    }
    return true;
  }

  // Checked before the picture is allocated, so that a short file cannot
  // ask for a large allocation.
  bool enough_data(const Header& hd) {
    if (hd.data_at > n_) return fault("pixel data cut short");
    if (hd.compression == kRle8 || hd.compression == kRle4) return true;
    const std::uint64_t w = static_cast<std::uint64_t>(hd.w), h = static_cast<std::uint64_t>(hd.h);
    const std::uint64_t stride = (w * hd.bpp + 31) / 32 * 4, used = (w * hd.bpp + 7) / 8;
    // The last row's padding may be missing; its pixels may not.
    if (stride * (h - 1) + used > n_ - hd.data_at) return fault("pixel data cut short");
    return true;
  }

  bool uncompressed(const Header& hd, const std::uint32_t pal[256], Image* img) {
    const std::uint64_t w = static_cast<std::uint64_t>(hd.w), h = static_cast<std::uint64_t>(hd.h);
    const std::uint64_t stride = (w * hd.bpp + 31) / 32 * 4;
    for (std::uint64_t row = 0; row < h; ++row) {
      const std::uint8_t* src = d_ + hd.data_at + row * stride;
      std::uint32_t* dst = img->px.data() + (hd.top_down ? row : h - 1 - row) * w;
      for (std::uint64_t x = 0; x < w; ++x) {
        switch (hd.bpp) {
          case 1: dst[x] = pal[(src[x >> 3] >> (7 - (x & 7))) & 1]; break;
          case 4: dst[x] = pal[(src[x >> 1] >> (x & 1 ? 0 : 4)) & 15]; break;
          case 8: dst[x] = pal[src[x]]; break;
          case 16: {
            const std::uint32_t v = le16(src + 2 * x);
            dst[x] = hd.r.get(v) << 16 | hd.g.get(v) << 8 | hd.b.get(v);
            break;
          }
          case 24: dst[x] = static_cast<std::uint32_t>(src[3 * x + 2]) << 16 | src[3 * x + 1] << 8 | src[3 * x]; break;
          default: {
            const std::uint32_t v = le32(src + 4 * x);
            dst[x] = hd.r.get(v) << 16 | hd.g.get(v) << 8 | hd.b.get(v);
          }
        }
      }
    }
    return true;
  }

  // RLE8 and RLE4: runs, absolute runs and the escapes end of line, end of
  // bitmap and delta. Pixels a delta or an early end of line skip stay black.
  bool rle(const Header& hd, const std::uint32_t pal[256], Image* img) {
    const bool four = hd.compression == kRle4;
    const std::uint64_t w = static_cast<std::uint64_t>(hd.w), h = static_cast<std::uint64_t>(hd.h);
    if (hd.data_at > n_) return fault("pixel data cut short");
    std::uint64_t end = n_;
    if (hd.data_size && hd.data_size < n_ - hd.data_at) end = hd.data_at + hd.data_size;
    std::uint64_t at = hd.data_at, x = 0, y = 0;
    auto put = [&](std::uint32_t index) {
      img->px[(h - 1 - y) * w + x] = pal[index];
      ++x;
    };
    for (;;) {
      if (end - at < 2) return fault("RLE data without end of bitmap");
      const std::uint32_t count = d_[at], value = d_[at + 1];
      at += 2;
      if (count) {
        if (y >= h || x + count > w) return fault("RLE run outside the image");
        for (std::uint32_t i = 0; i < count; ++i) put(four ? (i & 1 ? value & 15 : value >> 4) : value);
        continue;
      }
      if (value == 0) {  // end of line
        x = 0;
        if (++y > h) return fault("RLE line outside the image");
      } else if (value == 1) {  // end of bitmap
        return true;
      } else if (value == 2) {  // delta
        if (end - at < 2) return fault("RLE delta cut short");
        x += d_[at];
        y += d_[at + 1];
        at += 2;
        if (x > w || y > h) return fault("RLE delta outside the image");
      } else {  // absolute run of `value` pixels, padded to a 16-bit boundary
        const std::uint64_t bytes = four ? (value + 1) / 2 : value, padded = (bytes + 1) & ~std::uint64_t{1};
        if (end - at < padded) return fault("RLE data cut short");
        if (y >= h || x + value > w) return fault("RLE run outside the image");
        for (std::uint32_t i = 0; i < value; ++i) {
          const std::uint32_t byte = d_[at + (four ? i / 2 : i)];
          put(four ? (i & 1 ? byte & 15 : byte >> 4) : byte);
        }
        at += padded;
      }
    }
  }

 private:
  const std::uint8_t* d_;
  std::size_t n_;
};

void put16(std::vector<std::uint8_t>& v, std::uint32_t x) {
  v.push_back(static_cast<std::uint8_t>(x));
  v.push_back(static_cast<std::uint8_t>(x >> 8));
}
void put32(std::vector<std::uint8_t>& v, std::uint32_t x) {
  put16(v, x & 0xFFFF);
  put16(v, x >> 16);
}

}  // namespace

bool decode_bmp(const std::uint8_t* data, std::size_t size, Image* out, const char** why,
                std::uint64_t max_pixels) {
  Reader rd(data, size);
  Header hd;
  std::uint32_t pal[256];
  Image img;
  bool ok = rd.header(&hd, max_pixels) && rd.palette(hd, pal) && rd.enough_data(hd);
  if (ok) {
    img.w = static_cast<std::uint32_t>(hd.w);
    img.h = static_cast<std::uint32_t>(hd.h);
    img.px.assign(static_cast<std::size_t>(img.w) * img.h, 0);
    ok = hd.compression == kRle8 || hd.compression == kRle4 ? rd.rle(hd, pal, &img) : rd.uncompressed(hd, pal, &img);
  }
  if (why) *why = rd.why;
  if (!ok) return false;
  *out = std::move(img);
  return true;
}

std::vector<std::uint8_t> encode_bmp24(const std::uint32_t* px, std::uint32_t w, std::uint32_t h,
                                       std::uint32_t pitch) {
  const std::uint32_t stride = (w * 3 + 3) & ~3u, bytes = stride * h;
  std::vector<std::uint8_t> v;
  v.reserve(54 + static_cast<std::size_t>(bytes));
  v.push_back('B');
  v.push_back('M');
  put32(v, 54 + bytes);
  put32(v, 0);
  put32(v, 54);
  put32(v, 40);
  put32(v, w);
  put32(v, h);
  put16(v, 1);
  put16(v, 24);
  put32(v, kRgb);
  put32(v, bytes);
  put32(v, 2835);  // 72 dots per inch
  put32(v, 2835);
  put32(v, 0);
  put32(v, 0);
  for (std::uint32_t row = h; row-- > 0;) {
    const std::uint32_t* src = px + static_cast<std::size_t>(row) * pitch;
    for (std::uint32_t x = 0; x < w; ++x) {
      v.push_back(static_cast<std::uint8_t>(src[x]));
      v.push_back(static_cast<std::uint8_t>(src[x] >> 8));
      v.push_back(static_cast<std::uint8_t>(src[x] >> 16));
    }
    for (std::uint32_t k = w * 3; k < stride; ++k) v.push_back(0);
  }
  return v;
}

}  // namespace screen
