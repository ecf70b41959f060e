// Parsing of the drawing statements into the entry points of graphics.cpp,
// the coordinate statements WINDOW and VIEW, graphics GET/PUT, POINT and
// the argument helpers the bitmap and sprite statements share.
#include "screen/graphics_statements.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "core/errors.h"
#include "core/exec.h"
#include "core/input.h"
#include "core/program.h"
#include "host/platform.h"
#include "screen/bitmaps.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/gfx_args.h"
#include "screen/graphics.h"
#include "screen/sprites.h"
#include "values/arrays.h"
#include "values/builtins.h"
#include "values/eval.h"
#include "values/memory.h"
#include "values/store.h"

namespace screen {

// --- shared argument helpers ---------------------------------------------------------

namespace gfxarg {

bool fail(const char* message) {
  core::raise(message);
  return false;
}

bool is_word(const Token* t, const char* word) { return t->kind == core::kTokIdent && std::strcmp(t->name(), word) == 0; }

bool end(const Token* t) {
  if (core::at_statement_end(t)) return true;
  return fail("Syntax error");
}

bool comma(const Token*& t) { return values::expect(t, ',', "Expected ,"); }

bool integer(const Token*& t, std::int64_t* out) { return values::eval_int64(t, out); }

bool number(const Token*& t, double* out) { return values::eval_double(t, out); }

bool text(const Token*& t, values::Value* out) {
  if (!values::eval(t, out)) return false;
  if (out->type != values::kString) return fail("Type mismatch");
  return true;
}

bool point_ahead(const Token* t) { return t->kind == '(' || t->kind == core::KW_STEP; }

bool point(const Token*& t, GfxPoint* out) {
  out->step = t->kind == core::KW_STEP;
  if (out->step) ++t;
  return values::expect(t, '(', "Expected (") && number(t, &out->x) && comma(t) && number(t, &out->y) &&
         values::expect(t, ')', "Expected )");
}

bool pixel_rect(const Token*& t, const Canvas& clip, PixelRect* out) {
  GfxPoint a, b;
  if (!point(t, &a) || !values::expect(t, '-', "Syntax error") || !point(t, &b)) return false;
  double x0, y0;
  resolve_point(a, &x0, &y0);
  out->end_x = b.step ? x0 + b.x : b.x;
  out->end_y = b.step ? y0 + b.y : b.y;
  if (!to_pixel(x0, y0, &out->x0, &out->y0) || !to_pixel(out->end_x, out->end_y, &out->x1, &out->y1)) return false;
  if (out->x0 > out->x1) std::swap(out->x0, out->x1);
  if (out->y0 > out->y1) std::swap(out->y0, out->y1);
  if (!clip.inside(out->x0, out->y0) || !clip.inside(out->x1, out->y1)) return fail("Illegal function call");
  return true;
}

bool colour(const Token*& t, std::uint32_t* rgb) {
  std::int64_t n;
  if (!integer(t, &n)) return false;
  if (!colour_from_number(n, rgb)) return fail("Illegal function call");
  return true;
}

bool in_range(std::int64_t v, std::int64_t lo, std::int64_t hi) {
  if (v >= lo && v <= hi) return true;
  return fail("Illegal function call");
}

bool file_name(const Token*& t, std::string* out) {
  values::Value v;
  return text(t, &v) && core::check_file_name(v.s.ptr, v.s.len, out);
}

bool read_file(const std::string& name, std::string* bytes) {
  if (host::path_kind(name) != 1) return fail("File not found");
  std::FILE* f = host::open_file(name, "rb");
  if (!f) return fail("Permission denied");
  const std::int64_t size = host::file_length(f);
  bool ok = size >= 0;
  if (ok) {
    try {
      bytes->assign(static_cast<std::size_t>(size), '\0');
    } catch (...) {
      std::fclose(f);
      return fail("Out of memory");
    }
    ok = std::fread(bytes->data(), 1, bytes->size(), f) == bytes->size();
  }
  std::fclose(f);
  if (!ok) return fail("Disk I/O error");
  return true;
}

bool write_file(const std::string& name, const void* data, std::size_t size) {
  if (host::path_kind(name) == 2) return fail("Permission denied");
  std::FILE* f = host::open_file(name, "wb");
  if (!f) return fail("Path not found");
  bool ok = std::fwrite(data, 1, size, f) == size;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) return fail("Disk I/O error");
  return true;
}

}  // namespace gfxarg

