// LOADBMP, SAVEBMP and BITBLT, and the bitmap slots they share.
#include "screen/bitmaps.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "core/program.h"
#include "screen/bmp.h"
#include "screen/framebuffer.h"
#include "screen/gfx_args.h"
#include "screen/graphics.h"
#include "screen/graphics_statements.h"
#include "values/builtins.h"
#include "values/store.h"

namespace screen {

using namespace gfxarg;

namespace {

std::unique_ptr<Image> slots[kMaxBitmaps + 1];

bool load_image(const std::string& name, Image* img) {
  std::string bytes;
  if (!read_file(name, &bytes)) return false;
  if (!decode_bmp(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), img))
    return fail("Bad file format");
  return true;
}

// Copy w x h pixels of src (pitch spitch) to frame pixel (x, y), clipped to
// the frame, into both buffers.
void blit(const std::uint32_t* src, std::int64_t spitch, std::int64_t w, std::int64_t h, std::int64_t x,
          std::int64_t y) {
  Canvas cv = full_canvas();
  std::int64_t sx = 0, sy = 0;
  if (x < 0) sx = -x, w += x, x = 0;
  if (y < 0) sy = -y, h += y, y = 0;
  w = std::min(w, cv.cx1 - x + 1);
  h = std::min(h, cv.cy1 - y + 1);
  if (w <= 0 || h <= 0) return;
  for (std::int64_t row = 0; row < h; ++row) {
    const std::uint32_t* s = src + (sy + row) * spitch + sx;
    const std::int64_t at = (y + row) * cv.pitch + x;
    std::memcpy(cv.back + at, s, static_cast<std::size_t>(w) * 4);
    std::memcpy(cv.front + at, s, static_cast<std::size_t>(w) * 4);
  }
  cv.touch(x, y, x + w - 1, y + h - 1);
  commit(cv);
}

}  // namespace

void reset_bitmaps() {
  for (auto& s : slots) s.reset();
}

// LOADBMP n, file$: into bitmap slot n.
// LOADBMP file$ [, x, y]: straight onto the screen with its top-left corner at
// frame pixel (x, y), (0, 0) when left out.
void stmt_loadbmp(const Token*& t) {
  ++t;
  values::Value first;
  if (!values::eval(t, &first)) return;
  if (first.type == values::kString) {
    std::string name;
    std::int64_t x = 0, y = 0;
    if (!core::check_file_name(first.s.ptr, first.s.len, &name)) return;
    if (t->kind == ',' && (!comma(t) || !integer(t, &x) || !comma(t) || !integer(t, &y))) return;
    if (!end(t)) return;
    Image img;
    if (!load_image(name, &img)) return;
    blit(img.px.data(), img.w, img.w, img.h, x, y);
    return;
  }
  std::int64_t n;
  std::string name;
  if (!values::value_to_int64(first, &n) || !in_range(n, 1, kMaxBitmaps) || !comma(t) || !file_name(t, &name) ||
      !end(t))
    return;
  auto img = std::make_unique<Image>();
  if (!load_image(name, img.get())) return;
  slots[n] = std::move(img);
}

// SAVEBMP file$ [, (x1,y1)-(x2,y2)]: the screen as it is shown (sprites
// included), whole or a rectangle of frame pixels. SAVEBMP n, file$: bitmap n.
// Always 24 bits per pixel.
void stmt_savebmp(const Token*& t) {
  ++t;
  values::Value first;
  if (!values::eval(t, &first)) return;
  std::string name;
  if (first.type != values::kString) {
    std::int64_t n;
    if (!values::value_to_int64(first, &n) || !in_range(n, 1, kMaxBitmaps) || !comma(t) || !file_name(t, &name) ||
        !end(t))
      return;
    if (!slots[n]) return (void)fail("Illegal function call");
    const Image& img = *slots[n];
    const std::vector<std::uint8_t> bytes = encode_bmp24(img.px.data(), img.w, img.h, img.w);
    (void)write_file(name, bytes.data(), bytes.size());
    return;
  }
  if (!core::check_file_name(first.s.ptr, first.s.len, &name)) return;
  std::int64_t x0 = 0, y0 = 0, x1 = static_cast<std::int64_t>(fb.width) - 1, y1 = static_cast<std::int64_t>(fb.height) - 1;
  if (t->kind == ',') {
    ++t;
    GfxPoint a, b;
    if (!point(t, &a) || !values::expect(t, '-', "Syntax error") || !point(t, &b)) return;
    if (a.step || b.step) return (void)fail("Syntax error");
    if (!values::float_to_int64(a.x, &x0) || !values::float_to_int64(a.y, &y0) ||
        !values::float_to_int64(b.x, &x1) || !values::float_to_int64(b.y, &y1))
      return;
    if (x0 > x1) std::swap(x0, x1);
    if (y0 > y1) std::swap(y0, y1);
  }
  if (!end(t)) return;
  if (!fb.front || x0 < 0 || y0 < 0 || x1 >= fb.width || y1 >= fb.height) return (void)fail("Illegal function call");
  std::vector<std::uint8_t> bytes;
  {
    std::shared_lock guard(fb.lock);
    bytes = encode_bmp24(fb.front + y0 * fb.pitch + x0, static_cast<std::uint32_t>(x1 - x0 + 1),
                         static_cast<std::uint32_t>(y1 - y0 + 1), fb.pitch);
  }
  (void)write_file(name, bytes.data(), bytes.size());
}

