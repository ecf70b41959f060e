// Mouse state and the click-snapshot queue.
#include "screen/mouse.h"

#include <cstdlib>
#include <mutex>

namespace screen {

MouseState mouse;

namespace {
// A short ring: clicks the program has not handled yet. When it is full the
// oldest snapshot is dropped, since a program that never handles clicks must
// not make the queue grow without end.
constexpr int kClickRing = 64;
std::mutex click_lock;
Click clicks[kClickRing];
int click_head = 0, click_count = 0;
// For double-click detection.
std::uint64_t last_click_ms = 0;
std::uint32_t last_click_button = 0;
std::int32_t last_click_x = 0, last_click_y = 0;
bool last_click_valid = false;
}  // namespace

void mouse_move(std::int32_t x, std::int32_t y) {
  const std::int32_t ox = mouse.x.exchange(x);
  const std::int32_t oy = mouse.y.exchange(y);
  if (ox != x || oy != y) mouse.moved.store(1);
}

bool mouse_button_down(std::uint32_t bit, std::int32_t x, std::int32_t y, std::uint64_t now_ms) {
  mouse_move(x, y);
  std::uint32_t old = mouse.buttons.load();
  while (!mouse.buttons.compare_exchange_weak(old, old | bit)) {
  }
  if (old & bit) return false;  // this press was already counted
  Click c{x, y, old | bit, bit, false};
  std::lock_guard guard(click_lock);
  if (last_click_valid && last_click_button == bit && now_ms - last_click_ms <= 500 &&
      std::abs(x - last_click_x) <= 16 && std::abs(y - last_click_y) <= 16) {
    c.double_click = true;
    last_click_valid = false;  // a third click starts a new pair
  } else {
    last_click_valid = true;
    last_click_ms = now_ms;
    last_click_button = bit;
    last_click_x = x;
    last_click_y = y;
  }
  if (click_count == kClickRing) {
    click_head = (click_head + 1) % kClickRing;
    --click_count;
  }
  clicks[(click_head + click_count) % kClickRing] = c;
  ++click_count;
  return true;
}

bool mouse_button_up(std::uint32_t bit) {
  const std::uint32_t old = mouse.buttons.fetch_and(~bit);
  return (old & ~bit & 7u) == 0;
}

void mouse_capture_lost() { mouse.buttons.fetch_and(~7u); }

void mouse_wheel(std::int32_t delta) { mouse.wheel.fetch_add(delta); }

void mouse_fit_to(std::uint32_t w, std::uint32_t h) {
  const std::int32_t x = mouse.x.load(), y = mouse.y.load();
  if (x < 0 || y < 0 || static_cast<std::uint32_t>(x) >= w || static_cast<std::uint32_t>(y) >= h) {
    mouse.x.store(static_cast<std::int32_t>(w / 2));
    mouse.y.store(static_cast<std::int32_t>(h / 2));
  }
}

bool take_click(Click* out) {
  std::lock_guard guard(click_lock);
  if (click_count == 0) return false;
  *out = clicks[click_head];
  click_head = (click_head + 1) % kClickRing;
  --click_count;
  return true;
}

bool has_clicks() {
  std::lock_guard guard(click_lock);
  return click_count > 0;
}

void clear_clicks() {
  std::lock_guard guard(click_lock);
  click_head = click_count = 0;
}

}  // namespace screen
