// Console, mouse, keyboard and timing statements. Coordinates that users type
// are 1-based (rows and columns as LOCATE counts them); the console keeps
// them 0-based.
#include "screen/screen_statements.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/exec.h"
#include "core/input.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/ui.h"
#include "screen/accept.h"
#include "screen/capture.h"
#include "screen/console.h"
#include "screen/lineedit.h"
#include "screen/framebuffer.h"
#include "screen/graphics.h"
#include "screen/graphics_statements.h"
#include "screen/keynames.h"
#include "screen/keyqueue.h"
#include "screen/mouse.h"
#include "values/eval.h"

namespace screen {

namespace {

using core::Token;

bool fail(const char* m) {
  core::raise(m);
  return false;
}

bool is_word(const Token* t, const char* word) {
  return t->kind == core::kTokIdent && std::strcmp(t->name(), word) == 0;
}

bool end_of_statement(const Token* t) {
  if (core::at_statement_end(t)) return true;
  return fail("Syntax error");
}

// A numeric argument as a 64-bit integer; a string is "Type mismatch".
bool int_arg(const Token*& t, std::int64_t* out) {
  values::Value v;
  return values::eval(t, &v) && values::arg_int(v, out);
}

bool in_range(std::int64_t v, std::int64_t lo, std::int64_t hi) {
  if (v >= lo && v <= hi) return true;
  return fail("Illegal function call");
}

bool colour_arg(const Token*& t, std::uint32_t* rgb) {
  std::int64_t n;
  if (!int_arg(t, &n)) return false;
  if (!colour_from_number(n, rgb)) return fail("Illegal function call");
  return true;
}

void home_cursor() {
  const Region r = text_region();
  con.row = r.top;
  con.col = r.left;
}

// An Esc noticed while a statement waits is the run loop's break: it goes
// back into the queue and the loop is made to poll before the next
// statement, so ON BREAK and "Break" work as for any other statement.
void pass_break_on() {
  keys.push(kKeyEsc, 0);
  core::exec.counter = 255;
}

bool break_waiting() {
  std::lock_guard guard(host::shell.global_lock);
  return keys.take_break();
}

// CAPTURE TO var$: the variable, kept as a one-token expression so that it is
// looked up again when the capture ends (the program may have been CLEARed).
Token capture_target[2];

void store_capture(const char* text, std::uint64_t n) {
  const Token* t = capture_target;
  values::LValue lv;
  values::Value v;
  if (!values::parse_lvalue(t, &lv) || !values::make_string(text, n, &v)) return;
  (void)values::assign(lv, v);
}

}  // namespace

// CLS [n]: without n (or with 2) the text region; 0 the whole screen, pixels
// and cells; 1 the graphics viewport (the whole frame without VIEW).
void stmt_cls(const Token*& t) {
  ++t;
  std::int64_t part = 2;
  if (!core::at_statement_end(t) && (!int_arg(t, &part) || !in_range(part, 0, 2))) return;
  if (!end_of_statement(t)) return;
  clear_screen_part(static_cast<int>(part));
}

// LOCATE [row][,[col][,cursor]]: an omitted row or column stays as it is. The
// cursor switch is accepted for old programs; the cursor shows only while
// input is being edited.
void stmt_locate(const Token*& t) {
  ++t;
  std::int64_t row = static_cast<std::int64_t>(con.row) + 1, col = static_cast<std::int64_t>(con.col) + 1;
  if (core::at_statement_end(t)) return (void)fail("Syntax error");
  if (t->kind != ',' && (!int_arg(t, &row) || !in_range(row, 1, text_rows()))) return;
  if (t->kind == ',') {
    ++t;
    if (!core::at_statement_end(t) && t->kind != ',' && (!int_arg(t, &col) || !in_range(col, 1, text_columns())))
      return;
    if (t->kind == ',') {
      ++t;
      std::int64_t shown;
      if (!int_arg(t, &shown) || !in_range(shown, 0, 1)) return;
    }
  }
  if (!end_of_statement(t)) return;
  con.row = static_cast<std::uint32_t>(row - 1);
  con.col = static_cast<std::uint32_t>(col - 1);
}

// COLOR [fg][,bg]: palette numbers 0-15 or packed &HRRGGBB.
void stmt_color(const Token*& t) {
  ++t;
  if (core::at_statement_end(t)) return (void)fail("Syntax error");
  std::uint32_t fg = con.fg, bg = con.bg;
  if (t->kind != ',' && !colour_arg(t, &fg)) return;
  if (t->kind == ',') {
    ++t;
    if (!colour_arg(t, &bg)) return;
  }
  if (!end_of_statement(t)) return;
  con.fg = fg;
  con.bg = bg;
}

namespace {

void list_modes() {
  const std::vector<host::DisplayMode> modes = host::ui ? host::ui->video_modes() : std::vector<host::DisplayMode>{};
  put_line("Video modes:");
  char buf[64];
  for (std::size_t i = 0; i < modes.size(); ++i) {
    std::snprintf(buf, sizeof buf, "%zu  %u x %u", i, modes[i].first, modes[i].second);
    put_line(buf);
  }
}

}  // namespace

// SCREEN width,height | SCREEN MODES
void stmt_screen(const Token*& t) {
  ++t;
  if (is_word(t, "MODES") && core::at_statement_end(t + 1)) {
    ++t;
    list_modes();
    return;
  }
  std::int64_t w, h;
  if (!int_arg(t, &w) || !values::expect(t, ',', "Expected ,") || !int_arg(t, &h) || !end_of_statement(t)) return;
  if (w < 0 || h < 0 || w > 0xFFFFFFFF || h > 0xFFFFFFFF ||
      !valid_framebuffer_size(static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h)))
    return (void)fail("Illegal function call");
  // The framebuffer belongs to the UI thread; a refusal there (no memory)
  // reads the same as a size out of range.
  if (!host::ui || !host::ui->recreate_framebuffer(static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h)))
    return (void)fail("Illegal function call");
  // A text window or viewport that no longer fits the grid is dropped.
  if (con.has_window && (con.win_right >= text_columns() || con.win_bottom >= text_rows())) con.has_window = false;
  if (con.has_viewport && con.view_bottom >= text_rows()) con.has_viewport = false;
  home_cursor();
  // VIEW and WINDOW belonged to the old frame; sprites come back over the new one.
  reset_graphics();
  refresh_all();
}

