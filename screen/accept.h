// ACCEPT's field editor: one row of fixed width at the cursor, with a filter
// on the characters that may be typed.
#pragma once
#include <cstdint>

namespace screen {

constexpr int kAcceptMaxWidth = 255;

struct AcceptField {
  std::uint32_t width = 0;        // wanted width; 0 means up to the region's right edge
  const char* allowed = nullptr;  // VALIDATE set; nullptr lets every printable through
  std::uint32_t allowed_len = 0;
  bool numeric = false;           // VALIDATE "#": digits, one leading sign, one point
  bool beep = false;              // BEEP: sound on every refused key
  int letter_case = 0;            // 1 UCASE, 2 LCASE
  bool restart = false;           // RESTART: the first character typed replaces the text
};

// The width the field gets at the cursor: the wanted width cut at the
// region's right edge, at least 1 and at most kAcceptMaxWidth.
std::uint32_t accept_width(const AcceptField& f);

// Whether ch may go into text (length len) at position pos under the filter.
bool accept_allows(const AcceptField& f, const char* text, int len, int pos, std::uint8_t ch);

// Edit the field at the cursor. buf (kAcceptMaxWidth + 1 bytes) holds the
// starting text, *len its length; both receive the result. Enter returns
// true and leaves the cursor at the start of the next row; Esc or the window
// closing returns false.
bool accept_field(const AcceptField& f, char* buf, int* len);

}  // namespace screen
