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

// Incremental UTF-8 decoder for byte streams (stdin). Returns a code point
// when one is complete, -1 while more bytes are needed, 0xFFFD for bad input.
class Utf8Decoder {
 public:
  std::int32_t feed(std::uint8_t b);

 private:
  char32_t cp_ = 0;
  int need_ = 0;
};

}  // namespace host
