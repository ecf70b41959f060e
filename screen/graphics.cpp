// Graphics state, coordinate mapping, clipped raster operations and the
// PSET/PRESET/LINE entry points (also used by compiled code and PARFOR).
#include "screen/graphics.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "core/errors.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "values/mathlib.h"
#include "values/store.h"

namespace screen {

GraphicsState gfx;

namespace {

constexpr double kCoordLimit = 2147483647.0;

bool fail(const char* m) {
  core::raise(m);
  return false;
}

}  // namespace

void reset_graphics() {
  gfx = GraphicsState{};
  gfx.last_x = static_cast<double>(fb.width / 2);
  gfx.last_y = static_cast<double>(fb.height / 2);
}

// The viewport in frame pixels: VIEW's rectangle or the whole frame.
static void viewport(std::int64_t* x0, std::int64_t* y0, std::int64_t* x1, std::int64_t* y1) {
  if (gfx.view) {
    *x0 = gfx.vx0, *y0 = gfx.vy0, *x1 = gfx.vx1, *y1 = gfx.vy1;
  } else {
    *x0 = 0, *y0 = 0, *x1 = static_cast<std::int64_t>(fb.width) - 1, *y1 = static_cast<std::int64_t>(fb.height) - 1;
  }
}

void logical_to_frame(double x, double y, double* px, double* py) {
  std::int64_t vx0, vy0, vx1, vy1;
  viewport(&vx0, &vy0, &vx1, &vy1);
  if (gfx.window) {
    // The window's corners land on the viewport's corner pixels.
    *px = static_cast<double>(vx0) + (x - gfx.wx0) * static_cast<double>(vx1 - vx0) / (gfx.wx1 - gfx.wx0);
    const double fy = (y - gfx.wy0) * static_cast<double>(vy1 - vy0) / (gfx.wy1 - gfx.wy0);
    *py = gfx.window_screen ? static_cast<double>(vy0) + fy : static_cast<double>(vy1) - fy;
    return;
  }
  if (gfx.view && !gfx.view_screen) {
    *px = x + static_cast<double>(vx0);
    *py = y + static_cast<double>(vy0);
    return;
  }
  *px = x;
  *py = y;
}

void frame_to_logical(double px, double py, double* x, double* y) {
  std::int64_t vx0, vy0, vx1, vy1;
  viewport(&vx0, &vy0, &vx1, &vy1);
  if (gfx.window) {
    const double sx = vx1 > vx0 ? (gfx.wx1 - gfx.wx0) / static_cast<double>(vx1 - vx0) : 0;
    const double sy = vy1 > vy0 ? (gfx.wy1 - gfx.wy0) / static_cast<double>(vy1 - vy0) : 0;
    *x = gfx.wx0 + (px - static_cast<double>(vx0)) * sx;
    *y = gfx.window_screen ? gfx.wy0 + (py - static_cast<double>(vy0)) * sy
                           : gfx.wy0 + (static_cast<double>(vy1) - py) * sy;
    return;
  }
  if (gfx.view && !gfx.view_screen) {
    *x = px - static_cast<double>(vx0);
    *y = py - static_cast<double>(vy0);
    return;
  }
  *x = px;
  *y = py;
}

double window_x_scale() {
  if (!gfx.window) return 1.0;
  std::int64_t vx0, vy0, vx1, vy1;
  viewport(&vx0, &vy0, &vx1, &vy1);
  return static_cast<double>(vx1 - vx0) / (gfx.wx1 - gfx.wx0);
}

// A frame coordinate rounded the way the store rule rounds (halves away
// from zero); beyond +-2^31 it is "Overflow".
static bool round_coord(double v, std::int64_t* out) {
  if (!(v >= -kCoordLimit && v <= kCoordLimit)) return fail("Overflow");
  return values::float_to_int64(v, out);
}

bool to_pixel(double x, double y, std::int64_t* px, std::int64_t* py) {
  double fx, fy;
  logical_to_frame(x, y, &fx, &fy);
  return round_coord(fx, px) && round_coord(fy, py);
}

// --- canvas --------------------------------------------------------------------

void Canvas::touch(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1) {
  if (atomic) return;
  if (x0 < cx0) x0 = cx0;
  if (y0 < cy0) y0 = cy0;
  if (x1 > cx1) x1 = cx1;
  if (y1 > cy1) y1 = cy1;
  if (x0 > x1 || y0 > y1) return;
  if (bx1 < bx0) {
    bx0 = x0, by0 = y0, bx1 = x1, by1 = y1;
    return;
  }
  bx0 = std::min(bx0, x0);
  by0 = std::min(by0, y0);
  bx1 = std::max(bx1, x1);
  by1 = std::max(by1, y1);
}

void Canvas::put(std::int64_t x, std::int64_t y, std::uint32_t c) {
  if (!inside(x, y)) return;
  const std::int64_t at = y * pitch + x;
  if (atomic) {
    // Workers may meet on a pixel; the last store wins, as in any order.
    std::atomic_ref<std::uint32_t>(back[at]).store(c, std::memory_order_relaxed);
    std::atomic_ref<std::uint32_t>(front[at]).store(c, std::memory_order_relaxed);
    return;
  }
  back[at] = c;
  front[at] = c;
}

void Canvas::put_xor(std::int64_t x, std::int64_t y, std::uint32_t c) {
  if (!inside(x, y)) return;
  const std::int64_t at = y * pitch + x;
  const std::uint32_t v = (back[at] ^ c) & 0xFFFFFF;
  back[at] = v;
  front[at] = v;
}

void Canvas::span(std::int64_t x0, std::int64_t x1, std::int64_t y, std::uint32_t c) {
  if (y < cy0 || y > cy1) return;
  if (x0 > x1) std::swap(x0, x1);
  if (x0 < cx0) x0 = cx0;
  if (x1 > cx1) x1 = cx1;
  if (x0 > x1) return;
  const std::int64_t at = y * pitch + x0;
  if (atomic) {
    for (std::int64_t i = 0; i <= x1 - x0; ++i) {
      std::atomic_ref<std::uint32_t>(back[at + i]).store(c, std::memory_order_relaxed);
      std::atomic_ref<std::uint32_t>(front[at + i]).store(c, std::memory_order_relaxed);
    }
    return;
  }
  std::fill_n(back + at, x1 - x0 + 1, c);
  std::fill_n(front + at, x1 - x0 + 1, c);
}

void Canvas::fill_rect(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, std::uint32_t c,
                       bool xor_mode) {
  if (x0 > x1) std::swap(x0, x1);
  if (y0 > y1) std::swap(y0, y1);
  if (y0 < cy0) y0 = cy0;
  if (y1 > cy1) y1 = cy1;
  for (std::int64_t y = y0; y <= y1; ++y) {
    if (!xor_mode) {
      span(x0, x1, y, c);
      continue;
    }
    for (std::int64_t x = std::max(x0, cx0); x <= std::min(x1, cx1); ++x) put_xor(x, y, c);
  }
  touch(x0, y0, x1, y1);
}

Canvas full_canvas() {
  Canvas c;
  c.front = fb.front;
  c.back = fb.back;
  c.pitch = fb.pitch;
  if (fb.front) {
    c.cx1 = static_cast<std::int64_t>(fb.width) - 1;
    c.cy1 = static_cast<std::int64_t>(fb.height) - 1;
  }
  return c;
}

Canvas frame_canvas() {
  Canvas c = full_canvas();
  if (gfx.view) {
    c.cx0 = std::max(c.cx0, gfx.vx0);
    c.cy0 = std::max(c.cy0, gfx.vy0);
    c.cx1 = std::min(c.cx1, gfx.vx1);
    c.cy1 = std::min(c.cy1, gfx.vy1);
  }
  return c;
}

void commit(const Canvas& c) {
  if (c.bx1 < c.bx0) return;
  mark_rect(c.bx0, c.by0, c.bx1 + 1, c.by1 + 1);
  settle_frame();
}

// --- lines -----------------------------------------------------------------------

// Bresenham's line, stepped only over the part of the major axis that can be
// inside the clip rectangle; the pixel at step i is the one the unclipped line
// puts there, so a clipped line matches the visible part of the whole one.
void raster_line(Canvas& c, std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, std::uint32_t colour,
                 LineStyle* style, bool xor_mode) {
  const std::int64_t dx = x1 - x0, dy = y1 - y0;
  const std::int64_t adx = dx < 0 ? -dx : dx, ady = dy < 0 ? -dy : dy;
  const bool x_major = adx >= ady;
  const std::int64_t major = x_major ? adx : ady, minor = x_major ? ady : adx;
  const std::int64_t smaj = (x_major ? dx : dy) < 0 ? -1 : 1, smin = (x_major ? dy : dx) < 0 ? -1 : 1;
  const std::int64_t maj0 = x_major ? x0 : y0, min0 = x_major ? y0 : x0;
  const std::int64_t lo = x_major ? c.cx0 : c.cy0, hi = x_major ? c.cx1 : c.cy1;
  // Steps i in [0, major] whose major coordinate lies in [lo, hi].
  std::int64_t i0 = 0, i1 = major;
  if (smaj > 0) {
    i0 = std::max<std::int64_t>(i0, lo - maj0);
    i1 = std::min<std::int64_t>(i1, hi - maj0);
  } else {
    i0 = std::max<std::int64_t>(i0, maj0 - hi);
    i1 = std::min<std::int64_t>(i1, maj0 - lo);
  }
  if (i0 > i1) {
    if (style && style->on) style->step += static_cast<unsigned>((major + 1) & 15);
    return;
  }
  if (style && style->on) style->step += static_cast<unsigned>(i0 & 15);
  // Minor offset at step i: q(i) = floor((2*i*minor + major) / (2*major)),
  // which never decreases; narrow [i0, i1] further to the steps whose minor
  // coordinate lies in the clip rectangle too, so the loop needs no test.
  const std::int64_t mlo = x_major ? c.cy0 : c.cx0, mhi = x_major ? c.cy1 : c.cx1;
  const std::int64_t qa = smin > 0 ? mlo - min0 : min0 - mhi, qb = smin > 0 ? mhi - min0 : min0 - mlo;
  const __int128 den = 2 * static_cast<__int128>(major);
  auto ceil_div = [](__int128 n, __int128 d) { return n / d + (n % d > 0 ? 1 : 0); };
  std::int64_t j0 = i0, j1 = i1;
  if (minor == 0) {
    if (qa > 0 || qb < 0) j1 = j0 - 1;
  } else {
    const __int128 lo_i = ceil_div(den * qa - major, 2 * static_cast<__int128>(minor));
    const __int128 hi_i = ceil_div(den * (static_cast<__int128>(qb) + 1) - major, 2 * static_cast<__int128>(minor)) - 1;
    if (lo_i > j0) j0 = static_cast<std::int64_t>(std::min<__int128>(lo_i, static_cast<__int128>(i1) + 1));
    if (hi_i < j1) j1 = static_cast<std::int64_t>(std::max<__int128>(hi_i, static_cast<__int128>(i0) - 1));
  }
  if (style && style->on) style->step += static_cast<unsigned>((j0 - i0) & 15);
  if (j0 <= j1) {
    __int128 num = 2 * static_cast<__int128>(j0) * minor + major;
    std::int64_t q = major ? static_cast<std::int64_t>(num / den) : 0;
    std::int64_t r = major ? static_cast<std::int64_t>(num % den) : 0;
    const std::int64_t d2 = static_cast<std::int64_t>(den), m2 = 2 * minor;
    const std::int64_t pitch = c.pitch;
    std::uint32_t* const back = c.back;
    std::uint32_t* const front = c.front;
    // One loop per kind of write, so that the plain one carries no tests.
    auto walk = [&](auto plot) {
      for (std::int64_t i = j0; i <= j1; ++i) {
        const std::int64_t a = maj0 + smaj * i, b = min0 + smin * q;
        plot(x_major ? b * pitch + a : a * pitch + b);
        r += m2;
        if (r >= d2) {
          r -= d2;
          ++q;
        }
      }
    };
    auto styled = [&]() {
      return !(style && style->on) || ((style->bits >> (15 - (style->step++ & 15))) & 1);
    };
    if (xor_mode) {
      walk([&](std::int64_t at) {
        if (!styled()) return;
        const std::uint32_t v = (back[at] ^ colour) & 0xFFFFFF;
        back[at] = v;
        front[at] = v;
      });
    } else if (c.atomic) {
      walk([&](std::int64_t at) {
        if (!styled()) return;
        std::atomic_ref<std::uint32_t>(back[at]).store(colour, std::memory_order_relaxed);
        std::atomic_ref<std::uint32_t>(front[at]).store(colour, std::memory_order_relaxed);
      });
    } else if (style && style->on) {
      walk([&](std::int64_t at) {
        if (!styled()) return;
        back[at] = colour;
        front[at] = colour;
      });
    } else {
      walk([&](std::int64_t at) {
        back[at] = colour;
        front[at] = colour;
      });
    }
    // The first and last steps drawn bound everything between them.
    const std::int64_t a0 = maj0 + smaj * j0, a1 = maj0 + smaj * j1;
    const std::int64_t b0 = min0 + smin * static_cast<std::int64_t>((2 * static_cast<__int128>(j0) * minor + major) / (major ? den : 1));
    const std::int64_t b1 = min0 + smin * static_cast<std::int64_t>((2 * static_cast<__int128>(j1) * minor + major) / (major ? den : 1));
    if (x_major) c.touch(std::min(a0, a1), std::min(b0, b1), std::max(a0, a1), std::max(b0, b1));
    else c.touch(std::min(b0, b1), std::min(a0, a1), std::max(b0, b1), std::max(a0, a1));
  }
  if (style && style->on) style->step += static_cast<unsigned>((major - std::max(j1, j0 - 1)) & 15);
}

void raster_box(Canvas& c, std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, std::uint32_t colour,
                LineStyle* style, bool xor_mode) {
  if (x0 > x1) std::swap(x0, x1);
  if (y0 > y1) std::swap(y0, y1);
  // Each pixel once, so that XOR boxes undo themselves: the top and bottom
  // rows whole, the sides without their corners.
  raster_line(c, x0, y0, x1, y0, colour, style, xor_mode);
  if (y1 > y0) {
    if (y1 - y0 > 1) raster_line(c, x1, y0 + 1, x1, y1 - 1, colour, style, xor_mode);
    raster_line(c, x1, y1, x0, y1, colour, style, xor_mode);
    if (y1 - y0 > 1) raster_line(c, x0, y1 - 1, x0, y0 + 1, colour, style, xor_mode);
  }
}

// --- ellipses ------------------------------------------------------------------

namespace {

constexpr double kTwoPi = 6.283185307179586;

// Angle of (dx, -dy) in [0, 2pi): screen rows grow downwards, angles go
// counter-clockwise with y up.
double angle_of(double dx, double dy) {
  double a = values::atan2_own(-dy, dx);
  if (a < 0) a += kTwoPi;
  return a;
}

bool in_arc(const Arc& arc, std::int64_t dx, std::int64_t dy) {
  if (!arc.on) return true;
  if (dx == 0 && dy == 0) return true;
  const double a = angle_of(static_cast<double>(dx), static_cast<double>(dy));
  if (arc.start <= arc.end) return a >= arc.start && a <= arc.end;
  return a >= arc.start || a <= arc.end;
}

std::int64_t round_half_up(double v) { return static_cast<std::int64_t>(values::floor_own(v + 0.5)); }

// Offsets k in [0, limit] for which centre + k or centre - k falls in [lo, hi].
template <typename F>
void visible_offsets(std::int64_t centre, std::int64_t limit, std::int64_t lo, std::int64_t hi, F&& f) {
  // centre + k in [lo, hi]  <=> k in [lo - centre, hi - centre]
  // centre - k in [lo, hi]  <=> k in [centre - hi, centre - lo]
  const std::int64_t a0 = std::max<std::int64_t>(0, lo - centre), a1 = std::min(limit, hi - centre);
  const std::int64_t b0 = std::max<std::int64_t>(0, centre - hi), b1 = std::min(limit, centre - lo);
  if (a0 <= a1 && b0 <= b1 && b0 <= a1 + 1 && a0 <= b1 + 1) {
    for (std::int64_t k = std::min(a0, b0); k <= std::max(a1, b1); ++k) f(k);
    return;
  }
  for (std::int64_t k = a0; k <= a1; ++k) f(k);
  for (std::int64_t k = b0; k <= b1; ++k) f(k);
}

}  // namespace

// The outline is the union of one point per row (steep parts) and one point
// per column (flat parts), mirrored into the four quadrants; only rows and
// columns that can reach the clip rectangle are visited, so a huge circle
// costs what it shows.
void raster_ellipse(Canvas& c, std::int64_t cx, std::int64_t cy, double rx, double ry, std::uint32_t colour,
                    const Arc& arc) {
  const std::int64_t rxi = round_half_up(rx), ryi = round_half_up(ry);
  auto plot4 = [&](std::int64_t dx, std::int64_t dy) {
    const std::int64_t px[2] = {dx, -dx}, py[2] = {dy, -dy};
    for (int i = 0; i < (dx ? 2 : 1); ++i)
      for (int j = 0; j < (dy ? 2 : 1); ++j)
        if (c.inside(cx + px[i], cy + py[j]) && in_arc(arc, px[i], py[j])) c.put(cx + px[i], cy + py[j], colour);
  };
  if (rxi == 0 || ryi == 0) {
    // Degenerate: a horizontal or vertical run (a point for radius 0).
    if (ryi == 0)
      visible_offsets(cx, rxi, c.cx0, c.cx1, [&](std::int64_t k) { plot4(k, 0); });
    else
      visible_offsets(cy, ryi, c.cy0, c.cy1, [&](std::int64_t k) { plot4(0, k); });
  } else {
    visible_offsets(cy, ryi, c.cy0, c.cy1, [&](std::int64_t dy) {
      const double t = static_cast<double>(dy) / ry;
      const double s = 1.0 - t * t;
      plot4(round_half_up(rx * (s > 0 ? std::sqrt(s) : 0.0)), dy);
    });
    visible_offsets(cx, rxi, c.cx0, c.cx1, [&](std::int64_t dx) {
      const double t = static_cast<double>(dx) / rx;
      const double s = 1.0 - t * t;
      plot4(dx, round_half_up(ry * (s > 0 ? std::sqrt(s) : 0.0)));
    });
  }
  c.touch(cx - rxi, cy - ryi, cx + rxi, cy + ryi);
  if (arc.on && (arc.pie_start || arc.pie_end)) {
    const double ends[2] = {arc.start, arc.end};
    const bool pies[2] = {arc.pie_start, arc.pie_end};
    for (int i = 0; i < 2; ++i) {
      if (!pies[i]) continue;
      double s = 0, co = 1;
      (void)values::sincos_raw(ends[i], &s, &co);
      raster_line(c, cx, cy, cx + round_half_up(rx * co), cy - round_half_up(ry * s), colour, nullptr, false);
    }
  }
}

// --- flood fill -----------------------------------------------------------------

namespace {

// One byte per frame pixel: 1 once the fill has reached it. Kept between
// calls so that a PAINT costs no allocation.
std::vector<std::uint8_t> paint_seen;

struct Seed {
  std::int64_t x, y;
};

}  // namespace

// Scanline fill: each popped seed grows into the whole run of its row, and
// the rows above and below are searched only under that run, so the fill is
// 4-connected and does not leak through diagonal gaps in a border.
void raster_paint(Canvas& c, std::int64_t x, std::int64_t y, std::uint32_t paint, std::uint32_t border) {
  if (!c.inside(x, y)) return;
  // Rows of the whole frame width, so that both rows are indexed by frame x.
  const std::int64_t w = c.cx1 + 1;
  paint_seen.assign(static_cast<std::size_t>(w * (c.cy1 - c.cy0 + 1)), 0);
  border &= 0xFFFFFF;
  auto seen_row = [&](std::int64_t py) { return paint_seen.data() + (py - c.cy0) * w; };
  auto back_row = [&](std::int64_t py) { return c.back + py * c.pitch; };
  if (seen_row(y)[x] || (back_row(y)[x] & 0xFFFFFF) == border) return;
  std::vector<Seed> stack;
  stack.push_back({x, y});
  std::int64_t bx0 = x, bx1 = x, by0 = y, by1 = y;
  while (!stack.empty()) {
    const Seed s = stack.back();
    stack.pop_back();
    std::uint8_t* seen = seen_row(s.y);
    const std::uint32_t* back = back_row(s.y);
    if (seen[s.x] || (back[s.x] & 0xFFFFFF) == border) continue;
    std::int64_t l = s.x, r = s.x;
    while (l > c.cx0 && !seen[l - 1] && (back[l - 1] & 0xFFFFFF) != border) --l;
    while (r < c.cx1 && !seen[r + 1] && (back[r + 1] & 0xFFFFFF) != border) ++r;
    std::memset(seen + l, 1, static_cast<std::size_t>(r - l + 1));
    c.span(l, r, s.y, paint);
    bx0 = std::min(bx0, l), bx1 = std::max(bx1, r);
    by0 = std::min(by0, s.y), by1 = std::max(by1, s.y);
    for (const std::int64_t ny : {s.y - 1, s.y + 1}) {
      if (ny < c.cy0 || ny > c.cy1) continue;
      const std::uint8_t* nseen = seen_row(ny);
      const std::uint32_t* nback = back_row(ny);
      for (std::int64_t nx = l; nx <= r; ++nx) {
        if (nseen[nx] || (nback[nx] & 0xFFFFFF) == border) continue;
        // One seed for each run of open pixels under the span.
        stack.push_back({nx, ny});
        while (nx < r && !nseen[nx + 1] && (nback[nx + 1] & 0xFFFFFF) != border) ++nx;
      }
    }
  }
  c.touch(bx0, by0, bx1, by1);
}

// --- polygons --------------------------------------------------------------------

void raster_polygon(Canvas& c, const std::vector<std::int64_t>& xs, const std::vector<std::int64_t>& ys,
                    std::uint32_t colour) {
  const std::size_t n = xs.size();
  if (n == 0) return;
  std::int64_t ymin = ys[0], ymax = ys[0];
  for (std::size_t i = 1; i < n; ++i) ymin = std::min(ymin, ys[i]), ymax = std::max(ymax, ys[i]);
  ymin = std::max(ymin, c.cy0);
  ymax = std::min(ymax, c.cy1);
  std::vector<double> cross;
  for (std::int64_t y = ymin; y <= ymax; ++y) {
    // Pixel centres are the integer points. Crossings of row y with every
    // edge (half-open in y, so a vertex shared by two edges counts once),
    // filled pairwise over the centres x with a <= x < b.
    const double yc = static_cast<double>(y);
    cross.clear();
    for (std::size_t i = 0; i < n; ++i) {
      const std::size_t j = (i + 1) % n;
      const double ya = static_cast<double>(ys[i]), yb = static_cast<double>(ys[j]);
      if ((ya <= yc) == (yb <= yc)) continue;
      const double xa = static_cast<double>(xs[i]), xb = static_cast<double>(xs[j]);
      cross.push_back(xa + (yc - ya) * (xb - xa) / (yb - ya));
    }
    std::sort(cross.begin(), cross.end());
    for (std::size_t k = 0; k + 1 < cross.size(); k += 2) {
      const double a = -values::floor_own(-cross[k]), b = -values::floor_own(-cross[k + 1]) - 1;
      const double lo = std::max(a, static_cast<double>(c.cx0)), hi = std::min(b, static_cast<double>(c.cx1));
      if (lo <= hi) c.span(static_cast<std::int64_t>(lo), static_cast<std::int64_t>(hi), y, colour);
    }
  }
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t j = (i + 1) % n;
    raster_line(c, xs[i], ys[i], xs[j], ys[j], colour, nullptr, false);
  }
  std::int64_t xmin = xs[0], xmax = xs[0];
  for (std::size_t i = 1; i < n; ++i) xmin = std::min(xmin, xs[i]), xmax = std::max(xmax, xs[i]);
  c.touch(xmin, ymin, xmax, ymax);
}

