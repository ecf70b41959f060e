// Presentation helpers shared by the window front ends: the letterbox
// mapping, the cursor overlay and the copy of the frame under the frame lock.
#pragma once
#include <atomic>
#include <cstdint>

namespace screen {

struct CursorOverlay {
  std::atomic<std::int32_t> visible{0};
  std::atomic<std::int32_t> col{0}, row{0};
  std::atomic<std::int32_t> insert{1};
  std::atomic<std::uint32_t> colour{0xFFFFFF};
};
extern CursorOverlay cursor;

struct Rect {
  std::int32_t x, y, w, h;
};

// Target rectangle of a w x h frame in a cw x ch client with the aspect ratio
// kept and the picture centred (black bars elsewhere).
Rect letterbox(std::int64_t cw, std::int64_t ch, std::int64_t w, std::int64_t h);
// Client position to framebuffer pixel through the inverse of the letterbox
// mapping, clamped to the frame.
void client_to_frame(std::int64_t cx, std::int64_t cy, std::int64_t cw, std::int64_t ch,
                     std::int32_t* x, std::int32_t* y);
// Copy the logical framebuffer into dst (frame lock held shared) and draw the
// cursor overlay into the copy only. dst has the frame's size; returns false
// when there is no frame. w and h receive the frame size.
bool compose_frame(std::uint32_t* dst, std::uint32_t dst_pitch, std::uint32_t dst_w, std::uint32_t dst_h);
void draw_cursor(std::uint32_t* pixels, std::uint32_t pitch, std::uint32_t w, std::uint32_t h);

}  // namespace screen