// VIDEOMODE n, widthVar, heightVar: the size of mode n (from 0) as SCREEN MODES lists it.
void stmt_videomode(const Token*& t) {
  ++t;
  std::int64_t n;
  values::LValue wv, hv;
  if (!int_arg(t, &n) || !values::expect(t, ',', "Expected ,") || !values::parse_lvalue(t, &wv) ||
      !values::expect(t, ',', "Expected ,") || !values::parse_lvalue(t, &hv) || !end_of_statement(t))
    return;
  const std::vector<host::DisplayMode> modes = host::ui ? host::ui->video_modes() : std::vector<host::DisplayMode>{};
  if (n < 0 || n >= static_cast<std::int64_t>(modes.size())) return (void)fail("Illegal function call");
  const host::DisplayMode m = modes[static_cast<std::size_t>(n)];
  if (!values::assign(wv, values::Value::integer(m.first, values::kLong))) return;
  (void)values::assign(hv, values::Value::integer(m.second, values::kLong));
}

// TXTWINDOW left,top,right,bottom (columns and rows from 1) | TXTWINDOW
void stmt_txtwindow(const Token*& t) {
  ++t;
  if (core::at_statement_end(t)) {
    con.has_window = false;
    home_cursor();
    return;
  }
  std::int64_t l, tp, r, b;
  if (!int_arg(t, &l) || !values::expect(t, ',', "Expected ,") || !int_arg(t, &tp) ||
      !values::expect(t, ',', "Expected ,") || !int_arg(t, &r) || !values::expect(t, ',', "Expected ,") ||
      !int_arg(t, &b) || !end_of_statement(t))
    return;
  const std::int64_t cols = text_columns(), rows = text_rows();
  if (!in_range(l, 1, cols) || !in_range(r, l, cols) || !in_range(tp, 1, rows) || !in_range(b, tp, rows)) return;
  con.has_window = true;
  con.win_left = static_cast<std::uint32_t>(l - 1);
  con.win_top = static_cast<std::uint32_t>(tp - 1);
  con.win_right = static_cast<std::uint32_t>(r - 1);
  con.win_bottom = static_cast<std::uint32_t>(b - 1);
  home_cursor();
}