using namespace gfxarg;

namespace {

// ",colour" or ",r,g,b" after a point (PSET, PRESET).
bool colour_fields(const Token*& t, GfxColour* c) {
  c->count = 0;
  if (t->kind != ',') return true;
  ++t;
  if (!integer(t, &c->v[0])) return false;
  c->count = 1;
  if (t->kind != ',') return true;
  ++t;
  if (!integer(t, &c->v[1]) || !comma(t) || !integer(t, &c->v[2])) return false;
  c->count = 3;
  return true;
}

void pset_statement(const Token*& t, bool preset) {
  ++t;
  GfxPoint p;
  GfxColour c;
  if (!point(t, &p) || !colour_fields(t, &c) || !end(t)) return;
  (void)draw_pset(p, c, preset);
}

}  // namespace

void stmt_pset(const Token*& t) { pset_statement(t, false); }
void stmt_preset(const Token*& t) { pset_statement(t, true); }

namespace {

// The comma fields after LINE's coordinates, each empty, a number, B, BF or
// XOR (last only): [colour | r,g,b] [, [B|BF] [, style]] [, XOR].
struct LineField {
  enum Kind { kEmpty, kNumber, kB, kBF, kXor } kind;
  std::int64_t v;
};

bool line_fields(const Token*& t, GfxLine* line) {
  std::vector<LineField> f;
  while (t->kind == ',') {
    ++t;
    LineField x{LineField::kEmpty, 0};
    if (core::at_statement_end(t) || t->kind == ',') {
    } else if ((is_word(t, "B") || is_word(t, "BF")) && (t[1].kind == ',' || core::at_statement_end(t + 1))) {
      x.kind = t->name()[1] ? LineField::kBF : LineField::kB;
      ++t;
    } else if (t->kind == core::KW_XOR) {
      x.kind = LineField::kXor;
      ++t;
    } else {
      if (!integer(t, &x.v)) return false;
      x.kind = LineField::kNumber;
    }
    f.push_back(x);
  }
  if (!end(t)) return false;
  if (!f.empty() && f.back().kind == LineField::kXor) {
    line->xor_mode = true;
    f.pop_back();
  }
  std::size_t i = 0;
  auto is = [&](std::size_t k, LineField::Kind kind) { return k < f.size() && f[k].kind == kind; };
  if (is(0, LineField::kNumber) && is(1, LineField::kNumber) && is(2, LineField::kNumber)) {
    line->colour.count = 3;
    for (int k = 0; k < 3; ++k) line->colour.v[k] = f[static_cast<std::size_t>(k)].v;
    i = 3;
  } else if (is(0, LineField::kNumber) || is(0, LineField::kEmpty)) {
    if (is(0, LineField::kNumber)) {
      line->colour.count = 1;
      line->colour.v[0] = f[0].v;
    }
    i = 1;
  }
  if (i < f.size()) {
    if (is(i, LineField::kB)) line->box = kBoxOutline;
    else if (is(i, LineField::kBF)) line->box = kBoxFilled;
    else if (!is(i, LineField::kEmpty)) return fail("Syntax error");
    ++i;
  }
  if (i < f.size()) {
    if (is(i, LineField::kNumber)) {
      line->has_style = true;
      line->style = f[i].v;
    } else if (!is(i, LineField::kEmpty)) {
      return fail("Syntax error");
    }
    ++i;
  }
  if (i < f.size()) return fail("Syntax error");
  return true;
}

}  // namespace

// LINE [[STEP](x1,y1)]-[STEP](x2,y2) [, [colour | r,g,b] [, [B|BF] [, style]]] [, XOR]
void stmt_line_graphics(const Token*& t) {
  ++t;
  GfxLine line;
  if (point_ahead(t)) {
    if (!point(t, &line.from)) return;
    line.has_start = true;
  }
  if (!values::expect(t, '-', "Syntax error") || !point(t, &line.to) || !line_fields(t, &line)) return;
  (void)draw_line(line);
}

