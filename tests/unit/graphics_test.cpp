// Raster operations: clipping must not change which pixels a shape gets,
// circles stay on their radius and closed, PAINT does not leak through
// diagonal gaps, and the parallel drawing mode draws from many threads and
// notices a changed frame.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "core/errors.h"
#include "screen/framebuffer.h"
#include "screen/graphics.h"

using namespace screen;

namespace {

using Pixels = std::set<std::pair<std::int64_t, std::int64_t>>;

void clear_frame() {
  std::memset(fb.front, 0, fb.pixel_count * 4);
  std::memset(fb.back, 0, fb.pixel_count * 4);
}

Pixels lit(std::uint32_t colour, std::int64_t x0 = 0, std::int64_t y0 = 0, std::int64_t x1 = -1, std::int64_t y1 = -1) {
  if (x1 < 0) x1 = fb.width - 1, y1 = fb.height - 1;
  Pixels p;
  for (std::int64_t y = y0; y <= y1; ++y)
    for (std::int64_t x = x0; x <= x1; ++x)
      if (fb.back[y * fb.pitch + x] == colour) {
        EXPECT_EQ(fb.front[y * fb.pitch + x], colour) << "both buffers get every pixel";
        p.insert({x, y});
      }
  return p;
}

Canvas clipped(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1) {
  Canvas c = full_canvas();
  c.cx0 = x0, c.cy0 = y0, c.cx1 = x1, c.cy1 = y1;
  return c;
}

class Graphics : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(create_framebuffer(400, 300));
    reset_graphics();
    clear_frame();
  }
};

}  // namespace

TEST_F(Graphics, LinesKnownPixels) {
  Canvas c = full_canvas();
  raster_line(c, 0, 0, 4, 2, 7, nullptr, false);
  EXPECT_EQ(lit(7), (Pixels{{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}})) << "ties round towards the end point";
  clear_frame();
  raster_line(c, 5, 9, 5, 5, 7, nullptr, false);
  EXPECT_EQ(lit(7).size(), 5u);
  clear_frame();
  LineStyle style;
  style.on = true;
  style.bits = 0xC000;  // two on, fourteen off
  raster_line(c, 0, 0, 39, 0, 7, &style, false);
  EXPECT_EQ(lit(7), (Pixels{{0, 0}, {1, 0}, {16, 0}, {17, 0}, {32, 0}, {33, 0}}));
  clear_frame();
  raster_box(c, 10, 10, 12, 13, 5, nullptr, true);
  raster_box(c, 10, 10, 12, 13, 5, nullptr, true);
  EXPECT_TRUE(lit(5).empty()) << "an XOR box drawn twice leaves nothing: no pixel is drawn twice";
}

TEST_F(Graphics, ClippedLinesMatchTheVisiblePartOfTheWholeLine) {
  std::mt19937 rng(12345);
  std::uniform_int_distribution<int> coord(-150, 550);
  // The reference: the same line through a much larger clip rectangle (a
  // canvas of its own, the line shifted into it), cut to the small one.
  Canvas wide = full_canvas();
  std::vector<std::uint32_t> wf(1200 * 900, 0), wb(1200 * 900, 0);
  wide.front = wf.data();
  wide.back = wb.data();
  wide.pitch = 1200;
  wide.cx0 = wide.cy0 = 0;
  wide.cx1 = 1199, wide.cy1 = 899;
  for (int n = 0; n < 1500; ++n) {
    const std::int64_t x0 = coord(rng), y0 = coord(rng) / 2, x1 = coord(rng), y1 = coord(rng) / 2;
    Canvas small = clipped(120, 80, 260, 190);
    LineStyle s1;
    s1.on = n % 3 == 0;
    s1.bits = 0xF0C3;
    LineStyle s2 = {s1.on, s1.bits, 0};
    raster_line(small, x0, y0, x1, y1, 9, &s1, false);
    raster_line(wide, x0 + 300, y0 + 300, x1 + 300, y1 + 300, 9, &s2, false);
    const Pixels got = lit(9, 120, 80, 260, 190);
    Pixels want;
    for (std::int64_t y = 80; y <= 190; ++y)
      for (std::int64_t x = 120; x <= 260; ++x)
        if (wb[static_cast<std::size_t>((y + 300) * 1200 + x + 300)] == 9) want.insert({x, y});
    ASSERT_EQ(got, want) << "line " << x0 << "," << y0 << " - " << x1 << "," << y1;
    EXPECT_EQ(s1.step & 15, s2.step & 15) << "the style advances over clipped pixels too";
    // Erase both by drawing the lines again in black.
    raster_line(small, x0, y0, x1, y1, 0, nullptr, false);
    raster_line(wide, x0 + 300, y0 + 300, x1 + 300, y1 + 300, 0, nullptr, false);
  }
}

