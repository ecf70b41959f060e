// ACCEPT's field editor. Unlike the line editor it never wraps: a form's
// fields sit side by side, so a field owns exactly its cells on one row and
// refuses (with an optional beep) what would not fit or does not pass the
// filter.
#include "screen/accept.h"

#include <cstring>

#include "host/ui.h"
#include "screen/console.h"
#include "screen/keyqueue.h"
#include "screen/lineedit.h"
#include "screen/present.h"

namespace screen {

std::uint32_t accept_width(const AcceptField& f) {
  const Region r = text_region();
  std::uint32_t col = con.col;
  if (col < r.left || col > r.right) col = r.left;
  std::uint32_t w = r.right - col + 1;
  if (f.width && f.width < w) w = f.width;
  if (w > static_cast<std::uint32_t>(kAcceptMaxWidth)) w = kAcceptMaxWidth;
  return w ? w : 1;
}

bool accept_allows(const AcceptField& f, const char* text, int len, int pos, std::uint8_t ch) {
  if (ch < 32 || ch > 254) return false;
  if (f.numeric) {
    if (ch >= '0' && ch <= '9') return pos > 0 || len == 0 || (text[0] != '-' && text[0] != '+');
    if (ch == '-' || ch == '+') return pos == 0 && (len == 0 || (text[0] != '-' && text[0] != '+'));
    if (ch == '.') {
      if (pos == 0 && len > 0 && (text[0] == '-' || text[0] == '+')) return false;
      return std::memchr(text, '.', static_cast<std::size_t>(len)) == nullptr;
    }
    return false;
  }
  if (f.allowed) return std::memchr(f.allowed, ch, f.allowed_len) != nullptr;
  return true;
}

namespace {

std::uint8_t fold(const AcceptField& f, std::uint8_t ch) {
  if (f.letter_case == 1 && ch >= 'a' && ch <= 'z') return static_cast<std::uint8_t>(ch - 32);
  if (f.letter_case == 2 && ch >= 'A' && ch <= 'Z') return static_cast<std::uint8_t>(ch + 32);
  return ch;
}

}  // namespace

bool accept_field(const AcceptField& f, char* buf, int* len_io) {
  const Region r = text_region();
  if (con.col < r.left || con.col > r.right) con.col = r.left;
  if (con.row < r.top) con.row = r.top;
  if (con.row > r.bottom) con.row = r.bottom;
  const std::uint32_t row = con.row, start = con.col;
  const int width = static_cast<int>(accept_width(f));
  int len = *len_io > width ? width : *len_io;
  for (int i = 0; i < len; ++i) buf[i] = static_cast<char>(fold(f, static_cast<std::uint8_t>(buf[i])));
  int pos = len;
  bool fresh = f.restart;
  auto refuse = [&] {
    if (f.beep) bell();
  };
  keys.editor_waiting.store(1);
  bool entered = false;
  for (;;) {
    for (int i = 0; i < width; ++i) put_cell(row, start + i, i < len ? static_cast<std::uint8_t>(buf[i]) : ' ');
    // A full field keeps the cursor on its last cell.
    const int shown = pos < width ? pos : width - 1;
    con.row = row;
    con.col = start + shown;
    cursor.row.store(static_cast<std::int32_t>(row));
    cursor.col.store(static_cast<std::int32_t>(start + shown));
    cursor.insert.store(edit_insert_mode ? 1 : 0);
    cursor.colour.store(con.fg);
    cursor.visible.store(1);
    if (host::ui) host::ui->repaint_now();
    KeyEntry k;
    const bool got = keys.wait(&k);
    cursor.visible.store(0);
    if (!got) break;
    const std::uint16_t code = k.code & 0xFF;
    if (code == kKeyEsc) break;
    if (code == kKeyDebugger) {
      keys.debugger_request.store(0);
      continue;
    }
    if (code != 0) {
      fresh = false;
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
        default: refuse(); break;
      }
      continue;
    }
    const std::uint8_t ch = fold(f, static_cast<std::uint8_t>(k.ch));
    if (ch == 13) {
      entered = true;
      break;
    }
    if (ch == 8) {
      fresh = false;
      if (pos > 0) {
        std::memmove(buf + pos - 1, buf + pos, static_cast<std::size_t>(len - pos));
        --pos;
        --len;
      }
      continue;
    }
    if (fresh && ch >= 32) {
      len = pos = 0;
      fresh = false;
    }
    const bool overwrite = !edit_insert_mode && pos < len;
    // The filter judges the text as it would be without the replaced character.
    char rest[kAcceptMaxWidth + 1];
    int rest_len = len;
    std::memcpy(rest, buf, static_cast<std::size_t>(len));
    if (overwrite) {
      std::memmove(rest + pos, rest + pos + 1, static_cast<std::size_t>(len - pos - 1));
      --rest_len;
    }
    if (!accept_allows(f, rest, rest_len, pos, ch) || (!overwrite && len >= width)) {
      refuse();
      continue;
    }
    if (overwrite) {
      buf[pos++] = static_cast<char>(ch);
    } else {
      std::memmove(buf + pos + 1, buf + pos, static_cast<std::size_t>(len - pos));
      buf[pos++] = static_cast<char>(ch);
      ++len;
    }
  }
  keys.editor_waiting.store(0);
  if (entered) {
    con.row = row;
    con.col = start + static_cast<std::uint32_t>(len < width ? len : width - 1);
    con.echo_suppressed = true;
    put_char(13);
    con.echo_suppressed = false;
    *len_io = len;
  }
  buf[*len_io] = 0;
  return entered;
}

}  // namespace screen