// VIEW PRINT top TO bottom | VIEW PRINT. The graphics viewport forms of VIEW
// belong to the graphics statements.
void stmt_view(const Token*& t) {
  if (t[1].kind != core::KW_PRINT) return stmt_view_graphics(t);
  t += 2;
  if (core::at_statement_end(t)) {
    con.has_viewport = false;
    home_cursor();
    return;
  }
  std::int64_t top, bottom;
  if (!int_arg(t, &top) || !values::expect(t, core::KW_TO, "Syntax error") || !int_arg(t, &bottom) ||
      !end_of_statement(t))
    return;
  if (!in_range(top, 1, text_rows()) || !in_range(bottom, top, text_rows())) return;
  con.has_viewport = true;
  con.view_top = static_cast<std::uint32_t>(top - 1);
  con.view_bottom = static_cast<std::uint32_t>(bottom - 1);
  home_cursor();
}

// MOUSE ON | MOUSE OFF: the pointer over the window.
void stmt_mouse(const Token*& t) {
  ++t;
  std::uint32_t on;
  if (t->kind == core::KW_ON) on = 1;
  else if (is_word(t, "OFF")) on = 0;
  else return (void)fail("Syntax error");
  ++t;
  if (!end_of_statement(t)) return;
  mouse.pointer_visible.store(on);
}

// MOUSEPOS x,y: the logical position MOUSEX and MOUSEY report, kept inside the frame.
void stmt_mousepos(const Token*& t) {
  ++t;
  std::int64_t x, y;
  if (!int_arg(t, &x) || !values::expect(t, ',', "Expected ,") || !int_arg(t, &y) || !end_of_statement(t)) return;
  const std::int64_t w = fb.width ? fb.width - 1 : 0, h = fb.height ? fb.height - 1 : 0;
  x = x < 0 ? 0 : x > w ? w : x;
  y = y < 0 ? 0 : y > h ? h : y;
  mouse.x.store(static_cast<std::int32_t>(x));
  mouse.y.store(static_cast<std::int32_t>(y));
}

// KEYREPEAT delayMs,rateHz | KEYREPEAT DEFAULT
void stmt_keyrepeat(const Token*& t) {
  ++t;
  if (is_word(t, "DEFAULT")) {
    ++t;
    if (end_of_statement(t)) keys.repeat_default();
    return;
  }
  std::int64_t delay, rate;
  if (!int_arg(t, &delay) || !values::expect(t, ',', "Expected ,") || !int_arg(t, &rate) || !end_of_statement(t))
    return;
  if (!in_range(delay, 0, 0xFFFFFFFF) || !in_range(rate, 0, 1000)) return;
  keys.set_repeat(static_cast<std::uint32_t>(delay), static_cast<std::uint32_t>(rate));
}

// WAITREL ms: sleeps in short slices so that Esc and the window closing are
// noticed at once.
void stmt_waitrel(const Token*& t) {
  ++t;
  std::int64_t ms;
  if (!int_arg(t, &ms) || !end_of_statement(t)) return;
  if (ms < 0) return (void)fail("Illegal function call");
  const std::uint64_t until = host::tick_ms() + static_cast<std::uint64_t>(ms);
  for (;;) {
    if (host::stop_requested()) return;
    if (break_waiting()) {
      pass_break_on();
      return;
    }
    const std::uint64_t now = host::tick_ms();
    if (now >= until) return;
    const std::uint64_t left = until - now;
    host::sleep_ms(static_cast<unsigned>(left < 10 ? left : 10));
  }
}