TEST_F(Graphics, CirclesStayOnTheRadiusAreClosedAndClipExactly) {
  for (const double r : {1.0, 2.0, 5.0, 10.0, 37.0, 120.0}) {
    clear_frame();
    Canvas c = full_canvas();
    raster_ellipse(c, 200, 150, r, r, 3, Arc{});
    const Pixels p = lit(3);
    for (const auto& [x, y] : p) {
      const double d = std::sqrt(static_cast<double>((x - 200) * (x - 200) + (y - 150) * (y - 150)));
      EXPECT_LT(std::fabs(d - r), 0.75) << "r " << r << " at " << x << "," << y;
      int neighbours = 0;
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
          if ((dx || dy) && p.count({x + dx, y + dy})) ++neighbours;
      EXPECT_GE(neighbours, 2) << "r " << r << ": the outline is closed at " << x << "," << y;
    }
    EXPECT_TRUE(p.count({200 + static_cast<std::int64_t>(r), 150})) << "the right-most point";
    EXPECT_TRUE(p.count({200, 150 - static_cast<std::int64_t>(r)})) << "the top";
  }
  // Clipped circles (and a huge one whose centre is far away) draw exactly
  // the pixels of the whole circle that fall inside the clip.
  for (const auto& [cx, cy, r] : std::vector<std::tuple<int, int, double>>{{30, 40, 70}, {390, 290, 150}, {200, -5000, 6400}}) {
    clear_frame();
    Canvas c = clipped(50, 50, 349, 249);
    raster_ellipse(c, cx, cy, r, r * 0.8, 4, Arc{});
    const Pixels got = lit(4);
    Pixels want;
    Canvas wide = full_canvas();
    std::vector<std::uint32_t> wf(1000 * 600, 0), wb(1000 * 600, 0);
    wide.front = wf.data(), wide.back = wb.data(), wide.pitch = 1000;
    wide.cx0 = 0, wide.cy0 = 0, wide.cx1 = 999, wide.cy1 = 599;
    // A larger clip rectangle of its own, the circle shifted by (300, 200).
    raster_ellipse(wide, cx + 300, cy + 200, r, r * 0.8, 4, Arc{});
    for (std::int64_t y = 50; y <= 249; ++y)
      for (std::int64_t x = 50; x <= 349; ++x)
        if (wb[static_cast<std::size_t>((y + 200) * 1000 + x + 300)] == 4) want.insert({x, y});
    EXPECT_EQ(got, want) << "circle at " << cx << "," << cy;
    EXPECT_FALSE(got.empty());
  }
}

TEST_F(Graphics, ArcsKeepTheirAngles) {
  Canvas c = full_canvas();
  Arc arc;
  arc.on = true;
  arc.start = 0;
  arc.end = 1.5707963267948966;  // the first quadrant, counter-clockwise, y up
  raster_ellipse(c, 100, 100, 40, 40, 6, arc);
  for (const auto& [x, y] : lit(6)) {
    EXPECT_GE(x, 100);
    EXPECT_LE(y, 100);
  }
  EXPECT_TRUE(lit(6).count({140, 100}));
  EXPECT_TRUE(lit(6).count({100, 60}));
  clear_frame();
  arc.pie_start = arc.pie_end = true;
  raster_ellipse(c, 100, 100, 40, 40, 6, arc);
  for (int k = 0; k <= 40; ++k) {
    EXPECT_TRUE(lit(6).count({100 + k, 100})) << "the pie's edge along the start angle";
    EXPECT_TRUE(lit(6).count({100, 100 - k})) << "and along the end angle";
  }
}

TEST_F(Graphics, PaintIsStoppedByDiagonalBordersAndFillsOnlyItsSide) {
  Canvas c = full_canvas();
  // A one-pixel diagonal wall from corner to corner of a 100 x 100 square:
  // diagonal neighbours touch across it, but PAINT moves only sideways and
  // up and down.
  raster_box(c, 0, 0, 99, 99, 15, nullptr, false);
  raster_line(c, 0, 0, 99, 99, 15, nullptr, false);
  raster_paint(c, 90, 10, 2, 15);
  const Pixels painted = lit(2, 0, 0, 99, 99);
  EXPECT_EQ(painted.size(), 98u * 97u / 2u) << "the upper-right triangle inside the box";
  for (const auto& [x, y] : painted) EXPECT_GT(x, y);
  EXPECT_TRUE(lit(2, 101, 0, 399, 299).empty()) << "nothing outside the box";
  // A border of another colour, and a region holding the paint colour
  // already: PAINT passes over it.
  clear_frame();
  raster_box(c, 200, 100, 260, 160, 12, nullptr, false);
  c.fill_rect(220, 120, 230, 130, 2);
  raster_paint(c, 201, 101, 2, 12);
  EXPECT_EQ(lit(2, 200, 100, 260, 160).size(), 59u * 59u);
  // A seed on the border paints nothing.
  clear_frame();
  raster_box(c, 10, 10, 20, 20, 12, nullptr, false);
  raster_paint(c, 10, 15, 2, 12);
  EXPECT_TRUE(lit(2).empty());
}