// --- entry points ------------------------------------------------------------------

bool resolve_colour(const GfxColour& c, std::uint32_t fallback, std::uint32_t* rgb) {
  if (c.count == 0) {
    *rgb = fallback;
    return true;
  }
  if (c.count == 3) {
    for (int i = 0; i < 3; ++i)
      if (c.v[i] < 0 || c.v[i] > 255) return fail("Illegal function call");
    *rgb = static_cast<std::uint32_t>(c.v[0] << 16 | c.v[1] << 8 | c.v[2]);
    return true;
  }
  if (!colour_from_number(c.v[0], rgb)) return fail("Illegal function call");
  return true;
}

void resolve_point(const GfxPoint& p, double* x, double* y) {
  *x = p.step ? gfx.last_x + p.x : p.x;
  *y = p.step ? gfx.last_y + p.y : p.y;
}

bool visit_point(const GfxPoint& p, std::int64_t* px, std::int64_t* py) {
  double x, y;
  resolve_point(p, &x, &y);
  if (!to_pixel(x, y, px, py)) return false;
  gfx.last_x = x;
  gfx.last_y = y;
  return true;
}

bool draw_pset(const GfxPoint& p, const GfxColour& colour, bool preset) {
  std::uint32_t rgb;
  std::int64_t px, py;
  if (!resolve_colour(colour, preset ? con.bg : con.fg, &rgb) || !visit_point(p, &px, &py)) return false;
  Canvas c = frame_canvas();
  if (!c.inside(px, py)) return true;
  c.put(px, py, rgb);
  c.touch(px, py, px, py);
  commit(c);
  return true;
}

