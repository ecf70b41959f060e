// Letterbox mapping, cursor overlay, frame copy for presentation.
#include "screen/present.h"

#include <cstring>
#include <mutex>
#include <shared_mutex>

#include "screen/framebuffer.h"

namespace screen {

CursorOverlay cursor;

Rect letterbox(std::int64_t cw, std::int64_t ch, std::int64_t w, std::int64_t h) {
  std::int64_t tw, th;
  if (cw * h > ch * w) {
    tw = ch * w / h;
    th = ch;
  } else {
    tw = cw;
    th = cw * h / w;
  }
  if (tw < 1) tw = 1;
  if (th < 1) th = 1;
  return {static_cast<std::int32_t>((cw - tw) / 2), static_cast<std::int32_t>((ch - th) / 2),
          static_cast<std::int32_t>(tw), static_cast<std::int32_t>(th)};
}

void client_to_frame(std::int64_t cx, std::int64_t cy, std::int64_t cw, std::int64_t ch,
                     std::int32_t* x, std::int32_t* y) {
  const std::int64_t w = fb.width, h = fb.height;
  if (w == 0 || h == 0 || cw <= 0 || ch <= 0) {
    *x = *y = 0;
    return;
  }
  const Rect r = letterbox(cw, ch, w, h);
  std::int64_t fx = (cx - r.x) * w / r.w;
  std::int64_t fy = (cy - r.y) * h / r.h;
  if (fx < 0) fx = 0;
  if (fy < 0) fy = 0;
  if (fx >= w) fx = w - 1;
  if (fy >= h) fy = h - 1;
  *x = static_cast<std::int32_t>(fx);
  *y = static_cast<std::int32_t>(fy);
}

void draw_cursor(std::uint32_t* pixels, std::uint32_t pitch, std::uint32_t w, std::uint32_t h) {
  if (!cursor.visible.load()) return;
  const std::int32_t col = cursor.col.load(), row = cursor.row.load();
  if (col < 0 || row < 0) return;
  const std::int64_t x0 = static_cast<std::int64_t>(col) * 8, y0 = static_cast<std::int64_t>(row) * 16;
  if (x0 >= w || y0 >= h) return;
  const std::uint32_t colour = cursor.colour.load();
  const bool insert = cursor.insert.load() != 0;
  // Insert: a bar two pixels wide over the whole cell; overwrite: an underline
  // on the cell's last three pixel rows.
  const int px_from = 0, px_to = insert ? 2 : 8;
  const int py_from = insert ? 0 : 13, py_to = 16;
  for (int py = py_from; py < py_to; ++py) {
    const std::int64_t y = y0 + py;
    if (y >= h) break;
    for (int px = px_from; px < px_to; ++px) {
      const std::int64_t x = x0 + px;
      if (x >= w) break;
      pixels[y * pitch + x] = colour;
    }
  }
}

bool compose_frame(std::uint32_t* dst, std::uint32_t dst_pitch, std::uint32_t dst_w, std::uint32_t dst_h) {
  {
    std::shared_lock guard(fb.lock);
    if (!fb.front || fb.width != dst_w || fb.height != dst_h) return false;
    for (std::uint32_t y = 0; y < fb.height; ++y)
      std::memcpy(dst + static_cast<std::size_t>(y) * dst_pitch, fb.front + static_cast<std::size_t>(y) * fb.pitch,
                  static_cast<std::size_t>(fb.width) * 4);
  }
  draw_cursor(dst, dst_pitch, dst_w, dst_h);
  return true;
}

}  // namespace screen
