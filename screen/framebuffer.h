// The framebuffer set: the logical framebuffer that is presented, the graphics
// back buffer that holds the scene without sprites, the frame lock and the
// dirty state. Created and replaced only on the UI thread.
#pragma once
#include <atomic>
#include <cstdint>
#include <shared_mutex>

namespace screen {

constexpr std::uint32_t kStartWidth = 1024;
constexpr std::uint32_t kStartHeight = 768;
constexpr std::uint64_t kMaxPixels = 67108864;  // 8192 x 8192

enum : std::uint8_t { kDirtyNone = 0, kDirtyAll = 1, kDirtyRect = 2 };

struct FrameBuffer {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t pitch = 0;  // pixels per row, always == width
  std::uint64_t pixel_count = 0;
  std::uint32_t* front = nullptr;  // logical framebuffer, 0x00RRGGBB
  std::uint32_t* back = nullptr;   // graphics back buffer, same format
  std::atomic<std::uint8_t> dirty{kDirtyAll};
  std::uint32_t dirty_rect[4] = {0, 0, 0, 0};  // min x, min y, max x + 1, max y + 1
  // Shared while the UI thread copies `front`; exclusive while the interpreter
  // refreshes `front` from `back`, so a paint never sees half a refresh.
  std::shared_mutex lock;
  // Bumped on every recreation so the presenter knows to resize its surfaces.
  std::atomic<std::uint32_t> generation{0};
  // Set by every write, taken by a presenter that skips frames nothing changed.
  std::atomic<std::uint32_t> changed{1};
};

extern FrameBuffer fb;

bool valid_framebuffer_size(std::uint32_t w, std::uint32_t h);
// Replace both buffers with zeroed ones of w x h. On refusal or failure the
// old buffers stay. UI thread only (the interpreter asks host::ui).
bool create_framebuffer(std::uint32_t w, std::uint32_t h);
void release_framebuffer();

// Sprites shown right now (sprites.cpp keeps the count). While there are
// none, the logical framebuffer equals the back buffer and every write only
// marks the whole frame changed; while there are some, writes collect a
// dirty rectangle that settle_frame recomposes with the sprites over it.
extern int shown_sprites;
inline bool sprites_active() { return shown_sprites > 0; }

// Pixels x0..x1-1, y0..y1-1 were written to both buffers.
inline void mark_rect(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1) {
  fb.changed.store(1, std::memory_order_relaxed);
  const std::uint8_t state = fb.dirty.load(std::memory_order_relaxed);
  if (!sprites_active() || state == kDirtyAll) {
    fb.dirty.store(kDirtyAll, std::memory_order_relaxed);
    return;
  }
  if (x0 < 0) x0 = 0;
  if (y0 < 0) y0 = 0;
  if (x1 > fb.width) x1 = fb.width;
  if (y1 > fb.height) y1 = fb.height;
  if (x0 >= x1 || y0 >= y1) return;
  std::uint32_t* r = fb.dirty_rect;
  if (state == kDirtyNone) {
    r[0] = static_cast<std::uint32_t>(x0);
    r[1] = static_cast<std::uint32_t>(y0);
    r[2] = static_cast<std::uint32_t>(x1);
    r[3] = static_cast<std::uint32_t>(y1);
    fb.dirty.store(kDirtyRect, std::memory_order_relaxed);
    return;
  }
  if (x0 < r[0]) r[0] = static_cast<std::uint32_t>(x0);
  if (y0 < r[1]) r[1] = static_cast<std::uint32_t>(y0);
  if (x1 > r[2]) r[2] = static_cast<std::uint32_t>(x1);
  if (y1 > r[3]) r[3] = static_cast<std::uint32_t>(y1);
}
inline void mark_written(std::uint32_t x, std::uint32_t y) { mark_rect(x, y, std::int64_t{x} + 1, std::int64_t{y} + 1); }

// After drawing: while sprites are shown, refresh the written pixels that
// sprites cover from the back buffer and draw the sprites over them again;
// the dirty state is reset.
void settle_frame();

// Copy the back buffer over the logical framebuffer (whole frame or a
// rectangle, max exclusive) and draw the shown sprites over the copy.
void refresh_all();
void refresh_rect(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1);

// Palette: 0..15 are the 16 classic colours, any other non-negative number is
// packed 0xRRGGBB. Returns false for a negative number ("Illegal function call").
bool colour_from_number(std::int64_t n, std::uint32_t* rgb);
// POINT's answer for a pixel: its palette index when it matches one, else the value.
std::int64_t point_value(std::uint32_t rgb);
extern const std::uint32_t kPalette[16];

}  // namespace screen
