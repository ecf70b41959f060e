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

// Sprites arrive with the graphics issue; until then no sprite is ever active,
// so every write marks the whole frame changed.
inline bool sprites_active() { return false; }
inline void mark_written(std::uint32_t x, std::uint32_t y) {
  (void)x;
  (void)y;
  fb.dirty.store(kDirtyAll, std::memory_order_relaxed);
  fb.changed.store(1, std::memory_order_relaxed);
}

// Copy the back buffer over the logical framebuffer (whole frame or a rectangle).
void refresh_all();
void refresh_rect(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1);

// Palette: 0..15 are the 16 classic colours, any other non-negative number is
// packed 0xRRGGBB. Returns false for a negative number ("Illegal function call").
bool colour_from_number(std::int64_t n, std::uint32_t* rgb);
// POINT's answer for a pixel: its palette index when it matches one, else the value.
std::int64_t point_value(std::uint32_t rgb);
extern const std::uint32_t kPalette[16];

}  // namespace screen
