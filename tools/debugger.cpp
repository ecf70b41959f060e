// The F12 debugger: a full-screen view of the paused program (its lines
// around the current one, the variables, the watches and the breakpoints)
// with single step, continue, breakpoints and watches, all from the key
// queue. The console and both pixel buffers are saved on entry and put back
// on exit, so the program's screen is left as it was.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/exec.h"
#include "core/program.h"
#include "host/ui.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "screen/lineedit.h"
#include "screen/present.h"
#include "tools/inspect.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "tools/watches.h"

namespace tools {

namespace {

constexpr std::uint32_t kTitleFg = 0x000000, kTitleBg = 0xAAAAAA;
constexpr std::uint32_t kTextFg = 0xFFFFFF, kTextBg = 0x0000AA;
constexpr std::uint32_t kCurrentFg = 0xFFFF55, kCurrentBg = 0x00AAAA;
constexpr std::uint32_t kSelectFg = 0xFFFFFF, kSelectBg = 0x555555;
constexpr std::uint32_t kBreakFg = 0xFF5555;  // the status row and the breakpoint mark
constexpr std::uint32_t kHeadFg = 0x55FFFF;

bool active = false;

// Everything the debugger draws over, put back when it leaves.
struct SavedScreen {
  std::unique_ptr<screen::Console> console;
  std::vector<std::uint32_t> front, back;
  std::uint32_t width = 0, height = 0;
  std::int32_t cursor_visible = 0;