// GPRINT x,y,text$: the text's glyphs at a pixel position in the current
// colours, 8 pixels apart; the text cursor and cells are untouched.
void stmt_gprint(const Token*& t) {
  ++t;
  std::int64_t x, y;
  values::Value s;
  if (!int_arg(t, &x) || !values::expect(t, ',', "Expected ,") || !int_arg(t, &y) ||
      !values::expect(t, ',', "Expected ,") || !values::eval(t, &s) || !end_of_statement(t))
    return;
  if (s.type != values::kString) return (void)fail("Type mismatch");
  for (std::uint32_t i = 0; i < s.s.len; ++i)
    draw_glyph(x + 8 * static_cast<std::int64_t>(i), y, static_cast<std::uint8_t>(s.s.ptr[i]), con.fg, con.bg);
}

void stmt_beep(const Token*& t) {
  ++t;
  if (end_of_statement(t)) bell();
}

// CAPTURE TO var$ | CAPTURE TO FILE name$ | CAPTURE OFF
void stmt_capture(const Token*& t) {
  ++t;
  if (is_word(t, "OFF")) {
    ++t;
    if (end_of_statement(t)) end_capture();
    return;
  }
  if (!values::expect(t, core::KW_TO, "Syntax error")) return;
  if (is_word(t, "FILE") && !core::at_statement_end(t + 1)) {
    ++t;
    values::Value name;
    if (!values::eval(t, &name) || !end_of_statement(t)) return;
    if (name.type != values::kString) return (void)fail("Type mismatch");
    if (name.s.len == 0) return (void)fail("Bad file name");
    if (!capture_to_file(std::string(name.s.ptr, name.s.len))) (void)fail("Bad file name");
    return;
  }
  // A plain string variable: an array element's subscripts would have to be
  // evaluated again when the capture ends.
  if (t->kind != core::kTokIdent || !core::at_statement_end(t + 1)) return (void)fail("Syntax error");
  const Token* v = t;
  values::LValue lv;
  if (!values::parse_lvalue(v, &lv)) return;
  if (lv.type != values::kString) return (void)fail("Type mismatch");
  std::memcpy(&capture_target[0], t, sizeof(Token));
  std::memset(&capture_target[1], 0, sizeof(Token));
  capture_target[1].kind = core::kTokEnd;
  t = v;
  capture_done = store_capture;
  (void)capture_to_string();
}

namespace {

bool string_option(const Token*& t, values::Value* out) {
  if (!values::eval(t, out)) return false;
  if (out->type != values::kString) return fail("Type mismatch");
  return true;
}

bool is_accept_option(const Token* t) {
  static const char* const kOptions[] = {"AT", "SIZE", "VALIDATE", "BEEP", "DEFAULT", "UCASE", "LCASE", "RESTART"};
  if (t->kind != core::kTokIdent || t[1].kind == '=') return false;
  for (const char* o : kOptions)
    if (std::strcmp(t->name(), o) == 0) return true;
  return false;
}

}  // namespace

