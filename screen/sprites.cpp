// The sprite table, compositing over the back buffer, and the sprite
// statements and functions.
#include "screen/sprites.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "screen/console.h"
#include "screen/font.h"
#include "screen/framebuffer.h"
#include "screen/gfx_args.h"
#include "screen/graphics.h"
#include "screen/graphics_statements.h"
#include "values/builtins.h"

namespace screen {

using namespace gfxarg;

namespace {

// Pixels keep their colour in the low 24 bits; the top byte is 0xFF where
// the sprite is opaque and 0 where the scene shows through.
constexpr std::uint32_t kOpaque = 0xFF000000u;

struct Sprite {
  std::int64_t x = 0, y = 0;
  std::uint32_t w = 0, h = 0;
  bool shown = false;
  std::int64_t key = -1;  // SPRITEKEYCOLOR: the colour made transparent, -1 for none
  std::vector<std::uint32_t> px;
};

std::unique_ptr<Sprite> table[kMaxSprites + 1];
// The shown sprites in ascending number: the drawing order.
std::vector<int> shown_list;

struct Area {
  std::int64_t x0, y0, x1, y1;  // max exclusive
};

Area area_of(const Sprite& s) { return {s.x, s.y, s.x + s.w, s.y + s.h}; }

bool overlap(const Area& a, const Area& b) { return a.x0 < b.x1 && b.x0 < a.x1 && a.y0 < b.y1 && b.y0 < a.y1; }

void refresh(const Area& a) { refresh_rect(a.x0, a.y0, a.x1, a.y1); }

// Both areas, as one rectangle when they meet (a short move) and as two when
// they do not (a jump across the screen costs two sprites, not the span).
void refresh_pair(const Area& a, const Area& b) {
  if (overlap(a, b)) {
    refresh({std::min(a.x0, b.x0), std::min(a.y0, b.y0), std::max(a.x1, b.x1), std::max(a.y1, b.y1)});
  } else {
    refresh(a);
    refresh(b);
  }
}

void set_shown(int n, bool on) {
  Sprite& s = *table[n];
  if (s.shown == on) return;
  s.shown = on;
  const auto at = std::lower_bound(shown_list.begin(), shown_list.end(), n);
  if (on) {
    // With nothing shown the logical framebuffer equals the back buffer, so
    // whatever was marked dirty before needs no refresh.
    if (shown_list.empty()) fb.dirty.store(kDirtyNone);
    shown_list.insert(at, n);
  } else {
    shown_list.erase(at);
  }
  shown_sprites = static_cast<int>(shown_list.size());
  refresh(area_of(s));
}

bool sprite_number(const Token*& t, std::int64_t* n) { return integer(t, n) && in_range(*n, 1, kMaxSprites); }

bool loaded(std::int64_t n) {
  if (table[n]) return true;
  return fail("Illegal function call");
}

// A picture becomes sprite n: a new sprite starts hidden at (0, 0); an
// existing one keeps its place and visibility and shows its new picture.
void install(std::int64_t n, std::unique_ptr<Sprite> s) {
  if (table[n]) {
    const Sprite& old = *table[n];
    s->x = old.x;
    s->y = old.y;
    s->shown = old.shown;
    const Area before = area_of(old);
    table[n] = std::move(s);
    if (table[n]->shown) refresh_pair(before, area_of(*table[n]));
    return;
  }
  table[n] = std::move(s);
}

// The key colour argument: -1 for none, else a colour number; without one,
// the picture's top-left pixel.
bool key_arg(const Token*& t, std::int64_t* key, const std::vector<std::uint32_t>& px) {
  *key = px.empty() ? -1 : static_cast<std::int64_t>(px[0] & 0xFFFFFF);
  if (t->kind != ',') return true;
  ++t;
  std::int64_t k;
  if (!integer(t, &k)) return false;
  if (k == -1) {
    *key = -1;
    return true;
  }
  std::uint32_t rgb;
  if (!colour_from_number(k, &rgb)) return fail("Illegal function call");
  *key = rgb;
  return true;
}

std::unique_ptr<Sprite> from_pixels(std::uint32_t w, std::uint32_t h, std::vector<std::uint32_t> px, std::int64_t key) {
  auto s = std::make_unique<Sprite>();
  s->w = w;
  s->h = h;
  s->key = key;
  s->px = std::move(px);
  for (std::uint32_t& p : s->px) {
    p &= 0xFFFFFF;
    if (static_cast<std::int64_t>(p) != key) p |= kOpaque;
  }
  return s;
}

}  // namespace

void compose_sprites(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1) {
  const Area r{x0, y0, x1, y1};
  for (const int n : shown_list) {
    const Sprite& s = *table[n];
    const Area a = area_of(s);
    if (!overlap(a, r)) continue;
    const std::int64_t ax0 = std::max(a.x0, r.x0), ax1 = std::min(a.x1, r.x1);
    const std::int64_t ay0 = std::max(a.y0, r.y0), ay1 = std::min(a.y1, r.y1);
    for (std::int64_t y = ay0; y < ay1; ++y) {
      const std::uint32_t* src = s.px.data() + (y - s.y) * s.w + (ax0 - s.x);
      std::uint32_t* dst = fb.front + y * fb.pitch + ax0;
      for (std::int64_t i = 0; i < ax1 - ax0; ++i)
        if (src[i] & kOpaque) dst[i] = src[i] & 0xFFFFFF;
    }
  }
}

void recompose_sprites_in(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1) {
  const Area r{x0, y0, x1, y1};
  for (const int n : shown_list) {
    const Area a = area_of(*table[n]);
    if (overlap(a, r))
      refresh({std::max(a.x0, r.x0), std::max(a.y0, r.y0), std::min(a.x1, r.x1), std::min(a.y1, r.y1)});
  }
}

void reset_sprites() {
  std::vector<Area> gone;
  for (const int n : shown_list) gone.push_back(area_of(*table[n]));
  shown_list.clear();
  shown_sprites = 0;
  for (auto& s : table) s.reset();
  for (const Area& a : gone) refresh(a);
}

bool sprites_collide(int a, int b) {
  if (a == b || !table[a] || !table[b] || !table[a]->shown || !table[b]->shown) return false;
  const Sprite& p = *table[a];
  const Sprite& q = *table[b];
  const Area pa = area_of(p), qa = area_of(q);
  if (!overlap(pa, qa)) return false;
  const std::int64_t x0 = std::max(pa.x0, qa.x0), x1 = std::min(pa.x1, qa.x1);
  const std::int64_t y0 = std::max(pa.y0, qa.y0), y1 = std::min(pa.y1, qa.y1);
  for (std::int64_t y = y0; y < y1; ++y) {
    const std::uint32_t* rp = p.px.data() + (y - p.y) * p.w + (x0 - p.x);
    const std::uint32_t* rq = q.px.data() + (y - q.y) * q.w + (x0 - q.x);
    for (std::int64_t i = 0; i < x1 - x0; ++i)
      if (rp[i] & rq[i] & kOpaque) return true;
  }
  return false;
}

// LOADSPRITE n, file$ [, key]: a BMP file as sprite n. Pixels of the key
// colour are transparent; the key is the picture's top-left pixel unless
// given, and -1 makes every pixel opaque.
void stmt_loadsprite(const Token*& t) {
  ++t;
  std::int64_t n, key;
  std::string name;
  if (!sprite_number(t, &n) || !comma(t) || !file_name(t, &name)) return;
  std::string bytes;
  Image img;
  // The key's default needs the picture, so the file is read before the
  // rest of the statement is checked; nothing changes until both are good.
  if (!read_file(name, &bytes)) return;
  if (!decode_bmp(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), &img))
    return (void)fail("Bad file format");
  if (!key_arg(t, &key, img.px) || !end(t)) return;
  install(n, from_pixels(img.w, img.h, std::move(img.px), key));
}

