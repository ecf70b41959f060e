// The console's statements (CLS, LOCATE, COLOR, SCREEN, TXTWINDOW, VIEW PRINT,
// GPRINT, BEEP, CAPTURE, ACCEPT), the mouse and keyboard settings (MOUSE,
// MOUSEPOS, KEYREPEAT), WAITREL, and the functions that read the screen,
// mouse, keys and clipboard back.
#pragma once
#include "core/statements.h"
#include "core/keywords.h"
#include "values/builtins.h"

namespace screen {

void stmt_cls(const core::Token*& t);
void stmt_locate(const core::Token*& t);
void stmt_color(const core::Token*& t);
void stmt_screen(const core::Token*& t);
void stmt_videomode(const core::Token*& t);
void stmt_txtwindow(const core::Token*& t);
void stmt_view(const core::Token*& t);
void stmt_mouse(const core::Token*& t);
void stmt_mousepos(const core::Token*& t);
void stmt_keyrepeat(const core::Token*& t);
void stmt_waitrel(const core::Token*& t);
void stmt_gprint(const core::Token*& t);
void stmt_beep(const core::Token*& t);
void stmt_capture(const core::Token*& t);
void stmt_accept(const core::Token*& t);

constexpr void install_screen_statements(core::HandlerTable& table) {
  table[core::KW_CLS] = stmt_cls;
  table[core::KW_LOCATE] = stmt_locate;
  table[core::KW_COLOR] = stmt_color;
  table[core::KW_SCREEN] = stmt_screen;
  table[core::KW_VIDEOMODE] = stmt_videomode;
  table[core::KW_TXTWINDOW] = stmt_txtwindow;
  table[core::KW_VIEW] = stmt_view;
  table[core::KW_MOUSE] = stmt_mouse;
  table[core::KW_MOUSEPOS] = stmt_mousepos;
  table[core::KW_KEYREPEAT] = stmt_keyrepeat;
  table[core::KW_WAITREL] = stmt_waitrel;
}

// KEY ON | OFF | LIST | n, text$: the function keys of the line editor.
void stmt_key(const core::Token*& t);

inline constexpr core::NamedStatement kScreenNamed[] = {
    {"ACCEPT", stmt_accept},
    {"BEEP", stmt_beep},
    {"CAPTURE", stmt_capture},
    {"GPRINT", stmt_gprint},
    {"KEY", stmt_key},
};

// SCREEN(row,col[,z]), MOUSEX, MOUSEY, MOUSEB, MOUSEWHEEL,
// KEYDOWN(key$), VIDEOMODES, CLIPBOARD$.
extern const values::Builtin kScreenFunctions[];
extern const int kScreenFunctionCount;

}  // namespace screen