// ACCEPT [option ...] var: options in any order, each optionally followed by
// ",", ";" or ":":
//   AT row,col   SIZE n   VALIDATE chars$ ("#" for a number)   BEEP
//   DEFAULT text$   UCASE | LCASE   RESTART
// A numeric variable takes the text only when it reads as a number; otherwise
// the field beeps and stays open.
void stmt_accept(const Token*& t) {
  ++t;
  AcceptField f;
  char buf[kAcceptMaxWidth + 1];
  int len = 0;
  std::int64_t row = -1, col = -1;
  std::string allowed;
  while (is_accept_option(t)) {
    const char* word = t->name();
    ++t;
    if (!std::strcmp(word, "AT")) {
      if (!int_arg(t, &row) || !values::expect(t, ',', "Expected ,") || !int_arg(t, &col)) return;
      if (!in_range(row, 1, text_rows()) || !in_range(col, 1, text_columns())) return;
    } else if (!std::strcmp(word, "SIZE")) {
      std::int64_t n;
      if (!int_arg(t, &n) || !in_range(n, 1, kAcceptMaxWidth)) return;
      f.width = static_cast<std::uint32_t>(n);
    } else if (!std::strcmp(word, "VALIDATE")) {
      values::Value v;
      if (!string_option(t, &v)) return;
      f.numeric = v.s.len == 1 && v.s.ptr[0] == '#';
      allowed.assign(v.s.ptr, v.s.len);
    } else if (!std::strcmp(word, "DEFAULT")) {
      values::Value v;
      if (!string_option(t, &v)) return;
      len = static_cast<int>(v.s.len < kAcceptMaxWidth ? v.s.len : kAcceptMaxWidth);
      std::memcpy(buf, v.s.ptr, static_cast<std::size_t>(len));
    } else if (!std::strcmp(word, "BEEP")) {
      f.beep = true;
    } else if (!std::strcmp(word, "UCASE")) {
      f.letter_case = 1;
    } else if (!std::strcmp(word, "LCASE")) {
      f.letter_case = 2;
    } else {
      f.restart = true;
    }
    if (t->kind == ',' || t->kind == ';' || t->kind == core::kTokAcceptColon) ++t;
  }
  if (!f.numeric && !allowed.empty()) {
    f.allowed = allowed.data();
    f.allowed_len = static_cast<std::uint32_t>(allowed.size());
  }
  values::LValue lv;
  if (!values::parse_lvalue(t, &lv)) return;
  // The tokenizer marks the first colon after an option as ACCEPT's own, so
  // it cannot tell "ACCEPT SIZE 5: N$" from "ACCEPT SIZE 5 N$: PRINT N$".
  // A marked colon after the variable ends the statement; the token is
  // corrected in place (the same on every run of the line) so that the run
  // loop sees an ordinary separator.
  if (t->kind == core::kTokAcceptColon) const_cast<Token*>(t)->kind = ':';
  if (!end_of_statement(t)) return;
  if (row > 0) {
    con.row = static_cast<std::uint32_t>(row - 1);
    con.col = static_cast<std::uint32_t>(col - 1);
  }
  const std::uint32_t start_row = con.row, start_col = con.col;
  for (;;) {
    if (!accept_field(f, buf, &len)) {
      if (!host::stop_requested()) pass_break_on();
      return;
    }
    values::Value v;
    if (lv.type == values::kString) {
      if (!values::make_string(buf, static_cast<std::uint64_t>(len), &v)) return;
    } else if (!core::field_value(buf, static_cast<std::uint32_t>(len), lv.type, &v)) {
      // Not a number: the field opens again where it was, with the text kept.
      bell();
      con.row = start_row;
      con.col = start_col;
      f.restart = false;
      continue;
    }
    (void)values::assign(lv, v);
    return;
  }
}

// ---------------------------------------------------------------------------
// Functions