// SPRITE n, x, y: put sprite n with its top-left corner at frame pixel (x, y)
// and show it.
// SPRITE GET n, (x1,y1)-(x2,y2) [, key]: sprite n from a rectangle of the
// scene (the back buffer), its key as LOADSPRITE takes it.
void stmt_sprite(const Token*& t) {
  ++t;
  std::int64_t n;
  if (t->kind == core::KW_GET) {
    ++t;
    PixelRect r;
    if (!sprite_number(t, &n) || !comma(t) || !pixel_rect(t, full_canvas(), &r)) return;
    const auto w = static_cast<std::uint32_t>(r.x1 - r.x0 + 1), h = static_cast<std::uint32_t>(r.y1 - r.y0 + 1);
    std::vector<std::uint32_t> px(static_cast<std::size_t>(w) * h);
    for (std::uint32_t row = 0; row < h; ++row)
      std::copy_n(fb.back + (r.y0 + row) * fb.pitch + r.x0, w, px.begin() + static_cast<std::ptrdiff_t>(row) * w);
    std::int64_t key;
    if (!key_arg(t, &key, px) || !end(t)) return;
    install(n, from_pixels(w, h, std::move(px), key));
    return;
  }
  std::int64_t x, y;
  if (!sprite_number(t, &n) || !comma(t) || !integer(t, &x) || !comma(t) || !integer(t, &y) || !end(t) ||
      !loaded(n))
    return;
  Sprite& s = *table[n];
  const Area before = area_of(s);
  s.x = x;
  s.y = y;
  if (s.shown) refresh_pair(before, area_of(s));
  else set_shown(static_cast<int>(n), true);
}