// BITBLT n, x, y [, sx, sy, w, h]: bitmap n (or the part from (sx, sy) of size
// w x h) onto the screen at frame pixel (x, y), clipped to the frame. Bitmap 0
// is the screen itself (the scene without sprites), so BITBLT 0 moves a
// rectangle of the screen; source and target may overlap.
void stmt_bitblt(const Token*& t) {
  ++t;
  std::int64_t n, x, y, sx = 0, sy = 0, w = 0, h = 0;
  if (!integer(t, &n) || !in_range(n, 0, kMaxBitmaps) || !comma(t) || !integer(t, &x) || !comma(t) ||
      !integer(t, &y))
    return;
  const bool part = t->kind == ',';
  if (part) {
    ++t;
    if (!integer(t, &sx) || !comma(t) || !integer(t, &sy) || !comma(t) || !integer(t, &w) || !comma(t) ||
        !integer(t, &h))
      return;
  }
  if (!end(t)) return;
  std::int64_t sw, sh;
  const std::uint32_t* src;
  std::vector<std::uint32_t> copy;
  if (n == 0) {
    sw = fb.width, sh = fb.height, src = fb.back;
  } else {
    if (!slots[n]) return (void)fail("Illegal function call");
    sw = slots[n]->w, sh = slots[n]->h, src = slots[n]->px.data();
  }
  if (!part) w = sw, h = sh;
  if (sx < 0 || sy < 0 || w < 0 || h < 0 || sx + w > sw || sy + h > sh) return (void)fail("Illegal function call");
  if (w == 0 || h == 0) return;
  if (n == 0) {
    // The screen onto itself: the source rectangle is taken first.
    copy.resize(static_cast<std::size_t>(w * h));
    for (std::int64_t row = 0; row < h; ++row)
      std::memcpy(&copy[static_cast<std::size_t>(row * w)], fb.back + (sy + row) * fb.pitch + sx, static_cast<std::size_t>(w) * 4);
    blit(copy.data(), w, w, h, x, y);
    return;
  }
  blit(src + sy * sw + sx, sw, w, h, x, y);
}

namespace {

using values::Value;

bool slot_arg(const Token*& t, std::int64_t* n) {
  Value a;
  return values::parse_args(t, &a, 1, 1) && values::arg_int(a, n) && in_range(*n, 1, kMaxBitmaps);
}

bool loaded_slot(const Token*& t, const Image** img) {
  std::int64_t n;
  if (!slot_arg(t, &n)) return false;
  if (!slots[n]) return fail("Illegal function call");
  *img = slots[n].get();
  return true;
}

}  // namespace

bool f_bmpwidth(const Token*& t, Value* out) {
  const Image* img = nullptr;
  if (!loaded_slot(t, &img)) return false;
  *out = Value::integer(img->w, values::kLong);
  return true;
}

bool f_bmpheight(const Token*& t, Value* out) {
  const Image* img = nullptr;
  if (!loaded_slot(t, &img)) return false;
  *out = Value::integer(img->h, values::kLong);
  return true;
}

bool f_bmploaded(const Token*& t, Value* out) {
  std::int64_t n;
  if (!slot_arg(t, &n)) return false;
  *out = Value::integer(slots[n] ? -1 : 0);
  return true;
}

}  // namespace screen