  void save() {
    console = std::make_unique<screen::Console>(screen::con);
    width = screen::fb.width;
    height = screen::fb.height;
    if (screen::fb.front) front.assign(screen::fb.front, screen::fb.front + screen::fb.pixel_count);
    if (screen::fb.back) back.assign(screen::fb.back, screen::fb.back + screen::fb.pixel_count);
    cursor_visible = screen::cursor.visible.load();
    screen::cursor.visible.store(0);
  }
  void restore() {
    screen::con = *console;
    if (screen::fb.width == width && screen::fb.height == height) {
      std::unique_lock guard(screen::fb.lock);
      if (!front.empty()) std::memcpy(screen::fb.front, front.data(), front.size() * 4);
      if (!back.empty()) std::memcpy(screen::fb.back, back.data(), back.size() * 4);
    }
    screen::mark_written(0, 0);
    screen::cursor.visible.store(cursor_visible);
    if (host::ui) host::ui->repaint_now();
  }
};

// Text at a cell without moving the cursor or scrolling; cut at the right edge.
void text_at(std::uint32_t row, std::uint32_t col, const std::string& s, std::uint32_t fg, std::uint32_t bg) {
  const std::uint32_t cols = screen::text_columns();
  screen::con.fg = fg;
  screen::con.bg = bg;
  for (std::size_t i = 0; i < s.size() && col + i < cols; ++i)
    screen::put_cell(row, col + static_cast<std::uint32_t>(i), static_cast<std::uint8_t>(s[i]));
}

void fill_row(std::uint32_t row, std::uint32_t fg, std::uint32_t bg) {
  text_at(row, 0, std::string(screen::text_columns(), ' '), fg, bg);
}

constexpr std::uint32_t kNoIndex = 0xFFFFFFFFu;

struct View {
  bool running = false;            // a program statement is waiting (else: the Ready prompt)
  std::uint32_t line = kNoIndex;   // index of the current line
  std::uint32_t column = 0;        // the statement's column (1-based) on that line
  std::uint32_t selected = 0;      // index of the line the cursor keys select
  std::string status;
};

void draw(const View& v) {
  const std::uint32_t cols = screen::text_columns(), rows = screen::text_rows();
  for (std::uint32_t r = 0; r < rows; ++r) fill_row(r, kTextFg, kTextBg);
  std::string title = " Tambril debugger";
  if (v.line != kNoIndex)
    title += " - line " + std::to_string(core::line_index[v.line].number) + ", column " + std::to_string(v.column);
  else
    title += " - no program position";
  text_at(0, 0, pad(title, cols), kTitleFg, kTitleBg);
  const std::string keys = v.running ? "F10/S step  F5/C continue  F9/B breakpoint  W watch  Esc/Q stop"
                                     : "F9/B breakpoint  W watch  Esc/Q/F12 back to the prompt";
  text_at(rows - 1, 0, pad(" " + keys, cols), kTitleFg, kTitleBg);
  if (!v.status.empty()) text_at(rows - 2, 1, v.status, kBreakFg, kTextBg);

  // The program: the selected line in the middle of the upper half.
  const std::uint32_t list_top = 1;
  const std::uint32_t list_rows = rows > 8 ? (rows - 3) / 2 : 1;
  text_at(list_top, 1, "Program", kHeadFg, kTextBg);
  if (core::program.lines == 0) {
    text_at(list_top + 1, 2, "(no program)", kTextFg, kTextBg);
  } else {
    std::uint32_t first = v.selected > list_rows / 2 ? v.selected - list_rows / 2 : 0;
    if (first + list_rows > core::program.lines)
      first = core::program.lines > list_rows ? core::program.lines - list_rows : 0;
    for (std::uint32_t k = 0; k < list_rows && first + k < core::program.lines; ++k) {
      const std::uint32_t i = first + k;
      const std::uint32_t row = list_top + 1 + k;
      std::uint32_t fg = kTextFg, bg = kTextBg;
      if (i == v.line) fg = kCurrentFg, bg = kCurrentBg;
      else if (i == v.selected) fg = kSelectFg, bg = kSelectBg;
      const std::uint32_t number = core::line_index[i].number;
      if (i == v.line || i == v.selected) fill_row(row, fg, bg);
      const std::string marks = std::string(core::is_breakpoint_line(number) ? "*" : " ") + (i == v.line ? ">" : " ");
      text_at(row, 0, marks, core::is_breakpoint_line(number) ? kBreakFg : fg, bg);
      const std::string body(core::line_body(i), core::line_body_length(i));
      text_at(row, 2, std::to_string(number) + " " + body, fg, bg);
    }
  }

  // Variables on the left, watches and breakpoints on the right.
  const std::uint32_t lower = list_top + 1 + list_rows + 1;
  const std::uint32_t half = cols / 2;
  const std::uint32_t avail = rows > lower + 3 ? rows - lower - 3 : 0;
  text_at(lower, 1, "Variables", kHeadFg, kTextBg);
  const auto all = sorted_descriptors();
  std::uint32_t r = 0;
  for (const values::Descriptor* d : all) {
    if (r >= avail) {
      text_at(lower + 1 + r - 1, 2, "...", kTextFg, kTextBg);
      break;
    }
    const std::string value = d->is_array() ? upper_bounds_text(*d) : scalar_text(*d, half > 30 ? half - 24 : 6);
    text_at(lower + 1 + r++, 2, pad(listed_name(*d), 16) + value, kTextFg, kTextBg);
  }
  if (all.empty()) text_at(lower + 1, 2, "(none)", kTextFg, kTextBg);
  text_at(lower, half + 1, "Watches", kHeadFg, kTextBg);
  std::uint32_t wr = 0;
  for (std::size_t i = 0; i < watch_count() && wr < avail / 2; ++i) {
    std::string now;
    const std::string shown = watch_value(i, &now) ? now : std::string("(undefined)");
    text_at(lower + 1 + wr++, half + 2, watch_text(i) + " = " + shown, kTextFg, kTextBg);
  }
  if (watch_count() == 0) text_at(lower + 1 + wr++, half + 2, "(none)", kTextFg, kTextBg);
  text_at(lower + 2 + wr, half + 1, "Breakpoints", kHeadFg, kTextBg);
  int count;
  const std::uint32_t* bp = core::breakpoint_list(&count);
  std::string list;
  for (int i = 0; i < count; ++i) list += (i ? " " : "") + std::to_string(bp[i]);
  text_at(lower + 3 + wr, half + 2, count ? list : std::string("(none)"), kTextFg, kTextBg);
  if (host::ui) host::ui->repaint_now();
}

// A line typed on the status row (the watch prompt); false on Esc.
bool prompt(const std::string& label, std::string* out) {
  const std::uint32_t row = screen::text_rows() - 2;
  out->clear();
  for (;;) {
    fill_row(row, kTextFg, kTextBg);
    text_at(row, 1, label + *out + "_", kHeadFg, kTextBg);
    if (host::ui) host::ui->repaint_now();
    screen::KeyEntry k;
    if (!screen::keys.wait(&k)) return false;
    const std::uint16_t code = k.code & 0xFF;
    if (code == screen::kKeyDebugger) {
      screen::keys.debugger_request.store(0);
      continue;
    }
    if (code == screen::kKeyEsc) return false;
    if (code != 0) continue;
    if (k.ch == 13) return true;
    if (k.ch == 8) {
      if (!out->empty()) out->pop_back();
    } else if (k.ch >= 32 && k.ch < 255 && out->size() < 60) {
      *out += static_cast<char>(k.ch);
    }
  }
}

char kept_message[256];
void keep_message(const char* m) {
  std::strncpy(kept_message, m, sizeof kept_message - 1);
  kept_message[sizeof kept_message - 1] = 0;
}

// Errors of the debugger's own actions are shown on its status row; they
// never reach the program's error state.
template <class F>
std::string quietly(F&& action) {
  const core::ErrorHook saved = core::err.hook;
  const bool flag = core::err.flag;
  core::err.flag = false;
  core::err.hook = keep_message;
  kept_message[0] = 0;
  action();
  const bool failed = core::err.flag;
  core::err.flag = flag;
  core::err.hook = saved;
  return failed ? std::string(kept_message) : std::string();
}

enum class Choice { Continue, Step, Stop };

Choice session(View v) {
  active = true;
  screen::keys.debugger_request.store(0);
  SavedScreen saved;
  saved.save();
  screen::con.full_screen_override = true;
  screen::con.capture_mode = 0;
  if (v.selected == kNoIndex) v.selected = 0;
  Choice choice = Choice::Continue;
  for (;;) {
    draw(v);
    v.status.clear();
    screen::KeyEntry k;
    if (!screen::keys.wait(&k)) {
      choice = Choice::Stop;  // the window is closing
      break;
    }
    const std::uint16_t code = k.code & 0xFF;
    const char c = code == 0 ? static_cast<char>(k.ch >= 'a' && k.ch <= 'z' ? k.ch - 32 : k.ch) : 0;
    if (code == screen::kKeyDebugger) {
      screen::keys.debugger_request.store(0);
      choice = Choice::Continue;
      break;
    }
    if (code == screen::kKeyEsc || c == 'Q') {
      choice = Choice::Stop;
      break;
    }
    if (code == screen::kKeyF1 + 4 || c == 'C') {  // F5
      choice = Choice::Continue;
      break;
    }
    if (code == screen::kKeyF1 + 9 || c == 'S') {  // F10
      if (!v.running) {
        v.status = "Type CONT NEXT at the prompt to step a paused program.";
        continue;
      }
      choice = Choice::Step;
      break;
    }
    if (code == screen::kKeyUp && v.selected > 0) --v.selected;
    else if (code == screen::kKeyDown && v.selected + 1 < core::program.lines) ++v.selected;
    else if (code == screen::kKeyPageUp) v.selected = v.selected > 10 ? v.selected - 10 : 0;
    else if (code == screen::kKeyPageDown && core::program.lines)
      v.selected = v.selected + 10 < core::program.lines ? v.selected + 10 : core::program.lines - 1;
    else if ((code == screen::kKeyF1 + 8 || c == 'B') && v.selected < core::program.lines) {  // F9
      const std::uint32_t number = core::line_index[v.selected].number;
      v.status = quietly([&] { (void)core::toggle_breakpoint(number); });
    } else if (c == 'W') {
      std::string text;
      if (prompt("Watch: ", &text) && !text.empty())
        v.status = quietly([&] { (void)add_watch(upper(text)); });
    }
  }
  saved.restore();
  active = false;
  return choice;
}

// Run loop: a statement of the running program is next.
bool debug_statement(const core::Token* t) {
  View v;
  v.running = true;
  v.line = core::exec.line;
  v.selected = v.line;
  v.column = static_cast<std::uint32_t>(t->column) + 1;
  const Choice c = session(v);
  if (c == Choice::Step) core::debug_request = true;
  return c != Choice::Stop;
}

// The line editor (Ready prompt, INPUT): show the state as it is.
void debug_from_editor() {
  if (active) return;
  View v;
  std::uint32_t number;
  if (core::exec.line != core::kDirect && core::exec.line < core::program.lines) {
    v.line = core::exec.line;  // INPUT inside a running program
    v.column = core::exec.stmt ? static_cast<std::uint32_t>(core::exec.stmt->column) + 1 : 1;
  } else if (core::paused_line(&number)) {
    std::uint32_t index;
    if (core::find_line(number, &index)) v.line = index;
    v.column = 1;
  }
  v.selected = v.line == kNoIndex ? 0 : v.line;
  (void)session(v);
}

}  // namespace

void install_debugger() {
  core::debugger_hook = debug_statement;
  screen::debugger_hook = debug_from_editor;
}

}  // namespace tools
