// Incremental terminal drawing.
#include "host/headless/term_screen.h"

#include <cstdlib>
#include <cstring>

#include "host/cp437.h"
#include "screen/framebuffer.h"

namespace host {

// Alternate screen, no automatic wrap, cleared; undone in reverse on leaving.
const char* const TermScreen::kEnter = "\x1b[?1049h\x1b[?7l\x1b[0m\x1b[2J";
const char* const TermScreen::kLeave = "\x1b[0m\x1b[0 q\x1b[?25h\x1b[?7h\x1b[?1049l";

TermColours detect_term_colours(const char* colorterm, const char* term) {
  if (colorterm && (std::strcmp(colorterm, "truecolor") == 0 || std::strcmp(colorterm, "24bit") == 0))
    return TermColours::kTrue;
  if (term && std::strstr(term, "256color")) return TermColours::k256;
  return TermColours::k16;
}

char32_t cp437_glyph(std::uint8_t c) {
  static const char32_t kLow[32] = {
      U' ',     U'\u263A', U'\u263B', U'\u2665', U'\u2666', U'\u2663', U'\u2660', U'\u2022',
      U'\u25D8', U'\u25CB', U'\u25D9', U'\u2642', U'\u2640', U'\u266A', U'\u266B', U'\u263C',
      U'\u25BA', U'\u25C4', U'\u2195', U'\u203C', U'\u00B6', U'\u00A7', U'\u25AC', U'\u21A8',
      U'\u2191', U'\u2193', U'\u2192', U'\u2190', U'\u221F', U'\u2194', U'\u25B2', U'\u25BC'};
  if (c < 32) return kLow[c];
  if (c == 127) return U'\u2302';
  return cp437_to_unicode(c);
}

namespace {

int dist2(std::uint32_t a, std::uint32_t b) {
  const int dr = static_cast<int>((a >> 16) & 255) - static_cast<int>((b >> 16) & 255);
  const int dg = static_cast<int>((a >> 8) & 255) - static_cast<int>((b >> 8) & 255);
  const int db = static_cast<int>(a & 255) - static_cast<int>(b & 255);
  return dr * dr + dg * dg + db * db;
}

// Nearest of the 16 console colours, as an ANSI colour number 0..15 (the
// console numbers blue 1 and red 4; ANSI the other way round).
int ansi16(std::uint32_t rgb) {
  static const int kToAnsi[8] = {0, 4, 2, 6, 1, 5, 3, 7};
  int best = 0;
  for (int i = 1; i < 16; ++i)
    if (dist2(rgb, screen::kPalette[i]) < dist2(rgb, screen::kPalette[best])) best = i;
  return kToAnsi[best & 7] + (best & 8);
}

// Nearest entry of the xterm 6x6x6 cube or grey ramp (16..255).
int xterm256(std::uint32_t rgb) {
  static const int kLevels[6] = {0, 95, 135, 175, 215, 255};
  auto nearest_level = [](int v) {
    int best = 0;
    for (int i = 1; i < 6; ++i)
      if (std::abs(v - kLevels[i]) < std::abs(v - kLevels[best])) best = i;
    return best;
  };
  const int r = nearest_level((rgb >> 16) & 255), g = nearest_level((rgb >> 8) & 255), b = nearest_level(rgb & 255);
  const std::uint32_t cube = static_cast<std::uint32_t>(kLevels[r] << 16 | kLevels[g] << 8 | kLevels[b]);
  const int avg = static_cast<int>(((rgb >> 16) & 255) + ((rgb >> 8) & 255) + (rgb & 255)) / 3;
  int grey = (avg - 8 + 5) / 10;
  if (grey < 0) grey = 0;
  if (grey > 23) grey = 23;
  const int gv = 8 + grey * 10;
  const std::uint32_t grey_rgb = static_cast<std::uint32_t>(gv << 16 | gv << 8 | gv);
  if (dist2(rgb, grey_rgb) < dist2(rgb, cube)) return 232 + grey;
  return 16 + r * 36 + g * 6 + b;
}

void append_colour(TermColours mode, bool background, std::uint32_t rgb, std::string* out) {
  switch (mode) {
    case TermColours::kTrue:
      *out += background ? "48;2;" : "38;2;";
      *out += std::to_string((rgb >> 16) & 255) + ';' + std::to_string((rgb >> 8) & 255) + ';' +
              std::to_string(rgb & 255);
      return;
    case TermColours::k256:
      *out += (background ? "48;5;" : "38;5;") + std::to_string(xterm256(rgb));
      return;
    case TermColours::k16: {
      const int a = ansi16(rgb);
      *out += std::to_string((a < 8 ? (background ? 40 : 30) : (background ? 100 : 90)) + (a & 7));
      return;
    }
  }
}

void move_to(std::uint32_t row, std::uint32_t col, std::string* out) {
  *out += "\x1b[" + std::to_string(row + 1) + ';' + std::to_string(col + 1) + 'H';
}

}  // namespace

void TermScreen::pen(const TermCell& c, std::string* out) {
  if (pen_known_ && c.fg == pen_fg_ && c.bg == pen_bg_) return;
  *out += "\x1b[";
  append_colour(colours_, false, c.fg, out);
  *out += ';';
  append_colour(colours_, true, c.bg, out);
  *out += 'm';
  pen_known_ = true;
  pen_fg_ = c.fg;
  pen_bg_ = c.bg;
}

void TermScreen::update(const TermFrame& frame, std::string* out) {
  const bool full = shown_.cols != frame.cols || shown_.rows != frame.rows ||
                    shown_.cells.size() != frame.cells.size();
  const std::size_t before = out->size();
  if (full) {
    *out += "\x1b[0m\x1b[2J";
    pen_known_ = false;
  }
  // Where the terminal's cursor stands after the last character written:
  // a cell that follows it needs no cursor movement.
  std::int64_t at_row = -1, at_col = -1;
  for (std::uint32_t r = 0; r < frame.rows; ++r) {
    for (std::uint32_t c = 0; c < frame.cols; ++c) {
      const std::size_t i = static_cast<std::size_t>(r) * frame.cols + c;
      const TermCell& cell = frame.cells[i];
      if (!full && shown_.cells[i] == cell) continue;
      if (at_row != r || at_col != c) move_to(r, c, out);
      pen(cell, out);
      append_utf8(*out, cp437_glyph(cell.ch));
      at_row = r;
      at_col = static_cast<std::int64_t>(c) + 1;
    }
  }
  const bool drew = out->size() != before;
  // The cursor is hidden while cells change, so it never flickers across them.
  if (drew) out->insert(before, "\x1b[?25l");
  const bool cursor_changed = full || frame.cursor_visible != shown_.cursor_visible ||
                              frame.cursor_insert != shown_.cursor_insert ||
                              frame.cursor_row != shown_.cursor_row || frame.cursor_col != shown_.cursor_col;
  if (drew || cursor_changed) {
    if (frame.cursor_visible && frame.cursor_row < frame.rows && frame.cursor_col < frame.cols) {
      move_to(frame.cursor_row, frame.cursor_col, out);
      *out += frame.cursor_insert ? "\x1b[6 q" : "\x1b[4 q";  // steady bar / steady underline
      *out += "\x1b[?25h";
    } else {
      *out += "\x1b[?25l";
    }
  }
  shown_ = frame;
}

}  // namespace host