// MOVESPRITE n, x, y: a new place; a hidden sprite stays hidden.
void stmt_movesprite(const Token*& t) {
  ++t;
  std::int64_t n, x, y;
  if (!sprite_number(t, &n) || !comma(t) || !integer(t, &x) || !comma(t) || !integer(t, &y) || !end(t) ||
      !loaded(n))
    return;
  Sprite& s = *table[n];
  if (s.x == x && s.y == y) return;
  const Area before = area_of(s);
  s.x = x;
  s.y = y;
  if (s.shown) refresh_pair(before, area_of(s));
}

namespace {

void show_statement(const Token*& t, bool on) {
  ++t;
  std::int64_t n;
  if (!sprite_number(t, &n) || !end(t) || !loaded(n)) return;
  set_shown(static_cast<int>(n), on);
}

}  // namespace

void stmt_showsprite(const Token*& t) { show_statement(t, true); }
void stmt_hidesprite(const Token*& t) { show_statement(t, false); }

// DELSPRITE n: off the screen and forgotten; a sprite never loaded is no error.
void stmt_delsprite(const Token*& t) {
  ++t;
  std::int64_t n;
  if (!sprite_number(t, &n) || !end(t) || !table[n]) return;
  set_shown(static_cast<int>(n), false);
  table[n].reset();
}

// SPRITETEXT n, text$ [, fg [, bg]]: the text in the console font as sprite n,
// 8 x 16 pixels a character; the background is transparent unless bg is given.
void stmt_spritetext(const Token*& t) {
  ++t;
  std::int64_t n;
  values::Value s;
  if (!sprite_number(t, &n) || !comma(t) || !text(t, &s)) return;
  std::uint32_t fg = con.fg, bg = 0;
  bool opaque_bg = false;
  if (t->kind == ',') {
    ++t;
    if (!colour(t, &fg)) return;
    if (t->kind == ',') {
      ++t;
      if (!colour(t, &bg)) return;
      opaque_bg = true;
    }
  }
  if (!end(t)) return;
  if (s.s.len == 0 || s.s.len > 1024) return (void)fail("Illegal function call");
  const std::uint32_t w = 8 * s.s.len, h = 16;
  auto sp = std::make_unique<Sprite>();
  sp->w = w;
  sp->h = h;
  sp->px.assign(static_cast<std::size_t>(w) * h, opaque_bg ? (bg | kOpaque) : 0);
  for (std::uint32_t i = 0; i < s.s.len; ++i) {
    const unsigned char* glyph = kFont8x16 + static_cast<unsigned char>(s.s.ptr[i]) * 16;
    for (std::uint32_t gy = 0; gy < 16; ++gy)
      for (std::uint32_t gx = 0; gx < 8; ++gx)
        if (glyph[gy] & (0x80u >> gx)) sp->px[gy * w + i * 8 + gx] = fg | kOpaque;
  }
  install(n, std::move(sp));
}

