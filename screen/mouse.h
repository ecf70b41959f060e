// Mouse state shared by the UI thread (writer) and the interpreter (reader).
#pragma once
#include <atomic>
#include <cstdint>

namespace screen {

struct MouseState {
  std::atomic<std::int32_t> x{0}, y{0};      // framebuffer pixels
  std::atomic<std::uint32_t> buttons{0};     // 1 left, 2 right, 4 middle
  std::atomic<std::int32_t> wheel{0};        // cumulative signed wheel delta
  std::atomic<std::uint32_t> moved{0};       // set when the position changed
  std::atomic<std::uint32_t> pointer_visible{1};  // MOUSE ON|OFF
};
extern MouseState mouse;

// One click snapshot for ON MOUSECLICK / ON MOUSEDOUBLECLICK.
struct Click {
  std::int32_t x, y;
  std::uint32_t mask;    // button mask after the press
  std::uint32_t button;  // the bit that went down
  bool double_click;     // same button within 500 ms and 16 pixels of the last
};

// UI thread: position update (moved flag set only on change).
void mouse_move(std::int32_t x, std::int32_t y);
// UI thread: a button bit went down at (x, y); records a click snapshot the
// first time the bit is set. Returns true when a new press was recorded.
bool mouse_button_down(std::uint32_t bit, std::int32_t x, std::int32_t y, std::uint64_t now_ms);
// UI thread: the bit went up; returns true when no button remains down.
bool mouse_button_up(std::uint32_t bit);
void mouse_capture_lost();
void mouse_wheel(std::int32_t delta);
// After a framebuffer resize: a position outside the new frame goes to the centre.
void mouse_fit_to(std::uint32_t w, std::uint32_t h);

// Interpreter: take the oldest click snapshot; false when none is queued.
bool take_click(Click* out);
void clear_clicks();
bool has_clicks();

}  // namespace screen
