// Console line editor: the field starts at the cursor and wraps across rows
// inside the current text region.
#include "screen/lineedit.h"

#include <cstring>

#include "host/ui.h"
#include "screen/console.h"
#include "screen/keyqueue.h"
#include "screen/present.h"

namespace screen {

bool edit_insert_mode = true;
// The classic assignments, with the commands this system has.
std::string function_keys[kFunctionKeys] = {"LIST ", "RUN\r", "LOAD\"", "SAVE\"", "CONT\r",
                                            "FILES\r", "TRON\r", "TROFF\r", "KEY ", "CLS\r"};
void (*debugger_hook)() = nullptr;

namespace {

struct Field {
  Region region;
  std::int64_t start_row;  // may scroll above the region's top for long lines
  std::uint32_t start_col;
  std::uint32_t width() const { return region.right - region.left + 1; }
  void place(int i, std::int64_t* row, std::uint32_t* col) const {
    const std::uint64_t off = (start_col - region.left) + static_cast<std::uint64_t>(i);
    *row = start_row + static_cast<std::int64_t>(off / width());
    *col = region.left + static_cast<std::uint32_t>(off % width());
  }
  // Make position i visible, scrolling the region when the field runs past its bottom.
  void reveal(int i) {
    std::int64_t row;
    std::uint32_t col;
    place(i, &row, &col);
    while (row > static_cast<std::int64_t>(region.bottom)) {
      scroll_region_up();
      --start_row;
      --row;
    }
  }
};

void draw(const Field& f, const char* text, int len, int shown) {
  const int upto = shown > len ? shown : len;
  for (int i = 0; i < upto; ++i) {
    std::int64_t row;
    std::uint32_t col;
    f.place(i, &row, &col);
    if (row < static_cast<std::int64_t>(f.region.top)) continue;
    put_cell(static_cast<std::uint32_t>(row), col, i < len ? static_cast<std::uint8_t>(text[i]) : ' ');
    if (col == f.region.left && i > 0 && row < kMaxRows) con.row_continued[row] = 1;
  }
}

}  // namespace

int line_edit(char* buf, int cap, std::uint32_t flags) {
  if (cap < 2) return -1;
  const int max = cap - 1;
  Field f;
  f.region = text_region();
  if (con.col < f.region.left || con.col > f.region.right) con.col = f.region.left;
  if (con.row < f.region.top) con.row = f.region.top;
  if (con.row > f.region.bottom) con.row = f.region.bottom;
  f.start_row = con.row;
  f.start_col = con.col;
  int len = 0, pos = 0;
  if (flags & kEditFromLineStart) {
    // The screen line is the input: what was printed before the cursor
    // (an AUTO line number and its marker) belongs to the text.
    for (std::uint32_t c = f.region.left; c < con.col && len < max; ++c)
      buf[len++] = con.row < kMaxRows && c < kMaxCols ? static_cast<char>(con.cells[con.row][c]) : ' ';
    f.start_col = f.region.left;
    pos = len;
  }
  int shown = len;
  keys.editor_waiting.store(1);
  if (flags & kEditReadyPrompt) keys.ready_prompt_waiting.store(1);
  int result = -1;
  // A function key's text, typed one character after another.
  const std::string* typing = nullptr;
  std::size_t typed = 0;
  for (;;) {
    // The grid can change size under a waiting editor (a terminal resized):
    // the field follows, scrolling up when its end fell below the bottom.
    const Region now = text_region();
    if (now.left != f.region.left || now.right != f.region.right || now.bottom != f.region.bottom) {
      f.region = now;
      if (f.start_col < now.left || f.start_col > now.right) f.start_col = now.left;
      // Shrunk under the field: what stood above it moves up with it.
      std::int64_t end_row;
      std::uint32_t end_col;
      f.place(len, &end_row, &end_col);
      if (end_row > static_cast<std::int64_t>(now.bottom) && !con.has_window && !con.has_viewport) {
        const auto n = static_cast<std::uint32_t>(end_row - static_cast<std::int64_t>(now.bottom));
        shift_cells_up(n);
        f.start_row -= n;
      }
    }
    f.reveal(len);
    draw(f, buf, len, shown);
    shown = len;
    std::int64_t row;
    std::uint32_t col;
    f.place(pos, &row, &col);
    con.row = static_cast<std::uint32_t>(row < 0 ? 0 : row);
    con.col = col;
    cursor.row.store(static_cast<std::int32_t>(row));
    cursor.col.store(static_cast<std::int32_t>(col));
    cursor.insert.store(edit_insert_mode ? 1 : 0);
    cursor.colour.store(con.fg);
    cursor.visible.store(1);
    if (host::ui) host::ui->repaint_now();
    KeyEntry k;
    bool got = true;
    if (typing && typed < typing->size()) {
      k.code = 0;
      k.ch = static_cast<std::uint8_t>((*typing)[typed++]);
    } else {
      typing = nullptr;
      got = keys.wait(&k);
    }
    cursor.visible.store(0);
    if (!got) break;
    const std::uint16_t code = k.code & 0xFF;
    if (code >= kKeyF1 && code < kKeyF1 + kFunctionKeys && !function_keys[code - kKeyF1].empty()) {
      typing = &function_keys[code - kKeyF1];
      typed = 0;
      continue;
    }
    if (code == kKeyEsc) break;
    if (code == kKeyDebugger) {
      keys.debugger_request.store(0);
      if (debugger_hook) debugger_hook();  // it puts the screen back as it was
      continue;
    }
    if (code == kKeyReset) {
      if (flags & kEditReadyPrompt) {
        // Emergency reset: the whole text screen again, in COLOR 15,0.
        con.has_window = con.has_viewport = con.full_screen_override = false;
        con.fg = 0xFFFFFF;
        con.bg = 0x000000;
        break;
      }
      continue;
    }
    if (code != 0) {
      switch (code) {
        case kKeyRight: if (pos < len) ++pos; break;
        case kKeyLeft: if (pos > 0) --pos; break;
        case kKeyHome: pos = 0; break;
        case kKeyEnd: pos = len; break;
        case kKeyInsert: edit_insert_mode = !edit_insert_mode; break;
        case kKeyDelete:
          if (pos < len) {
            std::memmove(buf + pos, buf + pos + 1, static_cast<std::size_t>(len - pos - 1));
            --len;
          }
          break;
        default: break;  // other keys are ignored
      }
      continue;
    }
    const std::uint16_t ch = k.ch;
    if (ch == 13) {
      pos = len;
      f.place(pos, &row, &col);
      if (row > static_cast<std::int64_t>(f.region.bottom)) {
        f.reveal(pos);
        f.place(pos, &row, &col);
      }
      con.row = static_cast<std::uint32_t>(row);
      con.col = col;
      if (!(flags & kEditKeepCursor)) {
        // The typed text is input, not output: a headless transcript shows
        // only the line break that ends a prompt, not one for a bare line.
        con.echo_suppressed = f.start_col == f.region.left && !(flags & kEditFromLineStart);
        put_char(13);
        con.echo_suppressed = false;
      }
      result = len;
      break;
    }
    if (ch == 4 && len == 0 && (flags & kEditReadyPrompt) && keys.eof_key.load()) {
      keys.set_input_ended();  // the next wait sees the end of input
      continue;
    }
    if (ch == 8) {
      if (pos > 0) {
        std::memmove(buf + pos - 1, buf + pos, static_cast<std::size_t>(len - pos));
        --pos;
        --len;
      }
      continue;
    }
    if (ch >= 32 && ch <= 254) {
      if (edit_insert_mode) {
        if (len >= max) continue;  // refused: the buffer is full
        std::memmove(buf + pos + 1, buf + pos, static_cast<std::size_t>(len - pos));
        buf[pos++] = static_cast<char>(ch);
        ++len;
      } else if (pos < len) {
        buf[pos++] = static_cast<char>(ch);
      } else if (len < max) {
        buf[pos++] = static_cast<char>(ch);
        ++len;
      }
    }
  }
  keys.editor_waiting.store(0);
  keys.ready_prompt_waiting.store(0);
  buf[result >= 0 ? result : 0] = 0;
  if (result < 0) buf[0] = 0;
  return result;
}

}  // namespace screen
