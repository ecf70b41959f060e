// Console put-character, region rules, scrolling and glyph drawing.
#include "screen/console.h"

#include <string>

#include "screen/lineedit.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "host/platform.h"
#include "host/ui.h"
#include "screen/font.h"
#include "screen/framebuffer.h"

namespace screen {

Console con;
CaptureSink capture_sink = nullptr;

static std::atomic<std::uint32_t> grid_cols{0}, grid_rows{0};

void set_text_grid(std::uint32_t cols, std::uint32_t rows) {
  grid_cols.store(cols, std::memory_order_relaxed);
  grid_rows.store(rows, std::memory_order_relaxed);
}

void shift_cells_up(std::uint32_t n) {
  if (n == 0) return;
  for (std::uint32_t row = 0; row < static_cast<std::uint32_t>(kMaxRows); ++row) {
    const std::uint32_t from = row + n;
    for (std::uint32_t c = 0; c < static_cast<std::uint32_t>(kMaxCols); ++c) {
      const bool inside = from < static_cast<std::uint32_t>(kMaxRows);
      con.cells[row][c] = inside ? con.cells[from][c] : ' ';
      con.cell_colours[row][c] = inside ? con.cell_colours[from][c] : con.fg;
      con.cell_backgrounds[row][c] = inside ? con.cell_backgrounds[from][c] : con.bg;
    }
    con.row_continued[row] = from < static_cast<std::uint32_t>(kMaxRows) ? con.row_continued[from] : 0;
  }
  con.row = con.row > n ? con.row - n : 0;
}

std::uint32_t text_columns() {
  const std::uint32_t fixed = grid_cols.load(std::memory_order_relaxed);
  std::uint32_t c = fixed ? fixed : fb.width / 8;
  if (c > kMaxCols) c = kMaxCols;
  return c ? c : 1;
}

std::uint32_t text_rows() {
  const std::uint32_t fixed = grid_rows.load(std::memory_order_relaxed);
  std::uint32_t r = fixed ? fixed : fb.height / 16;
  if (r > kMaxRows) r = kMaxRows;
  return r ? r : 1;
}

Region text_region() {
  const std::uint32_t cols = text_columns(), rows = text_rows();
  if (con.full_screen_override) return {0, 0, cols - 1, rows - 1};
  Region r{0, 0, cols - 1, rows - 1};
  if (con.has_window) r = {con.win_left, con.win_top, con.win_right, con.win_bottom};
  if (con.has_viewport) {
    if (con.view_top > r.top) r.top = con.view_top;
    if (con.view_bottom < r.bottom) r.bottom = con.view_bottom;
  }
  if (con.key_line && rows > 1 && r.bottom >= rows - 1) r.bottom = rows - 2 > r.top ? rows - 2 : r.top;
  return r;
}

void draw_glyph(std::int64_t x, std::int64_t y, std::uint8_t ch, std::uint32_t fg_rgb,
                std::uint32_t bg_rgb) {
  if (!fb.front) return;
  const unsigned char* glyph = kFont8x16 + ch * 16;
  const std::int64_t w = fb.width, h = fb.height;
  for (int gy = 0; gy < 16; ++gy) {
    const std::int64_t py = y + gy;
    if (py < 0 || py >= h) {
      fb.dirty.store(kDirtyAll, std::memory_order_relaxed);  // write outside the frame
      continue;
    }
    const unsigned bits = glyph[gy];
    std::uint32_t* f = fb.front + py * fb.pitch;
    std::uint32_t* b = fb.back + py * fb.pitch;
    for (int gx = 0; gx < 8; ++gx) {
      const std::int64_t px = x + gx;
      if (px < 0 || px >= w) continue;
      const std::uint32_t v = (bits & (0x80u >> gx)) ? fg_rgb : bg_rgb;
      f[px] = v;
      b[px] = v;
    }
  }
  mark_rect(x, y, x + 8, y + 16);
  settle_frame();
}

void put_cell(std::uint32_t row, std::uint32_t col, std::uint8_t ch) {
  draw_glyph(static_cast<std::int64_t>(col) * 8, static_cast<std::int64_t>(row) * 16, ch, con.fg,
             con.bg);
  if (row < kMaxRows && col < kMaxCols) {
    con.cells[row][col] = ch;
    con.cell_colours[row][col] = con.fg;
    con.cell_backgrounds[row][col] = con.bg;
  }
}

// A row of blanks: the blank glyph has no set pixels, so its cells are
// filled with the background directly (form feeds and CLS clear whole
// regions, and drawing them glyph by glyph made a page of form feeds slow).
static void fill_row(std::uint32_t row, const Region& r) {
  for (std::uint32_t c = r.left; c <= r.right && c < static_cast<std::uint32_t>(kMaxCols); ++c) {
    if (row < kMaxRows) {
      con.cells[row][c] = ' ';
      con.cell_colours[row][c] = con.fg;
      con.cell_backgrounds[row][c] = con.bg;
    }
  }
  if (!fb.front) return;
  const std::uint64_t x0 = static_cast<std::uint64_t>(r.left) * 8;
  std::uint64_t x1 = (static_cast<std::uint64_t>(r.right) + 1) * 8;
  if (x1 > fb.width) x1 = fb.width;
  if (x0 >= x1) return;
  for (std::uint64_t py = static_cast<std::uint64_t>(row) * 16; py < (static_cast<std::uint64_t>(row) + 1) * 16; ++py) {
    if (py >= fb.height) {
      fb.dirty.store(kDirtyAll, std::memory_order_relaxed);  // part of the row is outside the frame
      break;
    }
    std::fill(fb.front + py * fb.pitch + x0, fb.front + py * fb.pitch + x1, con.bg);
    std::fill(fb.back + py * fb.pitch + x0, fb.back + py * fb.pitch + x1, con.bg);
  }
  mark_written(static_cast<std::uint32_t>(x0), row * 16);
}

void clear_region() {
  const Region r = text_region();
  for (std::uint32_t row = r.top; row <= r.bottom; ++row) {
    fill_row(row, r);
    if (row < kMaxRows) con.row_continued[row] = 0;
  }
  con.row = r.top;
  con.col = r.left;
}

void scroll_region_up() {
  const Region r = text_region();
  if (fb.front) {
    const std::uint64_t x0 = static_cast<std::uint64_t>(r.left) * 8;
    std::uint64_t x1 = static_cast<std::uint64_t>(r.right) * 8 + 8;
    if (x1 > fb.width) x1 = fb.width;
    if (x0 < x1) {
      const std::size_t span = static_cast<std::size_t>(x1 - x0) * 4;
      for (std::uint32_t row = r.top; row < r.bottom; ++row) {
        for (int py = 0; py < 16; ++py) {
          const std::uint64_t dy = static_cast<std::uint64_t>(row) * 16 + py;
          const std::uint64_t sy = dy + 16;
          if (sy >= fb.height) break;
          std::memcpy(fb.back + dy * fb.pitch + x0, fb.back + sy * fb.pitch + x0, span);
          std::memcpy(fb.front + dy * fb.pitch + x0, fb.back + dy * fb.pitch + x0, span);
        }
      }
      fb.dirty.store(kDirtyAll, std::memory_order_relaxed);
      fb.changed.store(1, std::memory_order_relaxed);
    }
  }
  for (std::uint32_t row = r.top; row < r.bottom && row + 1 < kMaxRows; ++row) {
    for (std::uint32_t c = r.left; c <= r.right && c < kMaxCols; ++c) {
      con.cells[row][c] = con.cells[row + 1][c];
      con.cell_colours[row][c] = con.cell_colours[row + 1][c];
      con.cell_backgrounds[row][c] = con.cell_backgrounds[row + 1][c];
    }
    con.row_continued[row] = con.row_continued[row + 1];
  }
  fill_row(r.bottom, r);
}

static void newline(const Region& r, std::uint8_t continued) {
  con.col = r.left;
  ++con.row;
  if (con.row > r.bottom) {
    scroll_region_up();
    con.row = r.bottom;
  }
  if (con.row < kMaxRows) con.row_continued[con.row] = continued;
}

static void echo(std::uint8_t c) {
  if (!con.echo_suppressed && host::ui) host::ui->console_echo(c);
}

bool (*engine_bell)() = nullptr;

void bell() {
  // The audio engine takes the beep when it can sound; otherwise the host beeps.
  if (engine_bell && engine_bell()) return;
  if (host::ui) host::ui->beep(800, 200);
}

void put_char(std::uint8_t c) {
  if (con.capture_mode != 0) {
    if (capture_sink) capture_sink(c);
    return;
  }
  const Region r = text_region();
  if (con.col < r.left || con.col > r.right) con.col = r.left;
  if (con.row < r.top) con.row = r.top;
  if (con.row > r.bottom) con.row = r.bottom;
  switch (c) {
    case 7:
      bell();
      return;
    case 12:
      clear_region();
      return;
    case 9: {
      const std::uint32_t n = 8 - ((con.col - r.left) % 8);
      for (std::uint32_t i = 0; i < n; ++i) put_char(' ');
      return;
    }
    case 10:
    case 13:
      echo('\n');
      newline(r, 0);
      return;
    default:
      break;
  }
  put_cell(con.row, con.col, c);
  echo(c);
  ++con.col;
  if (con.col > r.right) newline(r, 1);
}

void put_text(const char* s) {
  while (*s) put_char(static_cast<std::uint8_t>(*s++));
}

void put_line(const char* s) {
  put_text(s);
  put_char(13);
}

bool at_line_start() {
  // While capturing, the screen's cursor stands still: the captured line counts.
  if (con.capture_mode != 0) return con.capture_col == 0;
  return con.col == text_region().left;
}

void ensure_left_column() {
  if (!at_line_start()) put_char(13);
}

void reset_console() {
  con.fg = 0xFFFFFF;
  con.bg = 0x000000;
  con.has_window = false;
  con.has_viewport = false;
  con.full_screen_override = false;
  con.print_width = 0;
  con.key_line = false;
  con.row = con.col = 0;
}

void show_key_line(bool on) {
  const std::uint32_t cols = text_columns(), rows = text_rows();
  if (rows < 2) return;
  const std::uint32_t last = rows - 1;
  if (on && !con.key_line && con.row >= last) {
    // The cursor's row becomes the key line: the text moves up one row first.
    scroll_region_up();
    con.row = last - 1;
  }
  con.key_line = on;
  const std::uint32_t slot = cols / static_cast<std::uint32_t>(kFunctionKeys);
  for (std::uint32_t c = 0; c < cols; ++c) put_cell(last, c, ' ');
  if (!on || slot < 3) return;
  for (std::uint32_t k = 0; k < static_cast<std::uint32_t>(kFunctionKeys); ++k) {
    // "1LIST   2RUN  ...": the number, then the text (control characters blank).
    const std::string label = std::to_string(k + 1);
    const std::string& text = function_keys[k];
    std::uint32_t c = k * slot;
    for (char ch : label) put_cell(last, c++, static_cast<std::uint8_t>(ch));
    for (std::size_t i = 0; i < text.size() && c < (k + 1) * slot - 1; ++i, ++c)
      put_cell(last, c, static_cast<std::uint8_t>(text[i]) < 32 ? ' ' : static_cast<std::uint8_t>(text[i]));
  }
}

}  // namespace screen