namespace {

bool line_style(const GfxLine& line, LineStyle* style) {
  if (!line.has_style) return true;
  if (line.style < -32768 || line.style > 65535) return fail("Overflow");
  style->on = true;
  style->bits = static_cast<std::uint16_t>(line.style);
  return true;
}

void rasterize_line(Canvas& c, std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, std::uint32_t rgb,
                    const GfxLine& line, LineStyle* style) {
  if (line.box == kBoxFilled) c.fill_rect(x0, y0, x1, y1, rgb, line.xor_mode);
  else if (line.box == kBoxOutline) raster_box(c, x0, y0, x1, y1, rgb, style, line.xor_mode);
  else raster_line(c, x0, y0, x1, y1, rgb, style, line.xor_mode);
}

}  // namespace

bool draw_line(const GfxLine& line) {
  std::uint32_t rgb;
  if (!resolve_colour(line.colour, con.fg, &rgb)) return false;
  LineStyle style;
  if (!line_style(line, &style)) return false;
  double x0 = gfx.last_x, y0 = gfx.last_y, x1, y1;
  if (line.has_start) resolve_point(line.from, &x0, &y0);
  // STEP on the end point counts from the start point just given.
  x1 = line.to.step ? x0 + line.to.x : line.to.x;
  y1 = line.to.step ? y0 + line.to.y : line.to.y;
  std::int64_t px0, py0, px1, py1;
  if (!to_pixel(x0, y0, &px0, &py0) || !to_pixel(x1, y1, &px1, &py1)) return false;
  gfx.last_x = x1;
  gfx.last_y = y1;
  Canvas c = frame_canvas();
  rasterize_line(c, px0, py0, px1, py1, rgb, line, &style);
  commit(c);
  return true;
}

