// Code page 437 <-> Unicode tables and UTF-8/UTF-16 helpers.
#include "host/cp437.h"

namespace host {

namespace {
const char16_t kHigh[128] = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF,
    0x00EE, 0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9,
    0x00FF, 0x00D6, 0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA,
    0x00F1, 0x00D1, 0x00AA, 0x00BA, 0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB,
    0x2591, 0x2592, 0x2593, 0x2502, 0x2524, 0x2561, 0x2562, 0x2556, 0x2555, 0x2563, 0x2551, 0x2557,
    0x255D, 0x255C, 0x255B, 0x2510, 0x2514, 0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F,
    0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550, 0x256C, 0x2567, 0x2568, 0x2564, 0x2565, 0x2559,
    0x2558, 0x2552, 0x2553, 0x256B, 0x256A, 0x2518, 0x250C, 0x2588, 0x2584, 0x258C, 0x2590, 0x2580,
    0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4, 0x03A6, 0x0398, 0x03A9, 0x03B4,
    0x221E, 0x03C6, 0x03B5, 0x2229, 0x2261, 0x00B1, 0x2265, 0x2264, 0x2320, 0x2321, 0x00F7, 0x2248,
    0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0,
};
}  // namespace

char32_t cp437_to_unicode(std::uint8_t c) { return c < 128 ? c : kHigh[c - 128]; }

int unicode_to_cp437(char32_t u) {
  if (u < 128) return static_cast<int>(u);
  for (int i = 0; i < 128; ++i)
    if (kHigh[i] == u) return 128 + i;
  return -1;
}

void append_utf8(std::string& out, char32_t u) {
  if (u < 0x80) {
    out += static_cast<char>(u);
  } else if (u < 0x800) {
    out += static_cast<char>(0xC0 | (u >> 6));
    out += static_cast<char>(0x80 | (u & 0x3F));
  } else if (u < 0x10000) {
    out += static_cast<char>(0xE0 | (u >> 12));
    out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (u & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (u >> 18));
    out += static_cast<char>(0x80 | ((u >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (u & 0x3F));
  }
}

int Utf8Decoder::feed(std::uint8_t b, char32_t out[2]) {
  int n = 0;
  if (need_ > 0) {
    if (b >= lo_ && b <= hi_) {
      cp_ = (cp_ << 6) | (b & 0x3F);
      lo_ = 0x80;
      hi_ = 0xBF;
      if (--need_ == 0) out[n++] = cp_;
      return n;
    }
    need_ = 0;
    lo_ = 0x80;
    hi_ = 0xBF;
    out[n++] = 0xFFFD;  // the sequence ends here; b is looked at afresh
  }
  if (b < 0x80) {
    out[n++] = b;
  } else if (b >= 0xC2 && b <= 0xDF) {
    cp_ = b & 0x1F;
    need_ = 1;
  } else if (b >= 0xE0 && b <= 0xEF) {
    cp_ = b & 0x0F;
    need_ = 2;
    if (b == 0xE0) lo_ = 0xA0;  // no overlong forms
    if (b == 0xED) hi_ = 0x9F;  // no surrogates
  } else if (b >= 0xF0 && b <= 0xF4) {
    cp_ = b & 0x07;
    need_ = 3;
    if (b == 0xF0) lo_ = 0x90;
    if (b == 0xF4) hi_ = 0x8F;  // nothing past U+10FFFF
  } else {
    out[n++] = 0xFFFD;  // a stray continuation byte, C0, C1 or F5..FF
  }
  return n;
}

bool Utf8Decoder::finish(char32_t* out) {
  const bool open = need_ > 0;
  need_ = 0;
  lo_ = 0x80;
  hi_ = 0xBF;
  if (open) *out = 0xFFFD;
  return open;
}

static std::u32string decode_utf8(const std::string& in) {
  std::u32string out;
  Utf8Decoder d;
  char32_t cps[2];
  for (unsigned char b : in)
    for (int i = 0, n = d.feed(b, cps); i < n; ++i) out += cps[i];
  if (d.finish(cps)) out += cps[0];
  return out;
}

static std::u32string decode_utf16(const std::u16string& in) {
  std::u32string out;
  for (std::size_t i = 0; i < in.size(); ++i) {
    char32_t c = in[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < in.size() && in[i + 1] >= 0xDC00 && in[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;  // a lone surrogate has no counterpart anywhere
    }
    out += c;
  }
  return out;
}

static bool to_cp437(const std::u32string& in, std::string* out) {
  std::string s;
  s.reserve(in.size());
  for (char32_t u : in) {
    const int b = unicode_to_cp437(u);
    if (b < 0) return false;
    s += static_cast<char>(b);
  }
  *out = std::move(s);
  return true;
}

bool utf16_to_cp437(const std::u16string& in, std::string* out) { return to_cp437(decode_utf16(in), out); }
bool utf8_to_cp437(const std::string& in, std::string* out) { return to_cp437(decode_utf8(in), out); }

std::u16string utf8_to_utf16(const std::string& in) {
  std::u16string out;
  for (char32_t u : decode_utf8(in)) {
    if (u >= 0x10000) {
      u -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (u >> 10));
      out += static_cast<char16_t>(0xDC00 + (u & 0x3FF));
    } else {
      out += static_cast<char16_t>(u);
    }
  }
  return out;
}

std::string utf16_to_utf8(const std::u16string& in) {
  std::string out;
  for (char32_t u : decode_utf16(in)) append_utf8(out, u);
  return out;
}

std::string cp437_to_utf8(const std::string& in) {
  std::string out;
  for (unsigned char c : in) append_utf8(out, cp437_to_unicode(c));
  return out;
}

}  // namespace host
