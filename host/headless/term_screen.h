// The text grid drawn on a terminal with ANSI sequences: each update writes
// only the cells that changed since the last one, then places the cursor.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace host {

enum class TermColours { kTrue, k256, k16 };
// From the environment's COLORTERM and TERM.
TermColours detect_term_colours(const char* colorterm, const char* term);

struct TermCell {
  std::uint8_t ch = ' ';  // code page 437
  std::uint32_t fg = 0xFFFFFF, bg = 0;
  bool operator==(const TermCell&) const = default;
};

struct TermFrame {
  std::uint32_t cols = 0, rows = 0;
  std::vector<TermCell> cells;  // rows x cols
  bool cursor_visible = false;
  bool cursor_insert = true;  // bar; underline in overwrite mode
  std::uint32_t cursor_row = 0, cursor_col = 0;
};

class TermScreen {
 public:
  explicit TermScreen(TermColours colours) : colours_(colours) {}
  // The next update redraws every cell (start, resize, a garbled terminal).
  void invalidate() { shown_.cells.clear(); }
  // Append the sequences that turn what is shown into `frame`.
  void update(const TermFrame& frame, std::string* out);

  // Set by the sequences when the terminal is entered and left.
  static const char* const kEnter;
  static const char* const kLeave;

 private:
  void pen(const TermCell& c, std::string* out);
  TermColours colours_;
  TermFrame shown_;
  bool pen_known_ = false;
  std::uint32_t pen_fg_ = 0, pen_bg_ = 0;
};

// The Unicode character for a code page 437 byte as the font draws it
// (control bytes are the classic symbols).
char32_t cp437_glyph(std::uint8_t c);

}  // namespace host