// --- parallel drawing ----------------------------------------------------------------

namespace {

struct ParallelSnapshot {
  bool on = false;
  std::uint32_t* front = nullptr;
  std::uint32_t* back = nullptr;
  std::uint32_t width = 0, height = 0, generation = 0;
  double last_x = 0, last_y = 0;
};
ParallelSnapshot par;

constexpr const char* kStateChanged = "PARFOR graphics state changed";

// Same checks as the interpreter's paths, as messages instead of raises.
const char* par_colour(const GfxColour& c, std::uint32_t* rgb) {
  if (c.count == 3) {
    for (int i = 0; i < 3; ++i)
      if (c.v[i] < 0 || c.v[i] > 255) return "Illegal function call";
    *rgb = static_cast<std::uint32_t>(c.v[0] << 16 | c.v[1] << 8 | c.v[2]);
    return nullptr;
  }
  if (c.count != 1 || !colour_from_number(c.v[0], rgb)) return "Illegal function call";
  return nullptr;
}

const char* par_pixel(double v, std::int64_t* out) {
  if (!(v >= -kCoordLimit && v <= kCoordLimit)) return "Overflow";
  *out = static_cast<std::int64_t>(v < 0 ? -values::floor_own(-v + 0.5) : values::floor_own(v + 0.5));
  return nullptr;
}

const char* par_canvas(Canvas* c) {
  if (!par.on || fb.front != par.front || fb.back != par.back || fb.width != par.width || fb.height != par.height ||
      fb.generation.load(std::memory_order_relaxed) != par.generation || gfx.view || gfx.window)
    return kStateChanged;
  c->front = par.front;
  c->back = par.back;
  c->pitch = par.width;
  c->cx0 = c->cy0 = 0;
  c->cx1 = static_cast<std::int64_t>(par.width) - 1;
  c->cy1 = static_cast<std::int64_t>(par.height) - 1;
  c->atomic = true;
  return nullptr;
}

}  // namespace

