// The graphics statements (PSET, PRESET, LINE, CIRCLE, PAINT, POLYFILL, DRAW,
// WINDOW, the graphics forms of VIEW, GET and PUT), the bitmap statements
// (LOADBMP, SAVEBMP, BITBLT) and the sprite statements, with the functions
// that read them back.
#pragma once
#include "core/keywords.h"
#include "core/statements.h"
#include "values/builtins.h"

namespace screen {

void stmt_pset(const core::Token*& t);
void stmt_preset(const core::Token*& t);
void stmt_line_graphics(const core::Token*& t);  // LINE that is not LINE INPUT
void stmt_circle(const core::Token*& t);
void stmt_paint(const core::Token*& t);
void stmt_polyfill(const core::Token*& t);
void stmt_draw(const core::Token*& t);
void stmt_window(const core::Token*& t);
void stmt_view_graphics(const core::Token*& t);  // t on VIEW, not followed by PRINT
// GET and PUT share their keywords with the file statements: a "(" or STEP
// after the keyword that opens a coordinate pair makes them graphics.
bool is_graphics_get_put(const core::Token* t);
void stmt_graphics_get(const core::Token*& t);
void stmt_graphics_put(const core::Token*& t);
// CLS 0 (everything), CLS 1 (the graphics viewport), CLS 2 (the text region).
void clear_screen_part(int part);

void stmt_loadbmp(const core::Token*& t);
void stmt_savebmp(const core::Token*& t);
void stmt_bitblt(const core::Token*& t);

void stmt_loadsprite(const core::Token*& t);
void stmt_sprite(const core::Token*& t);
void stmt_movesprite(const core::Token*& t);
void stmt_showsprite(const core::Token*& t);
void stmt_hidesprite(const core::Token*& t);
void stmt_delsprite(const core::Token*& t);
void stmt_spritetext(const core::Token*& t);
void stmt_spriteoff(const core::Token*& t);

constexpr void install_graphics_statements(core::HandlerTable& table) {
  table[core::KW_PSET] = stmt_pset;
  table[core::KW_PRESET] = stmt_preset;
  table[core::KW_CIRCLE] = stmt_circle;
  table[core::KW_PAINT] = stmt_paint;
  table[core::KW_POLYFILL] = stmt_polyfill;
  table[core::KW_DRAW] = stmt_draw;
  table[core::KW_WINDOW] = stmt_window;
  table[core::KW_LOADBMP] = stmt_loadbmp;
  table[core::KW_SAVEBMP] = stmt_savebmp;
  table[core::KW_BITBLT] = stmt_bitblt;
  table[core::KW_LOADSPRITE] = stmt_loadsprite;
  table[core::KW_SPRITE] = stmt_sprite;
  table[core::KW_MOVESPRITE] = stmt_movesprite;
  table[core::KW_SHOWSPRITE] = stmt_showsprite;
  table[core::KW_HIDESPRITE] = stmt_hidesprite;
  table[core::KW_DELSPRITE] = stmt_delsprite;
  table[core::KW_SPRITETEXT] = stmt_spritetext;
  table[core::KW_SPRITEOFF] = stmt_spriteoff;
}

// Sprites, bitmaps and the graphics state start afresh (start-up and RUN).
void reset_graphics_session();
// The graphics LINE into core's LINE/LINE INPUT statement, the RUN reset.
void install_graphics_hooks();

// POINT, SCREENCHAR, BMPWIDTH, BMPHEIGHT, BMPLOADED and the SPRITE... functions.
extern const values::Builtin kGraphicsFunctions[];
extern const int kGraphicsFunctionCount;

}  // namespace screen