namespace {

constexpr double kTwoPi = 6.283185307179586;

// An optional field: absent at the end or when the next token is ",".
bool optional_field(const Token* t) { return !core::at_statement_end(t) && t->kind != ','; }

bool next_field(const Token*& t) {
  if (t->kind != ',') return false;
  ++t;
  return true;
}

bool arc_angle(double a, double* out, bool* pie) {
  if (!(a >= -kTwoPi && a <= kTwoPi)) return fail("Illegal function call");
  *pie = a < 0;
  *out = a < 0 ? -a : a;
  return true;
}

}  // namespace

// CIRCLE [STEP](x,y), r [, [colour] [, [start] [, [end] [, aspect]]]]
void stmt_circle(const Token*& t) {
  ++t;
  GfxPoint c;
  double r;
  if (!point(t, &c) || !comma(t) || !number(t, &r)) return;
  std::uint32_t rgb = con.fg;
  Arc arc;
  double start = 0, stop = kTwoPi, aspect = 1;
  bool have_start = false, have_end = false;
  if (next_field(t) && optional_field(t) && !colour(t, &rgb)) return;
  if (next_field(t) && optional_field(t)) {
    double a;
    if (!number(t, &a) || !arc_angle(a, &start, &arc.pie_start)) return;
    have_start = true;
  }
  if (next_field(t) && optional_field(t)) {
    double a;
    if (!number(t, &a) || !arc_angle(a, &stop, &arc.pie_end)) return;
    have_end = true;
  }
  if (next_field(t) && !number(t, &aspect)) return;
  if (!end(t)) return;
  if (r < 0 || !(aspect > 0)) return (void)fail("Illegal function call");
  arc.on = have_start || have_end;
  arc.start = start;
  arc.end = stop;
  double scale = window_x_scale();
  if (scale < 0) scale = -scale;
  const double rp = r * scale;
  const double rx = aspect < 1 ? rp : rp / aspect, ry = aspect < 1 ? rp * aspect : rp;
  if (!(rx <= 2147483647.0 && ry <= 2147483647.0)) return (void)fail("Overflow");
  std::int64_t px, py;
  if (!visit_point(c, &px, &py)) return;
  Canvas cv = frame_canvas();
  raster_ellipse(cv, px, py, rx, ry, rgb, arc);
  commit(cv);
}

// PAINT [STEP](x,y) [, [paint] [, border]]: the border defaults to the paint colour.
void stmt_paint(const Token*& t) {
  ++t;
  GfxPoint p;
  if (!point(t, &p)) return;
  std::uint32_t paint = con.fg, border;
  if (next_field(t) && optional_field(t) && !colour(t, &paint)) return;
  border = paint;
  if (next_field(t) && !colour(t, &border)) return;
  if (!end(t)) return;
  std::int64_t px, py;
  if (!visit_point(p, &px, &py)) return;
  Canvas cv = frame_canvas();
  raster_paint(cv, px, py, paint, border);
  commit(cv);
}

namespace {

constexpr std::size_t kMaxPolygonPoints = 65536;

// A numeric array named at t, optionally followed by "()": its descriptor.
const values::Descriptor* numeric_array(const Token*& t) {
  if (t->kind != core::kTokIdent) {
    fail("Expected array");
    return nullptr;
  }
  const char* name = t->name();
  const values::Descriptor* d = values::find_descriptor(name, true, values::type_of_name(name));
  ++t;
  if (t->kind == '(' && t[1].kind == ')') t += 2;
  if (!d || !d->array_block()) {
    fail("Array not dimensioned");
    return nullptr;
  }
  if (!values::is_numeric_type(d->type)) {
    fail("Type mismatch");
    return nullptr;
  }
  return d;
}

bool array_number(const values::Descriptor* d, std::int64_t index, double* out) {
  const void* slot = values::array_element(d, &index, 1);
  return slot && values::value_to_double(values::load_value(slot, d->type), out);
}

}  // namespace

