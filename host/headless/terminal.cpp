// The terminal front end: a headless session whose stdin and stdout are a
// terminal. Keys are read raw and decoded; the console's text grid, sized to
// the terminal, is drawn in place with only the changed cells rewritten.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "host/headless/headless.h"
#include "host/headless/term_keys.h"
#include "host/headless/term_screen.h"
#include "host/posix/tty.h"
#include "host/shell.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "screen/present.h"

namespace host {

namespace {

class Terminal final : public Headless {
 public:
  Terminal() : screen_(detect_term_colours(std::getenv("COLORTERM"), std::getenv("TERM"))) {}

  bool create_window() override {
    if (!tty::enter_raw(TermScreen::kEnter, TermScreen::kLeave)) return false;
    fit_grid();
    screen::keys.eof_key.store(1);
    return true;
  }

  void release_surfaces() override {
    Headless::release_surfaces();
    tty::restore();
  }
  void destroy_window() override { tty::restore(); }

  void repaint_now() override { draw(); }
  void console_echo(std::uint8_t) override {}  // the grid is drawn instead

 protected:
  void start_input() override { std::thread([this] { read_keys(); }).detach(); }

  std::chrono::milliseconds tick() override {
    // Nothing written and the cursor as shown: no frame to compare.
    const bool cursor_same = (screen::cursor.visible.load() != 0) == cursor_shown_.load();
    if (screen::fb.changed.exchange(0) != 0 || !cursor_same || redraw_.exchange(false)) draw();
    // At a prompt every change is drawn by repaint_now before the editor
    // waits, so the loop sleeps long once the last key is well behind it (a
    // key just typed may be starting a program that draws by itself).
    const auto since_key = std::chrono::steady_clock::now().time_since_epoch().count() - last_key_.load();
    if (screen::keys.editor_waiting.load() && since_key > std::chrono::steady_clock::duration(kSettle).count())
      return std::chrono::milliseconds(1000);
    return std::chrono::milliseconds(16);
  }

 private:
  // TXTMAXX and TXTMAXY follow the terminal (at most the console's 256 x 128).
  void fit_grid() {
    std::uint32_t cols = 80, rows = 24;
    tty::size(&cols, &rows);
    term_cols_ = cols;
    term_rows_ = rows;
    screen::set_text_grid(cols < screen::kMaxCols ? cols : screen::kMaxCols,
                          rows < screen::kMaxRows ? rows : screen::kMaxRows);
  }

  void draw() {
    std::lock_guard guard(draw_lock_);
    frame_.cols = term_cols_;
    frame_.rows = term_rows_;
    frame_.cells.assign(static_cast<std::size_t>(frame_.cols) * frame_.rows, TermCell{});
    // The cells are read while the interpreter may write them, as the window
    // reads pixels: a torn frame is put right by the next one.
    const std::uint32_t cols = std::min(frame_.cols, screen::text_columns());
    const std::uint32_t rows = std::min(frame_.rows, screen::text_rows());
    for (std::uint32_t r = 0; r < rows; ++r) {
      for (std::uint32_t c = 0; c < cols; ++c) {
        TermCell& t = frame_.cells[static_cast<std::size_t>(r) * frame_.cols + c];
        t.ch = screen::con.cells[r][c];
        t.fg = screen::con.cell_colours[r][c] & 0xFFFFFF;
        t.bg = screen::con.cell_backgrounds[r][c] & 0xFFFFFF;
      }
    }
    const auto& cur = screen::cursor;
    const std::int32_t crow = cur.row.load(), ccol = cur.col.load();
    frame_.cursor_visible = cur.visible.load() != 0 && crow >= 0 && ccol >= 0;
    frame_.cursor_insert = cur.insert.load() != 0;
    frame_.cursor_row = crow < 0 ? 0 : static_cast<std::uint32_t>(crow);
    frame_.cursor_col = ccol < 0 ? 0 : static_cast<std::uint32_t>(ccol);
    cursor_shown_.store(frame_.cursor_visible);
    out_.clear();
    screen_.update(frame_, &out_);
    if (!out_.empty()) tty::write_all(out_.data(), out_.size());
  }

  void read_keys() {
    TermKeyDecoder decoder;
    std::vector<screen::KeyEntry> got;
    unsigned char buf[4096];
    for (;;) {
      unsigned events = 0;
      const int n = tty::read_input(buf, sizeof buf, decoder.pending() ? TermKeyDecoder::kEscTimeoutMs : -1, &events);
      got.clear();
      if (n > 0) decoder.feed(buf, static_cast<std::size_t>(n), &got);
      else if (events == 0 && decoder.pending()) decoder.flush(&got);  // the Esc stood alone
      if (events & tty::kInterrupt) got.push_back({screen::kKeyEsc, 0});
      for (const screen::KeyEntry& k : got) {
        if (k.code == screen::kKeyDebugger) {
          // F12, as the window does it: a flag the reader turns into the request.
          screen::keys.debugger_request.store(1);
          screen::keys.signal();
          continue;
        }
        screen::keys.push(k.code, k.ch);
      }
      if (events & tty::kResized) {
        {
          std::lock_guard guard(draw_lock_);
          fit_grid();
          screen_.invalidate();
        }
        redraw_.store(true);
        wake();
      }
      if (events & tty::kInputEnded) {
        // The terminal went away (hang-up): as the end of piped input.
        screen::keys.set_input_ended();
        return;
      }
      if (!got.empty()) {
        last_key_.store(std::chrono::steady_clock::now().time_since_epoch().count());
        wake();
      }
    }
  }

  static constexpr std::chrono::milliseconds kSettle{250};
  std::atomic<std::int64_t> last_key_{0};
  std::atomic<bool> redraw_{false}, cursor_shown_{false};
  TermScreen screen_;
  std::mutex draw_lock_;  // the message loop and the interpreter (repaint_now) both draw
  TermFrame frame_;
  std::string out_;
  std::uint32_t term_cols_ = 80, term_rows_ = 24;
};

}  // namespace

Frontend* make_terminal_frontend() {
  if (!tty::interactive()) return nullptr;
  return new Terminal();
}

}  // namespace host