TEST_F(Graphics, PolygonsFillTheirInsideAndOutline) {
  Canvas c = full_canvas();
  raster_polygon(c, {10, 20, 20, 10}, {10, 10, 20, 20}, 5);
  EXPECT_EQ(lit(5).size(), 121u) << "the square 10..20 with its edges";
  clear_frame();
  // A five-pointed star: even-odd leaves the pentagon in the middle empty.
  std::vector<std::int64_t> xs, ys;
  for (int i = 0; i < 5; ++i) {
    const int k = (i * 2) % 5;
    const double a = -1.5707963267948966 + k * 2 * 3.141592653589793 / 5;
    xs.push_back(200 + static_cast<std::int64_t>(std::lround(100 * std::cos(a))));
    ys.push_back(150 + static_cast<std::int64_t>(std::lround(100 * std::sin(a))));
  }
  raster_polygon(c, xs, ys, 5);
  EXPECT_EQ(fb.back[150 * fb.pitch + 200], 0u) << "the centre is outside by the even-odd rule";
  EXPECT_EQ(fb.back[70 * fb.pitch + 200], 5u) << "the top point is filled";
}

TEST_F(Graphics, WindowAndViewMapLogicalCoordinates) {
  std::int64_t x, y;
  gfx.view = true;
  gfx.vx0 = 100, gfx.vy0 = 50, gfx.vx1 = 299, gfx.vy1 = 249;
  ASSERT_TRUE(to_pixel(10, 20, &x, &y));
  EXPECT_EQ(std::make_pair(x, y), std::make_pair(std::int64_t{110}, std::int64_t{70})) << "VIEW without SCREEN is relative";
  gfx.view_screen = true;
  ASSERT_TRUE(to_pixel(10, 20, &x, &y));
  EXPECT_EQ(std::make_pair(x, y), std::make_pair(std::int64_t{10}, std::int64_t{20}));
  gfx.window = true;
  gfx.wx0 = -1, gfx.wy0 = -1, gfx.wx1 = 1, gfx.wy1 = 1;
  ASSERT_TRUE(to_pixel(-1, -1, &x, &y));
  EXPECT_EQ(std::make_pair(x, y), std::make_pair(std::int64_t{100}, std::int64_t{249})) << "y points up";
  ASSERT_TRUE(to_pixel(1, 1, &x, &y));
  EXPECT_EQ(std::make_pair(x, y), std::make_pair(std::int64_t{299}, std::int64_t{50}));
  double lx, ly;
  frame_to_logical(299, 50, &lx, &ly);
  EXPECT_DOUBLE_EQ(lx, 1);
  EXPECT_DOUBLE_EQ(ly, 1);
  gfx.window_screen = true;
  ASSERT_TRUE(to_pixel(-1, -1, &x, &y));
  EXPECT_EQ(y, 50) << "WINDOW SCREEN keeps y pointing down";
  gfx.window = false;
  gfx.view = false;
  EXPECT_FALSE(to_pixel(3e9, 0, &x, &y)) << "coordinates beyond 2^31 are Overflow";
}

TEST_F(Graphics, ParallelDrawingFromManyThreads) {
  ASSERT_TRUE(begin_parallel_drawing());
  std::vector<std::thread> workers;
  std::vector<const char*> errors(8, nullptr);
  for (int w = 0; w < 8; ++w) {
    workers.emplace_back([w, &errors] {
      for (int y = w; y < 300; y += 8) {
        GfxPoint p;
        p.x = 5, p.y = y;
        GfxColour c;
        c.count = 3, c.v[0] = 255, c.v[1] = w, c.v[2] = 0;
        if (const char* e = parallel_pset(p, c, false)) errors[static_cast<std::size_t>(w)] = e;
        GfxLine l;
        l.has_start = true;
        l.from.x = 10, l.from.y = y, l.to.x = 390, l.to.y = y;
        l.colour.count = 1, l.colour.v[0] = 14;
        if (const char* e = parallel_line(l)) errors[static_cast<std::size_t>(w)] = e;
      }
    });
  }
  for (auto& t : workers) t.join();
  end_parallel_drawing();
  for (const char* e : errors) EXPECT_EQ(e, nullptr);
  for (int y = 0; y < 300; ++y) {
    ASSERT_EQ(fb.back[y * fb.pitch + 5], 0xFF0000u | static_cast<std::uint32_t>(y % 8) << 8);
    ASSERT_EQ(fb.front[y * fb.pitch + 390], 0xFFFF55u);
  }
  GfxLine x;
  x.to.x = 3, x.to.y = 3, x.colour.count = 1, x.xor_mode = true;
  ASSERT_TRUE(begin_parallel_drawing());
  EXPECT_STREQ(parallel_line(x), "PARFOR LINE XOR is not supported; use FOR");
  GfxColour none;
  EXPECT_STREQ(parallel_pset(GfxPoint{}, none, false), "Illegal function call") << "workers need an explicit colour";
  // A frame replaced under the workers' feet.
  ASSERT_TRUE(create_framebuffer(320, 200));
  GfxColour one;
  one.count = 1;
  EXPECT_STREQ(parallel_pset(GfxPoint{}, one, false), "PARFOR graphics state changed");
  end_parallel_drawing();
  gfx.window = true;
  gfx.wx1 = gfx.wy1 = 1;
  EXPECT_FALSE(begin_parallel_drawing()) << "WINDOW is shared coordinate state";
  EXPECT_TRUE(core::err.flag);
  core::clear_error_flag();
  gfx.window = false;
}