// POLYFILL [STEP](x,y) - [STEP](x,y) - ... [, colour]
// POLYFILL xs(), ys(), count [, colour]
void stmt_polyfill(const Token*& t) {
  ++t;
  std::vector<double> lx, ly;
  std::uint32_t rgb = con.fg;
  if (point_ahead(t)) {
    double x = gfx.last_x, y = gfx.last_y;
    for (;;) {
      GfxPoint p;
      if (!point(t, &p)) return;
      x = p.step ? x + p.x : p.x;
      y = p.step ? y + p.y : p.y;
      if (lx.size() == kMaxPolygonPoints) return (void)fail("Illegal function call");
      lx.push_back(x);
      ly.push_back(y);
      if (t->kind != '-') break;
      ++t;
    }
  } else {
    const values::Descriptor* dx = numeric_array(t);
    if (!dx || !comma(t)) return;
    const values::Descriptor* dy = numeric_array(t);
    std::int64_t n;
    if (!dy || !comma(t) || !integer(t, &n)) return;
    if (values::array_dims(dx) != 1 || values::array_dims(dy) != 1) return (void)fail("Wrong number of subscripts");
    if (!in_range(n, 1, static_cast<std::int64_t>(kMaxPolygonPoints))) return;
    for (std::int64_t i = 0; i < n; ++i) {
      double x, y;
      if (!array_number(dx, values::option_base + i, &x) || !array_number(dy, values::option_base + i, &y)) return;
      lx.push_back(x);
      ly.push_back(y);
    }
  }
  if (next_field(t) && !colour(t, &rgb)) return;
  if (!end(t)) return;
  std::vector<std::int64_t> xs(lx.size()), ys(ly.size());
  for (std::size_t i = 0; i < lx.size(); ++i)
    if (!to_pixel(lx[i], ly[i], &xs[i], &ys[i])) return;
  gfx.last_x = lx.back();
  gfx.last_y = ly.back();
  Canvas cv = frame_canvas();
  raster_polygon(cv, xs, ys, rgb);
  commit(cv);
}

namespace {

void centre_last_point() {
  std::int64_t x0 = 0, y0 = 0, x1 = static_cast<std::int64_t>(fb.width) - 1, y1 = static_cast<std::int64_t>(fb.height) - 1;
  if (gfx.view) x0 = gfx.vx0, y0 = gfx.vy0, x1 = gfx.vx1, y1 = gfx.vy1;
  frame_to_logical(static_cast<double>(x0 + x1) / 2, static_cast<double>(y0 + y1) / 2, &gfx.last_x, &gfx.last_y);
}

bool corners(const Token*& t, double* x0, double* y0, double* x1, double* y1) {
  GfxPoint a, b;
  if (!point(t, &a) || !values::expect(t, '-', "Syntax error") || !point(t, &b)) return false;
  if (a.step || b.step) return fail("Syntax error");
  *x0 = a.x < b.x ? a.x : b.x;
  *x1 = a.x < b.x ? b.x : a.x;
  *y0 = a.y < b.y ? a.y : b.y;
  *y1 = a.y < b.y ? b.y : a.y;
  return true;
}

// The start shared by WINDOW and VIEW: the bare form switches the state off
// (false returned, nothing more to do), else [SCREEN] and two corners.
bool rect_form(const Token*& t, bool* state, bool* screen_form, double* x0, double* y0, double* x1, double* y1) {
  ++t;
  if (core::at_statement_end(t)) {
    *state = false;
    centre_last_point();
    return false;
  }
  *screen_form = t->kind == core::KW_SCREEN;
  if (*screen_form) ++t;
  return corners(t, x0, y0, x1, y1);
}

}  // namespace

// WINDOW [[SCREEN] (x1,y1)-(x2,y2)]
void stmt_window(const Token*& t) {
  bool screen_form;
  double x0, y0, x1, y1;
  if (!rect_form(t, &gfx.window, &screen_form, &x0, &y0, &x1, &y1) || !end(t)) return;
  if (x0 == x1 || y0 == y1) return (void)fail("Illegal function call");
  gfx.window = true;
  gfx.window_screen = screen_form;
  gfx.wx0 = x0, gfx.wy0 = y0, gfx.wx1 = x1, gfx.wy1 = y1;
  centre_last_point();
}

