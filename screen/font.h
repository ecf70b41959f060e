// The built-in console font: 256 glyphs of 8x16 pixels in code page 437 order.
#pragma once

namespace screen {
extern const unsigned char kFont8x16[256 * 16];
}
