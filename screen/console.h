// The text console: a grid of 8x16 cells painted into the framebuffer.
// Every byte of console output passes through put_char.
#pragma once
#include <cstdint>

namespace screen {

constexpr int kMaxRows = 128;
constexpr int kMaxCols = 256;

struct Region {
  std::uint32_t left, top, right, bottom;  // inclusive, 0-based
};

struct Console {
  std::uint8_t cells[kMaxRows][kMaxCols];
  std::uint32_t cell_colours[kMaxRows][kMaxCols];
  // The background each cell was drawn with (a terminal front end shows it;
  // the window has it in the pixels).
  std::uint32_t cell_backgrounds[kMaxRows][kMaxCols];
  std::uint8_t row_continued[kMaxRows];
  std::uint32_t row = 0, col = 0;
  std::uint32_t fg = 0xFFFFFF, bg = 0x000000;
  bool has_window = false;
  std::uint32_t win_left = 0, win_top = 0, win_right = 0, win_bottom = 0;
  bool has_viewport = false;
  std::uint32_t view_top = 0, view_bottom = 0;
  bool full_screen_override = false;
  std::uint8_t capture_mode = 0;  // 0 screen, 1 string, 2 file
  std::uint32_t capture_col = 0;
  // While set, put_char does not offer bytes to the headless echo (the line
  // editor draws what the user typed; it is input, not output).
  bool echo_suppressed = false;
  // WIDTH n: PRINT starts a new line after n columns of the region (0: at its edge).
  std::uint32_t print_width = 0;
  // KEY ON: the bottom row shows the function keys and is not part of the text region.
  bool key_line = false;
};

extern Console con;

std::uint32_t text_columns();  // TXTMAXX: min(width / 8, 256), at least 1
std::uint32_t text_rows();     // TXTMAXY: min(height / 16, 128), at least 1
// A terminal front end sizes the grid to the terminal instead of the
// framebuffer (0, 0 gives it back to the framebuffer). Any thread may call
// it: every console operation reads the size once and checks cell indexes.
void set_text_grid(std::uint32_t cols, std::uint32_t rows);
// Move every row's cells up by n rows (blanks come in at the bottom), as a
// terminal does when it shrinks under its cursor. Cells only: the pixels
// are not shown where the grid follows a terminal.
void shift_cells_up(std::uint32_t n);
Region text_region();

void put_char(std::uint8_t c);
// BEL's sound, without moving the cursor (CHR$(7) and BEEP).
void bell();
// The audio engine's beep; false when it cannot sound (the host beeps then).
extern bool (*engine_bell)();
void put_text(const char* s);
void put_line(const char* s);  // text, then CR
// Error messages, "Break" and "Ready." start at the region's left column.
void ensure_left_column();
// True when the next byte starts a line (of the capture while one runs).
bool at_line_start();
void clear_region();
void scroll_region_up();
void draw_glyph(std::int64_t x, std::int64_t y, std::uint8_t ch, std::uint32_t fg, std::uint32_t bg);
// Draw a character into a cell and record it, without moving the cursor.
void put_cell(std::uint32_t row, std::uint32_t col, std::uint8_t ch);
// KEY ON/OFF: show the function-key labels on the bottom row (redrawn by
// KEY n) or take them away.
void show_key_line(bool on);
// Start-up / reset state: COLOR 15,0, no text window or viewport, cursor home.
void reset_console();

// Hook for the capture sink (CAPTURE); receives bytes while capture_mode != 0.
using CaptureSink = void (*)(std::uint8_t);
extern CaptureSink capture_sink;

}  // namespace screen