// VIEW [[SCREEN] (x1,y1)-(x2,y2) [, [fill] [, border]]]: frame pixels.
void stmt_view_graphics(const Token*& t) {
  bool screen_form;
  double x0, y0, x1, y1;
  if (!rect_form(t, &gfx.view, &screen_form, &x0, &y0, &x1, &y1)) return;
  bool fill = false, frame = false;
  std::uint32_t fill_rgb = 0, border_rgb = 0;
  if (next_field(t) && optional_field(t)) {
    if (!colour(t, &fill_rgb)) return;
    fill = true;
  }
  if (next_field(t)) {
    if (!colour(t, &border_rgb)) return;
    frame = true;
  }
  if (!end(t)) return;
  std::int64_t ix0, iy0, ix1, iy1;
  if (!values::float_to_int64(x0, &ix0) || !values::float_to_int64(y0, &iy0) || !values::float_to_int64(x1, &ix1) ||
      !values::float_to_int64(y1, &iy1))
    return;
  if (ix0 < 0 || iy0 < 0 || ix1 >= fb.width || iy1 >= fb.height) return (void)fail("Illegal function call");
  gfx.view = true;
  gfx.view_screen = screen_form;
  gfx.vx0 = ix0, gfx.vy0 = iy0, gfx.vx1 = ix1, gfx.vy1 = iy1;
  Canvas cv = full_canvas();
  if (fill) cv.fill_rect(ix0, iy0, ix1, iy1, fill_rgb);
  if (frame) raster_box(cv, ix0 - 1, iy0 - 1, ix1 + 1, iy1 + 1, border_rgb, nullptr, false);
  commit(cv);
  centre_last_point();
}

void clear_screen_part(int part) {
  if (part == 2) {
    clear_region();
    return;
  }
  if (part == 0) {
    for (int r = 0; r < kMaxRows; ++r) {
      std::memset(con.cells[r], ' ', kMaxCols);
      for (int c = 0; c < kMaxCols; ++c) {
        con.cell_colours[r][c] = con.fg;
        con.cell_backgrounds[r][c] = con.bg;
      }
      con.row_continued[r] = 0;
    }
  }
  Canvas cv = part == 0 ? full_canvas() : frame_canvas();
  cv.fill_rect(cv.cx0, cv.cy0, cv.cx1, cv.cy1, con.bg);
  commit(cv);
  if (part == 0) {
    const Region r = text_region();
    con.row = r.top;
    con.col = r.left;
    centre_last_point();
  }
}

// --- graphics GET and PUT ----------------------------------------------------------
//
// The array holds the block as raw memory, whatever its numeric type: a
// 16-bit width and height, then the pixels as 32-bit 0x00RRGGBB, row by row.
// An INTEGER array of 2 + 2*w*h elements holds a w x h block, A%(0) being
// the width and A%(1) the height.

bool is_graphics_get_put(const Token* t) { return point_ahead(t + 1); }

namespace {

// The bytes from the named element (or the first one) to the array's end.
bool array_bytes(const Token*& t, std::uint8_t** at, std::uint64_t* available) {
  if (t->kind != core::kTokIdent) return fail("Expected array");
  const char* name = t->name();
  const values::Descriptor* d = values::find_descriptor(name, true, values::type_of_name(name));
  ++t;
  if (!d || !d->array_block()) return fail("Array not dimensioned");
  if (!values::is_numeric_type(d->type)) return fail("Type mismatch");
  const int dims = values::array_dims(d);
  std::int64_t subs[values::kMaxDimensions];
  for (int i = 0; i < dims; ++i) subs[i] = values::option_base;
  if (t->kind == '(' && t[1].kind == ')') {
    t += 2;
  } else if (t->kind == '(') {
    int n;
    if (!values::parse_subscripts(t, subs, &n)) return false;
    if (n != dims) return fail("Wrong number of subscripts");
  }
  void* slot = values::array_element(d, subs, dims);
  if (!slot) return false;
  auto* block = static_cast<std::uint8_t*>(d->array_block());
  const std::uint64_t total = 8 + 8 * static_cast<std::uint64_t>(dims) + values::array_count(d) * values::slot_width(d->type);
  *at = static_cast<std::uint8_t*>(slot);
  *available = total - static_cast<std::uint64_t>(*at - block);
  return true;
}

}  // namespace

