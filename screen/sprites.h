// Sprites: pictures with a key colour drawn over the scene in the logical
// framebuffer only, numbered 1 to kMaxSprites, higher numbers in front.
// Moving, showing or hiding one refreshes only the rectangles it leaves and
// enters, so a sprite costs what it covers.
#pragma once
#include <cstdint>

#include "core/token.h"
#include "screen/bmp.h"
#include "values/types.h"

namespace screen {

constexpr int kMaxSprites = 1024;

// Draw the shown sprites that meet x0..x1-1, y0..y1-1 into the logical
// framebuffer, clipped to that rectangle. Called with the frame lock held
// exclusive, right after the rectangle was copied from the back buffer.
void compose_sprites(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1);

// Refresh from the back buffer, and draw the sprites over, the parts of
// x0..x1-1, y0..y1-1 that shown sprites cover.
void recompose_sprites_in(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1);

// Delete every sprite and take them off the screen (SPRITEOFF, start-up, RUN).
void reset_sprites();

// Whether the opaque pixels of two shown sprites overlap.
bool sprites_collide(int a, int b);

bool f_spritex(const core::Token*& t, values::Value* out);
bool f_spritey(const core::Token*& t, values::Value* out);
bool f_spritewidth(const core::Token*& t, values::Value* out);
bool f_spriteheight(const core::Token*& t, values::Value* out);
bool f_spriteloaded(const core::Token*& t, values::Value* out);
bool f_spritekeycolor(const core::Token*& t, values::Value* out);
bool f_spritecollide(const core::Token*& t, values::Value* out);

}  // namespace screen
