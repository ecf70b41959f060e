// Code page 437 conversions at the platform boundary. Inside the system every
// text is single-byte code page 437.
#pragma once
#include <cstdint>
#include <string>

namespace host {

// Unicode code point of a code page 437 byte (bytes below 128 are ASCII).
char32_t cp437_to_unicode(std::uint8_t c);
// The code page 437 byte for a code point, or -1 when there is none. No
// best-fit guessing: a character without an exact counterpart is refused.
int unicode_to_cp437(char32_t u);

// Whole-string conversions; false when any character has no counterpart.
bool utf16_to_cp437(const std::u16string& in, std::string* out);
bool utf8_to_cp437(const std::string& in, std::string* out);
std::u16string utf8_to_utf16(const std::string& in);
std::string utf16_to_utf8(const std::u16string& in);
std::string cp437_to_utf8(const std::string& in);
void append_utf8(std::string& out, char32_t u);

// Incremental UTF-8 decoder for byte streams (stdin, typed text). A broken
// or overlong sequence, a surrogate or a value past U+10FFFF gives one
// U+FFFD, and the byte that broke a sequence starts anew (so a line end
// right after a lone lead byte is still a line end).
class Utf8Decoder {
 public:
  // Feed one byte; writes up to two code points to out and returns how many.
  int feed(std::uint8_t b, char32_t out[2]);
  // The end of a line or of the input: an unfinished sequence becomes U+FFFD
  // (true and *out set); the decoder starts clean.
  bool finish(char32_t* out);

 private:
  char32_t cp_ = 0;
  int need_ = 0;
  std::uint8_t lo_ = 0x80, hi_ = 0xBF;  // allowed range of the next continuation byte
};

}  // namespace host