// GET [STEP](x1,y1)-[STEP](x2,y2), array[(subscripts)]
void stmt_graphics_get(const Token*& t) {
  ++t;
  PixelRect r;
  std::uint8_t* at;
  std::uint64_t available;
  if (!pixel_rect(t, frame_canvas(), &r) || !comma(t) || !array_bytes(t, &at, &available) || !end(t)) return;
  const std::uint64_t w = static_cast<std::uint64_t>(r.x1 - r.x0 + 1), h = static_cast<std::uint64_t>(r.y1 - r.y0 + 1);
  if (4 + 4 * w * h > available) return (void)fail("Illegal function call");
  const std::uint16_t head[2] = {static_cast<std::uint16_t>(w), static_cast<std::uint16_t>(h)};
  std::memcpy(at, head, 4);
  for (std::uint64_t row = 0; row < h; ++row)
    std::memcpy(at + 4 + row * w * 4, fb.back + (static_cast<std::uint64_t>(r.y0) + row) * fb.pitch + static_cast<std::uint64_t>(r.x0),
                w * 4);
  gfx.last_x = r.end_x;
  gfx.last_y = r.end_y;
}

// PUT [STEP](x,y), array[(subscripts)] [, PSET | PRESET | AND | OR | XOR]: XOR
// when no action is named, as in classic BASIC; clipped to the viewport.
void stmt_graphics_put(const Token*& t) {
  ++t;
  GfxPoint p;
  if (!point(t, &p) || !comma(t)) return;
  std::uint8_t* at;
  std::uint64_t available;
  if (!array_bytes(t, &at, &available)) return;
  std::uint8_t action = core::KW_XOR;
  if (t->kind == ',') {
    ++t;
    action = t->kind;
    if (action != core::KW_PSET && action != core::KW_PRESET && action != core::KW_AND && action != core::KW_OR &&
        action != core::KW_XOR)
      return (void)fail("Syntax error");
    ++t;
  }
  if (!end(t)) return;
  if (available < 4) return (void)fail("Illegal function call");
  std::uint16_t head[2];
  std::memcpy(head, at, 4);
  const std::uint64_t w = head[0], h = head[1];
  if (w == 0 || h == 0 || 4 + 4 * w * h > available) return (void)fail("Illegal function call");
  std::int64_t px, py;
  if (!visit_point(p, &px, &py)) return;
  Canvas cv = frame_canvas();
  for (std::uint64_t row = 0; row < h; ++row) {
    const std::int64_t yy = py + static_cast<std::int64_t>(row);
    if (yy < cv.cy0 || yy > cv.cy1) continue;
    const std::uint8_t* src = at + 4 + row * w * 4;
    for (std::uint64_t col = 0; col < w; ++col) {
      const std::int64_t xx = px + static_cast<std::int64_t>(col);
      if (xx < cv.cx0 || xx > cv.cx1) continue;
      std::uint32_t s;
      std::memcpy(&s, src + col * 4, 4);
      s &= 0xFFFFFF;
      const std::uint32_t d = fb.back[yy * cv.pitch + xx];
      std::uint32_t v = s;
      switch (action) {
        case core::KW_PRESET: v = ~s & 0xFFFFFF; break;
        case core::KW_AND: v = d & s; break;
        case core::KW_OR: v = d | s; break;
        case core::KW_XOR: v = (d ^ s) & 0xFFFFFF; break;
        default: break;
      }
      cv.put(xx, yy, v);
    }
  }
  cv.touch(px, py, px + static_cast<std::int64_t>(w) - 1, py + static_cast<std::int64_t>(h) - 1);
  commit(cv);
}

// --- session -------------------------------------------------------------------------

void reset_graphics_session() {
  reset_sprites();
  reset_bitmaps();
  reset_graphics();
}