bool begin_parallel_drawing() {
  if (gfx.view || gfx.window) return fail("Illegal function call");
  par.on = true;
  par.front = fb.front;
  par.back = fb.back;
  par.width = fb.width;
  par.height = fb.height;
  par.generation = fb.generation.load();
  par.last_x = gfx.last_x;
  par.last_y = gfx.last_y;
  return true;
}

void end_parallel_drawing() {
  if (!par.on) return;
  par.on = false;
  mark_rect(0, 0, fb.width, fb.height);
  settle_frame();
}

const char* parallel_pset(const GfxPoint& p, const GfxColour& colour, bool preset) {
  (void)preset;  // the colour is explicit in parallel code
  Canvas c;
  std::uint32_t rgb;
  std::int64_t x, y;
  if (const char* e = par_canvas(&c)) return e;
  if (const char* e = par_colour(colour, &rgb)) return e;
  if (const char* e = par_pixel(p.step ? par.last_x + p.x : p.x, &x)) return e;
  if (const char* e = par_pixel(p.step ? par.last_y + p.y : p.y, &y)) return e;
  c.put(x, y, rgb);
  return nullptr;
}

const char* parallel_line(const GfxLine& line) {
  if (line.xor_mode) return "PARFOR LINE XOR is not supported; use FOR";
  Canvas c;
  std::uint32_t rgb;
  if (const char* e = par_canvas(&c)) return e;
  if (const char* e = par_colour(line.colour, &rgb)) return e;
  LineStyle style;
  if (line.has_style) {
    if (line.style < -32768 || line.style > 65535) return "Overflow";
    style.on = true;
    style.bits = static_cast<std::uint16_t>(line.style);
  }
  const double x0 = line.has_start ? (line.from.step ? par.last_x + line.from.x : line.from.x) : par.last_x;
  const double y0 = line.has_start ? (line.from.step ? par.last_y + line.from.y : line.from.y) : par.last_y;
  std::int64_t px0, py0, px1, py1;
  if (const char* e = par_pixel(x0, &px0)) return e;
  if (const char* e = par_pixel(y0, &py0)) return e;
  if (const char* e = par_pixel(line.to.step ? x0 + line.to.x : line.to.x, &px1)) return e;
  if (const char* e = par_pixel(line.to.step ? y0 + line.to.y : line.to.y, &py1)) return e;
  rasterize_line(c, px0, py0, px1, py1, rgb, line, &style);
  return nullptr;
}

}  // namespace screen