namespace {

using values::Value;

bool optional_empty_parens(const Token*& t) {
  if (t->kind != '(') return true;
  ++t;
  return values::expect(t, ')', "Expected )");
}

// SCREEN(row,col[,z]): the character code in a cell, or with z nonzero its
// colour as POINT reports colours.
bool f_screen(const Token*& t, Value* out) {
  Value a[3];
  int n;
  std::int64_t row, col, z = 0;
  if (!values::parse_args(t, a, 2, 3, &n) || !values::arg_int(a[0], &row) || !values::arg_int(a[1], &col)) return false;
  if (n == 3 && !values::arg_int(a[2], &z)) return false;
  if (!in_range(row, 1, text_rows()) || !in_range(col, 1, text_columns())) return false;
  const std::size_t r = static_cast<std::size_t>(row - 1), c = static_cast<std::size_t>(col - 1);
  if (z) *out = Value::integer(point_value(con.cell_colours[r][c]), values::kLong);
  else *out = Value::integer(con.cells[r][c], values::kInteger);
  return true;
}

bool f_mousex(const Token*& t, Value* out) {
  if (!optional_empty_parens(t)) return false;
  *out = Value::integer(mouse.x.load(), values::kLong);
  return true;
}
bool f_mousey(const Token*& t, Value* out) {
  if (!optional_empty_parens(t)) return false;
  *out = Value::integer(mouse.y.load(), values::kLong);
  return true;
}
bool f_mouseb(const Token*& t, Value* out) {
  if (!optional_empty_parens(t)) return false;
  *out = Value::integer(mouse.buttons.load(), values::kLong);
  return true;
}
bool f_mousewheel(const Token*& t, Value* out) {
  if (!optional_empty_parens(t)) return false;
  *out = Value::integer(mouse.wheel.load(), values::kLong);
  return true;
}

bool f_keydown(const Token*& t, Value* out) {
  Value a;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_string(a)) return false;
  const int id = key_id_from_name(a.s.ptr, a.s.len);
  if (id < 0) return fail("Illegal function call");
  *out = Value::integer(host::ui && host::ui->named_key_down(id) ? -1 : 0);
  return true;
}

bool f_videomodes(const Token*& t, Value* out) {
  if (!optional_empty_parens(t)) return false;
  const std::size_t n = host::ui ? host::ui->video_modes().size() : 0;
  *out = Value::integer(static_cast<std::int64_t>(n), values::kLong);
  return true;
}

bool f_clipboard(const Token*& t, Value* out) {
  if (!optional_empty_parens(t)) return false;
  std::string text;
  if (!host::ui || !host::ui->clipboard_text(&text)) text.clear();
  return values::make_string(text.data(), text.size(), out);
}

}  // namespace

const values::Builtin kScreenFunctions[] = {
    {"CLIPBOARD$", f_clipboard}, {"KEYDOWN", f_keydown},       {"MOUSEB", f_mouseb}, {"MOUSEWHEEL", f_mousewheel},
    {"MOUSEX", f_mousex},        {"MOUSEY", f_mousey},         {"SCREEN", f_screen},
    {"VIDEOMODES", f_videomodes},
};
const int kScreenFunctionCount = static_cast<int>(sizeof kScreenFunctions / sizeof kScreenFunctions[0]);

void stmt_key(const core::Token*& t) {
  ++t;
  auto done = [&t]() {
    if (core::at_statement_end(t)) return true;
    core::raise("Syntax error");
    return false;
  };
  if (t->kind == core::KW_ON || (t->kind == core::kTokIdent && !std::strcmp(t->name(), "OFF"))) {
    const bool on = t->kind == core::KW_ON;
    ++t;
    if (done()) show_key_line(on);
    return;
  }
  if (t->kind == core::KW_LIST) {
    ++t;
    if (!done()) return;
    for (int k = 0; k < kFunctionKeys; ++k) {
      // Control characters show as ^letter (a CR as ^M).
      std::string line = "F" + std::to_string(k + 1) + " ";
      for (char c : function_keys[k]) {
        if (static_cast<std::uint8_t>(c) < 32) {
          line += '^';
          line += static_cast<char>(c + 64);
        } else {
          line += c;
        }
      }
      put_line(line.c_str());
    }
    return;
  }
  std::int64_t n;
  if (!values::eval_int64(t, &n) || !values::expect(t, ',', "Syntax error")) return;
  values::Value v;
  if (!values::eval(t, &v)) return;
  if (v.type != values::kString) {
    core::raise("Type mismatch");
    return;
  }
  if (!done()) return;
  if (n < 1 || n > kFunctionKeys) {
    core::raise("Illegal function call");
    return;
  }
  const std::size_t len = v.s.len < kFunctionKeyChars ? v.s.len : kFunctionKeyChars;
  function_keys[n - 1].assign(v.s.ptr ? v.s.ptr : "", len);
  if (con.key_line) show_key_line(true);
}

}  // namespace screen