namespace {

// A POKE into either buffer: the pixels it touched are made equal in both
// (the scene takes the new bytes) and the sprites are drawn over them again.
void framebuffer_poked(std::uint64_t address, int width) {
  const auto front = reinterpret_cast<std::uintptr_t>(fb.front), back = reinterpret_cast<std::uintptr_t>(fb.back);
  const std::uint64_t bytes = fb.pixel_count * 4;
  const bool in_front = address >= front && address < front + bytes;
  const bool in_back = address >= back && address < back + bytes;
  if (!in_front && !in_back) return;
  const std::uint64_t base = in_front ? front : back;
  const std::uint64_t first = (address - base) / 4;
  std::uint64_t last = (address - base + static_cast<std::uint64_t>(width) - 1) / 4;
  if (last >= fb.pixel_count) last = fb.pixel_count - 1;
  for (std::uint64_t i = first; i <= last; ++i) {
    if (in_front) fb.back[i] = fb.front[i];
    const std::int64_t x = static_cast<std::int64_t>(i % fb.pitch), y = static_cast<std::int64_t>(i / fb.pitch);
    refresh_rect(x, y, x + 1, y + 1);
  }
}

}  // namespace

void install_graphics_hooks() {
  core::line_graphics = stmt_line_graphics;
  values::poke_watch = framebuffer_poked;
  core::reset_graphics_state = reset_graphics_session;
  reset_graphics_session();
}

// --- functions -----------------------------------------------------------------------

namespace {

using values::Value;

// POINT(x, y): the pixel at a logical point as a palette number or
// &HRRGGBB, -1 outside the viewport. POINT(n): the last point, 0 and 1 in
// frame pixels, 2 and 3 in the program's coordinates.
bool f_point(const Token*& t, Value* out) {
  Value a[2];
  int n;
  if (!values::parse_args(t, a, 1, 2, &n)) return false;
  if (n == 1) {
    std::int64_t which;
    if (!values::arg_int(a[0], &which) || !in_range(which, 0, 3)) return false;
    if (which >= 2) {
      *out = Value::floating(which == 2 ? gfx.last_x : gfx.last_y, values::kDouble);
      return true;
    }
    double px, py;
    std::int64_t v;
    logical_to_frame(gfx.last_x, gfx.last_y, &px, &py);
    if (!values::float_to_int64(which == 0 ? px : py, &v)) return false;
    *out = Value::integer(v, values::kLong);
    return true;
  }
  double x, y;
  std::int64_t px, py;
  if (!values::value_to_double(a[0], &x) || !values::value_to_double(a[1], &y) || !to_pixel(x, y, &px, &py))
    return false;
  const Canvas cv = frame_canvas();
  *out = Value::integer(cv.inside(px, py) ? point_value(fb.back[py * cv.pitch + px]) : -1, values::kLong);
  return true;
}

// SCREENCHAR(row, col): the character code in a text cell, as SCREEN(row, col).
bool f_screenchar(const Token*& t, Value* out) {
  Value a[2];
  std::int64_t row, col;
  if (!values::parse_args(t, a, 2, 2) || !values::arg_int(a[0], &row) || !values::arg_int(a[1], &col)) return false;
  if (!in_range(row, 1, text_rows()) || !in_range(col, 1, text_columns())) return false;
  *out = Value::integer(con.cells[row - 1][col - 1], values::kInteger);
  return true;
}

}  // namespace

const values::Builtin kGraphicsFunctions[] = {
    {"BMPHEIGHT", f_bmpheight},       {"BMPLOADED", f_bmploaded},         {"BMPWIDTH", f_bmpwidth},
    {"POINT", f_point},               {"SCREENCHAR", f_screenchar},       {"SPRITECOLLIDE", f_spritecollide},
    {"SPRITEHEIGHT", f_spriteheight}, {"SPRITEKEYCOLOR", f_spritekeycolor}, {"SPRITELOADED", f_spriteloaded},
    {"SPRITEWIDTH", f_spritewidth},   {"SPRITEX", f_spritex},             {"SPRITEY", f_spritey},
};
const int kGraphicsFunctionCount = static_cast<int>(sizeof kGraphicsFunctions / sizeof kGraphicsFunctions[0]);

}  // namespace screen
