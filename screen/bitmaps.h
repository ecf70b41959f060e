// Bitmap slots: pictures loaded from BMP files (LOADBMP), written back
// (SAVEBMP) and copied onto the screen (BITBLT), numbered 1 to kMaxBitmaps.
#pragma once
#include "core/token.h"
#include "values/types.h"

namespace screen {

constexpr int kMaxBitmaps = 256;

// Forget every loaded bitmap (start-up and RUN).
void reset_bitmaps();

// BMPWIDTH(n), BMPHEIGHT(n), BMPLOADED(n).
bool f_bmpwidth(const core::Token*& t, values::Value* out);
bool f_bmpheight(const core::Token*& t, values::Value* out);
bool f_bmploaded(const core::Token*& t, values::Value* out);

}  // namespace screen