// SPRITEOFF: every sprite off the screen and forgotten.
void stmt_spriteoff(const Token*& t) {
  ++t;
  if (end(t)) reset_sprites();
}

// --- functions -----------------------------------------------------------------------

namespace {

using values::Value;

bool number_arg(const Token*& t, std::int64_t* n) {
  Value a;
  return values::parse_args(t, &a, 1, 1) && values::arg_int(a, n) && in_range(*n, 1, kMaxSprites);
}

bool loaded_arg(const Token*& t, const Sprite** s) {
  std::int64_t n;
  if (!number_arg(t, &n) || !loaded(n)) return false;
  *s = table[n].get();
  return true;
}

// A number read from a loaded sprite.
template <typename Get>
bool sprite_number_of(const Token*& t, Value* out, Get get) {
  const Sprite* s;
  if (!loaded_arg(t, &s)) return false;
  *out = Value::integer(get(*s), values::kLong);
  return true;
}

}  // namespace

bool f_spritex(const Token*& t, Value* out) {
  return sprite_number_of(t, out, [](const Sprite& s) { return s.x; });
}
bool f_spritey(const Token*& t, Value* out) {
  return sprite_number_of(t, out, [](const Sprite& s) { return s.y; });
}
bool f_spritewidth(const Token*& t, Value* out) {
  return sprite_number_of(t, out, [](const Sprite& s) { return std::int64_t{s.w}; });
}
bool f_spriteheight(const Token*& t, Value* out) {
  return sprite_number_of(t, out, [](const Sprite& s) { return std::int64_t{s.h}; });
}

bool f_spriteloaded(const Token*& t, Value* out) {
  std::int64_t n;
  if (!number_arg(t, &n)) return false;
  *out = Value::integer(table[n] ? -1 : 0);
  return true;
}

// The key colour as POINT reports colours, -1 when the sprite has none.
bool f_spritekeycolor(const Token*& t, Value* out) {
  const Sprite* s;
  if (!loaded_arg(t, &s)) return false;
  *out = Value::integer(s->key < 0 ? -1 : point_value(static_cast<std::uint32_t>(s->key)), values::kLong);
  return true;
}

// SPRITECOLLIDE(a, b): -1 when the opaque pixels of the two shown sprites
// overlap, else 0. SPRITECOLLIDE(a): the lowest-numbered shown sprite that
// collides with a, 0 for none.
bool f_spritecollide(const Token*& t, Value* out) {
  Value a[2];
  int n;
  std::int64_t p, q = 0;
  if (!values::parse_args(t, a, 1, 2, &n) || !values::arg_int(a[0], &p) || !in_range(p, 1, kMaxSprites)) return false;
  if (n == 2) {
    if (!values::arg_int(a[1], &q) || !in_range(q, 1, kMaxSprites)) return false;
    *out = Value::integer(sprites_collide(static_cast<int>(p), static_cast<int>(q)) ? -1 : 0);
    return true;
  }
  std::int64_t hit = 0;
  for (const int k : shown_list)
    if (sprites_collide(static_cast<int>(p), k)) {
      hit = k;
      break;
    }
  *out = Value::integer(hit, values::kLong);
  return true;
}

}  // namespace screen
