// DRAW: the classic graphics macro language.
//
//   U D L R E F G H [n]   move n units (1 when left out) up, down, left, right
//                         or diagonally (E up-right, F down-right, G down-left,
//                         H up-left), drawing
//   M x,y                 move to (x, y); M +x,y or M -x,y moves relative
//   B prefix              move without drawing;  N prefix  return afterwards
//   A n                   turn n * 90 degrees (0-3);  TA n  turn n degrees
//   C n                   colour;  S n  scale, n/4 pixels per unit (1-255)
//   P paint,border        flood fill at the pen
//   X expr;               run the string expr names as a DRAW string
//   n may be written =expr; to take a number from a variable or expression.
//
// Turning and scaling apply to U..H and relative M moves. Coordinates are
// frame pixels (relative to a VIEW without SCREEN); WINDOW does not scale
// them. The pen starts at the last point and leaves it where it ends.
#include <cctype>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "core/tokenizer.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/gfx_args.h"
#include "screen/graphics.h"
#include "screen/graphics_statements.h"
#include "values/eval.h"
#include "values/mathlib.h"
#include "values/store.h"

namespace screen {

namespace {

constexpr int kMaxDepth = 16;  // X inside X inside ...

class Macro {
 public:
  Canvas cv = frame_canvas();
  double pen_x = 0, pen_y = 0;

  bool run(const std::string& s, int depth) {
    if (depth > kMaxDepth) return bad();
    std::size_t i = 0;
    bool no_draw = false, go_back = false;
    for (;;) {
      while (i < s.size() && (s[i] == ' ' || s[i] == ';' || s[i] == '\t')) ++i;
      if (i >= s.size()) return true;
      const char c = static_cast<char>(std::toupper(static_cast<unsigned char>(s[i++])));
      switch (c) {
        case 'B': no_draw = true; continue;
        case 'N': go_back = true; continue;
        case 'U': case 'D': case 'L': case 'R': case 'E': case 'F': case 'G': case 'H': {
          double n = 1;
          if (number_follows(s, i) && !number(s, i, &n)) return false;
          static const char kDirs[] = "UDLREFGH";
          static const int kDx[] = {0, 0, -1, 1, 1, 1, -1, -1}, kDy[] = {-1, 1, 0, 0, -1, 1, 1, -1};
          const int k = static_cast<int>(std::strchr(kDirs, c) - kDirs);
          if (!move_relative(kDx[k] * n, kDy[k] * n, no_draw, go_back)) return false;
          break;
        }
        case 'M': {
          skip_blanks(s, i);
          const bool relative = i < s.size() && (s[i] == '+' || s[i] == '-');
          double x, y;
          if (!number(s, i, &x)) return false;
          skip_blanks(s, i);
          if (i >= s.size() || s[i] != ',') return bad();
          ++i;
          if (!number(s, i, &y)) return false;
          if (relative) {
            if (!move_relative(x, y, no_draw, go_back)) return false;
          } else {
            double ox = 0, oy = 0;
            if (gfx.view && !gfx.view_screen) ox = static_cast<double>(gfx.vx0), oy = static_cast<double>(gfx.vy0);
            if (!move_to(ox + x, oy + y, no_draw, go_back)) return false;
          }
          break;
        }
        case 'A': case 'T': {
          if (c == 'T') {
            if (i >= s.size() || std::toupper(static_cast<unsigned char>(s[i])) != 'A') return bad();
            ++i;
          }
          std::int64_t n;
          if (!integer(s, i, &n)) return false;
          if (c == 'A' ? n < 0 || n > 3 : n < -360 || n > 360) return bad();
          gfx.draw_angle = c == 'A' ? n * 90 : n;
          break;
        }
        case 'C': {
          std::int64_t n;
          std::uint32_t rgb;
          if (!integer(s, i, &n)) return false;
          if (!colour_from_number(n, &rgb)) return bad();
          gfx.draw_colour = rgb;
          break;
        }
        case 'S': {
          std::int64_t n;
          if (!integer(s, i, &n)) return false;
          if (n < 1 || n > 255) return bad();
          gfx.draw_scale = n;
          break;
        }
        case 'P': {
          std::int64_t paint, border;
          std::uint32_t prgb, brgb;
          if (!integer(s, i, &paint)) return false;
          skip_blanks(s, i);
          if (i >= s.size() || s[i] != ',') return bad();
          ++i;
          if (!integer(s, i, &border)) return false;
          if (!colour_from_number(paint, &prgb) || !colour_from_number(border, &brgb)) return bad();
          std::int64_t x, y;
          if (!pixel(pen_x, &x) || !pixel(pen_y, &y)) return false;
          raster_paint(cv, x, y, prgb, brgb);
          break;
        }
        case 'X': {
          values::Value v;
          if (!expression(s, i, &v)) return false;
          if (v.type != values::kString) return core::raise("Type mismatch"), false;
          if (!run(std::string(v.s.ptr, v.s.len), depth + 1)) return false;
          break;
        }
        default:
          return bad();
      }
      no_draw = go_back = false;
    }
  }

