// Framebuffer creation, refresh from the back buffer, palette.
#include "screen/framebuffer.h"

#include <cstring>
#include <mutex>

#include "host/platform.h"
#include "screen/mouse.h"
#include "screen/sprites.h"

namespace screen {

FrameBuffer fb;

const std::uint32_t kPalette[16] = {
    0x000000, 0x0000AA, 0x00AA00, 0x00AAAA, 0xAA0000, 0xAA00AA, 0xAA5500, 0xAAAAAA,
    0x555555, 0x5555FF, 0x55FF55, 0x55FFFF, 0xFF5555, 0xFF55FF, 0xFFFF55, 0xFFFFFF,
};

bool valid_framebuffer_size(std::uint32_t w, std::uint32_t h) {
  return w >= 8 && w <= 8192 && h >= 16 && h <= 8192 &&
         static_cast<std::uint64_t>(w) * h <= kMaxPixels;
}

bool create_framebuffer(std::uint32_t w, std::uint32_t h) {
  if (!valid_framebuffer_size(w, h)) return false;
  const std::size_t bytes = static_cast<std::size_t>(w) * h * 4;
  auto* front = static_cast<std::uint32_t*>(host::reserve_memory(bytes));
  auto* back = static_cast<std::uint32_t*>(host::reserve_memory(bytes));
  if (!front || !back) {
    if (front) host::release_memory(front, bytes);
    if (back) host::release_memory(back, bytes);
    return false;
  }
  std::uint32_t* old_front;
  std::uint32_t* old_back;
  std::size_t old_bytes;
  {
    std::unique_lock guard(fb.lock);
    old_front = fb.front;
    old_back = fb.back;
    old_bytes = static_cast<std::size_t>(fb.pixel_count) * 4;
    fb.front = front;
    fb.back = back;
    fb.width = w;
    fb.height = h;
    fb.pitch = w;
    fb.pixel_count = static_cast<std::uint64_t>(w) * h;
    fb.dirty.store(kDirtyAll);
    fb.changed.store(1);
  }
  mouse_fit_to(w, h);
  fb.generation.fetch_add(1);
  if (old_front) host::release_memory(old_front, old_bytes);
  if (old_back) host::release_memory(old_back, old_bytes);
  return true;
}

void release_framebuffer() {
  std::unique_lock guard(fb.lock);
  const std::size_t bytes = static_cast<std::size_t>(fb.pixel_count) * 4;
  if (fb.front) host::release_memory(fb.front, bytes);
  if (fb.back) host::release_memory(fb.back, bytes);
  fb.front = fb.back = nullptr;
  fb.width = fb.height = fb.pitch = 0;
  fb.pixel_count = 0;
}

int shown_sprites = 0;

void refresh_all() {
  std::unique_lock guard(fb.lock);
  if (!fb.front) return;
  std::memcpy(fb.front, fb.back, static_cast<std::size_t>(fb.pixel_count) * 4);
  if (sprites_active()) compose_sprites(0, 0, fb.width, fb.height);
  fb.dirty.store(kDirtyNone);
  fb.changed.store(1);
}

void refresh_rect(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1) {
  std::unique_lock guard(fb.lock);
  if (!fb.front) return;
  if (x0 < 0) x0 = 0;
  if (y0 < 0) y0 = 0;
  if (x1 > fb.width) x1 = fb.width;
  if (y1 > fb.height) y1 = fb.height;
  if (x0 >= x1 || y0 >= y1) return;
  for (std::int64_t y = y0; y < y1; ++y) {
    const std::size_t at = static_cast<std::size_t>(y) * fb.pitch + static_cast<std::size_t>(x0);
    std::memcpy(fb.front + at, fb.back + at, static_cast<std::size_t>(x1 - x0) * 4);
  }
  if (sprites_active()) compose_sprites(x0, y0, x1, y1);
  fb.changed.store(1);
}

// Every write goes to both buffers, so outside the sprites the logical
// framebuffer always equals the back buffer: only the parts of the dirty
// area that sprites cover need to be copied and drawn again. A line across
// the screen under one small sprite costs that sprite, not the line's box.
void settle_frame() {
  if (!sprites_active()) return;
  const std::uint8_t state = fb.dirty.load(std::memory_order_relaxed);
  if (state == kDirtyNone) return;
  if (state == kDirtyRect) {
    const std::uint32_t* r = fb.dirty_rect;
    recompose_sprites_in(r[0], r[1], r[2], r[3]);
  } else {
    recompose_sprites_in(0, 0, fb.width, fb.height);
  }
  fb.dirty.store(kDirtyNone);
}

bool colour_from_number(std::int64_t n, std::uint32_t* rgb) {
  if (n < 0) return false;
  *rgb = n < 16 ? kPalette[n] : static_cast<std::uint32_t>(n) & 0xFFFFFF;
  return true;
}

std::int64_t point_value(std::uint32_t rgb) {
  rgb &= 0xFFFFFF;
  for (int i = 0; i < 16; ++i)
    if (kPalette[i] == rgb) return i;
  return rgb;
}

}  // namespace screen
