// Graphics primitives on the framebuffer: the coordinate state (last point,
// VIEW, WINDOW), clipped raster operations that write the back buffer and the
// logical framebuffer together, and the entry points that take already
// evaluated arguments (the statements and compiled code both call these).
#pragma once
#include <cstdint>
#include <vector>

namespace screen {

// --- coordinate state ------------------------------------------------------

struct GraphicsState {
  // VIEW: the viewport in frame pixels (inclusive). Without SCREEN the
  // coordinates a program gives are relative to its top-left corner.
  bool view = false;
  bool view_screen = false;
  std::int64_t vx0 = 0, vy0 = 0, vx1 = 0, vy1 = 0;
  // WINDOW: the logical rectangle mapped onto the viewport (sorted: x0 < x1,
  // y0 < y1). Without SCREEN the y axis points up.
  bool window = false;
  bool window_screen = false;
  double wx0 = 0, wy0 = 0, wx1 = 0, wy1 = 0;
  // The last point, in the program's (logical) coordinates: STEP is relative to it.
  double last_x = 0, last_y = 0;
  // DRAW's settings, kept from one DRAW to the next: colour (-1 for the
  // foreground), scale in quarter pixels, rotation in degrees.
  std::int64_t draw_colour = -1;
  std::int64_t draw_scale = 4;
  std::int64_t draw_angle = 0;
};
extern GraphicsState gfx;

// Back to no VIEW, no WINDOW and the last point in the middle of the frame
// (start-up, SCREEN, RUN).
void reset_graphics();

// Logical to frame pixels and back. The pixel form raises "Overflow" for a
// coordinate beyond +-2^31 and returns false.
void logical_to_frame(double x, double y, double* px, double* py);
void frame_to_logical(double px, double py, double* x, double* y);
[[nodiscard]] bool to_pixel(double x, double y, std::int64_t* px, std::int64_t* py);
// Horizontal scale from logical units to pixels (CIRCLE radii, DRAW is unscaled).
double window_x_scale();

// --- raster ----------------------------------------------------------------

// Where a primitive may write: both buffers, the clip rectangle (inclusive)
// and the bounding box of what it touched, for the dirty state.
struct Canvas {
  std::uint32_t* front = nullptr;
  std::uint32_t* back = nullptr;
  std::int64_t pitch = 0;
  std::int64_t cx0 = 0, cy0 = 0, cx1 = -1, cy1 = -1;
  bool atomic = false;  // PARFOR workers: relaxed atomic stores, no bounding box
  std::int64_t bx0 = 0, by0 = 0, bx1 = -1, by1 = -1;

  bool inside(std::int64_t x, std::int64_t y) const { return x >= cx0 && x <= cx1 && y >= cy0 && y <= cy1; }
  void touch(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1);
  void put(std::int64_t x, std::int64_t y, std::uint32_t c);
  void put_xor(std::int64_t x, std::int64_t y, std::uint32_t c);
  // A horizontal run x0..x1 on row y, clipped.
  void span(std::int64_t x0, std::int64_t x1, std::int64_t y, std::uint32_t c);
  void fill_rect(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, std::uint32_t c,
                 bool xor_mode = false);
};

// The canvas of the current frame clipped to the viewport (or the frame).
Canvas frame_canvas();
// The whole frame, ignoring VIEW.
Canvas full_canvas();
// Report what a canvas touched to the dirty state and recompose the sprites
// over it.
void commit(const Canvas& c);

// A line style: 16 bits used from bit 15 down, one bit per pixel step.
struct LineStyle {
  bool on = false;
  std::uint16_t bits = 0xFFFF;
  unsigned step = 0;
};

void raster_line(Canvas& c, std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, std::uint32_t colour,
                 LineStyle* style, bool xor_mode);
void raster_box(Canvas& c, std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, std::uint32_t colour,
                LineStyle* style, bool xor_mode);

// An ellipse outline with radii rx, ry around (cx, cy); with `arc` only the
// part from angle `start` to `end` (radians, counter-clockwise, y up), and a
// line to the centre from each end marked as a pie edge.
struct Arc {
  bool on = false;
  double start = 0, end = 0;
  bool pie_start = false, pie_end = false;
};
void raster_ellipse(Canvas& c, std::int64_t cx, std::int64_t cy, double rx, double ry, std::uint32_t colour,
                    const Arc& arc);

// Flood fill from (x, y) over every 4-connected pixel that is not `border`.
void raster_paint(Canvas& c, std::int64_t x, std::int64_t y, std::uint32_t paint, std::uint32_t border);

// A filled polygon (even-odd rule, pixel centres) with its outline.
void raster_polygon(Canvas& c, const std::vector<std::int64_t>& xs, const std::vector<std::int64_t>& ys,
                    std::uint32_t colour);

// --- entry points with evaluated arguments ------------------------------------

// A coordinate pair as the program gave it; `step` makes it relative to the last point.
struct GfxPoint {
  double x = 0, y = 0;
  bool step = false;
};

// A colour argument: none (count 0, the statement's default), a colour number
// (count 1: palette 0-15 or packed &HRRGGBB) or r,g,b (count 3, each 0-255).
struct GfxColour {
  int count = 0;
  std::int64_t v[3] = {0, 0, 0};
};

enum : std::uint8_t { kBoxNone = 0, kBoxOutline = 1, kBoxFilled = 2 };

struct GfxLine {
  bool has_start = false;  // false: from the last point (LINE -(x,y))
  GfxPoint from, to;
  GfxColour colour;
  std::uint8_t box = kBoxNone;
  bool has_style = false;
  std::int64_t style = 0;
  bool xor_mode = false;
};

// The point a GfxPoint names, in logical coordinates (STEP from the last point).
void resolve_point(const GfxPoint& p, double* x, double* y);

// The frame pixel of p, which becomes the last point; false after "Overflow".
[[nodiscard]] bool visit_point(const GfxPoint& p, std::int64_t* px, std::int64_t* py);

// The colour a GfxColour names, or `fallback` when it names none. Raises
// "Illegal function call" for a negative number or a component outside 0-255.
[[nodiscard]] bool resolve_colour(const GfxColour& c, std::uint32_t fallback, std::uint32_t* rgb);

// PSET/PRESET and LINE from evaluated arguments. PSET's default colour is the
// foreground, PRESET's the background. False after an error was raised.
[[nodiscard]] bool draw_pset(const GfxPoint& p, const GfxColour& colour, bool preset);
[[nodiscard]] bool draw_line(const GfxLine& line);

// --- parallel drawing (PARFOR workers) -------------------------------------------
//
// begin_parallel_drawing snapshots the graphics state on the interpreter
// thread; while it holds, parallel_pset and parallel_line may be called from
// any thread at once. They draw with an explicit colour in frame pixels
// (STEP is relative to the last point at the snapshot), change no shared
// state and return the error message instead of raising it (nullptr when the
// pixel work is done). end_parallel_drawing, on the interpreter thread again,
// marks the frame changed and recomposes the sprites.

// False (and "Illegal function call" raised) while WINDOW or VIEW is active.
[[nodiscard]] bool begin_parallel_drawing();
void end_parallel_drawing();
const char* parallel_pset(const GfxPoint& p, const GfxColour& colour, bool preset);
const char* parallel_line(const GfxLine& line);

}  // namespace screen