 private:
  static bool bad() {
    core::raise("Illegal function call");
    return false;
  }

  static void skip_blanks(const std::string& s, std::size_t& i) {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
  }

  static bool number_follows(const std::string& s, std::size_t i) {
    skip_blanks(s, i);
    return i < s.size() && (std::isdigit(static_cast<unsigned char>(s[i])) || s[i] == '=' || s[i] == '+' || s[i] == '-');
  }

  // The text up to the next ";" evaluated as a BASIC expression, as EVAL does.
  static bool expression(const std::string& s, std::size_t& i, values::Value* out) {
    const std::size_t semi = s.find(';', i);
    if (semi == std::string::npos || semi == i || semi - i > 255) return bad();
    char text[256];
    std::memcpy(text, s.data() + i, semi - i);
    text[semi - i] = 0;
    i = semi + 1;
    const int n = core::tokenize(text);
    if (core::err.flag) return false;
    core::Token tokens[core::kMaxTokens + 1];
    std::memcpy(tokens, core::scratch_tokens, sizeof(core::Token) * static_cast<std::size_t>(n));
    const core::Token* t = tokens;
    if (!values::eval(t, out)) return false;
    if (t->kind != core::kTokEnd) return bad();
    // A string that points into `text` must outlive this frame.
    if (out->type == values::kString && out->s.ptr >= text && out->s.ptr < text + sizeof text)
      return values::make_string(out->s.ptr, out->s.len, out);
    return true;
  }

  // [+|-] digits, or =expr;
  static bool number(const std::string& s, std::size_t& i, double* out) {
    skip_blanks(s, i);
    if (i < s.size() && s[i] == '=') {
      ++i;
      values::Value v;
      return expression(s, i, &v) && values::value_to_double(v, out);
    }
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    skip_blanks(s, i);
    if (i >= s.size() || !std::isdigit(static_cast<unsigned char>(s[i]))) return bad();
    double v = 0;
    int digits = 0;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) {
      if (++digits > 10) return core::raise("Overflow"), false;
      v = v * 10 + (s[i++] - '0');
    }
    *out = negative ? -v : v;
    return true;
  }

  static bool integer(const std::string& s, std::size_t& i, std::int64_t* out) {
    double v;
    return number(s, i, &v) && values::float_to_int64(v, out);
  }

  static bool pixel(double v, std::int64_t* out) {
    if (!(v >= -2147483647.0 && v <= 2147483647.0)) return core::raise("Overflow"), false;
    return values::float_to_int64(v, out);
  }

  // A displacement in units, scaled and turned.
  bool move_relative(double dx, double dy, bool no_draw, bool go_back) {
    const double k = static_cast<double>(gfx.draw_scale) / 4;
    dx *= k;
    dy *= k;
    const std::int64_t a = ((gfx.draw_angle % 360) + 360) % 360;
    double co, si;
    // Quarter turns exactly, so that turned pictures stay on whole pixels.
    if (a % 90 == 0) {
      static const double kCos[] = {1, 0, -1, 0}, kSin[] = {0, 1, 0, -1};
      co = kCos[a / 90];
      si = kSin[a / 90];
    } else {
      (void)values::sincos_raw(static_cast<double>(a) * 0.017453292519943295, &si, &co);
    }
    // Counter-clockwise on the screen, whose rows grow downwards.
    return move_to(pen_x + dx * co + dy * si, pen_y - dx * si + dy * co, no_draw, go_back);
  }

  bool move_to(double x, double y, bool no_draw, bool go_back) {
    if (!no_draw) {
      std::int64_t x0, y0, x1, y1;
      if (!pixel(pen_x, &x0) || !pixel(pen_y, &y0) || !pixel(x, &x1) || !pixel(y, &y1)) return false;
      const std::uint32_t rgb = gfx.draw_colour < 0 ? con.fg : static_cast<std::uint32_t>(gfx.draw_colour);
      raster_line(cv, x0, y0, x1, y1, rgb, nullptr, false);
    }
    if (!go_back) {
      pen_x = x;
      pen_y = y;
    }
    return true;
  }
};

}  // namespace

// DRAW commands$
void stmt_draw(const core::Token*& t) {
  ++t;
  values::Value v;
  if (!gfxarg::text(t, &v) || !gfxarg::end(t)) return;
  Macro m;
  logical_to_frame(gfx.last_x, gfx.last_y, &m.pen_x, &m.pen_y);
  const bool ok = m.run(std::string(v.s.ptr, v.s.len), 0);
  // What was drawn before an error stays drawn, and the pen stays where it got.
  frame_to_logical(m.pen_x, m.pen_y, &gfx.last_x, &gfx.last_y);
  commit(m.cv);
  (void)ok;
}

}  // namespace screen
