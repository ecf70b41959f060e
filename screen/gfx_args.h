// Argument parsing shared by the graphics, bitmap and sprite statements.
// Every function raises its error and returns false; the caller returns.
#pragma once
#include <cstdint>
#include <string>

#include "core/token.h"
#include "screen/graphics.h"
#include "values/types.h"

namespace screen::gfxarg {

using core::Token;

bool fail(const char* message);
bool is_word(const Token* t, const char* word);
// Only ":", ELSE or the end may follow ("Syntax error" otherwise).
bool end(const Token* t);
bool comma(const Token*& t);
bool integer(const Token*& t, std::int64_t* out);
bool number(const Token*& t, double* out);
bool text(const Token*& t, values::Value* out);
// [STEP] (x, y)
bool point(const Token*& t, GfxPoint* out);
bool point_ahead(const Token* t);  // t starts a [STEP] (x, y)
// [STEP](x1,y1) - [STEP](x2,y2) in frame pixels, sorted, with both corners
// inside the canvas's clip ("Illegal function call" otherwise); the second
// corner in the program's coordinates becomes the last point once the
// statement succeeds, so it is handed back in end_x, end_y.
struct PixelRect {
  std::int64_t x0, y0, x1, y1;
  double end_x, end_y;
};
bool pixel_rect(const Token*& t, const Canvas& clip, PixelRect* out);
// One colour number (palette 0-15 or packed &HRRGGBB).
bool colour(const Token*& t, std::uint32_t* rgb);
// An integer in lo..hi, else "Illegal function call".
bool in_range(std::int64_t v, std::int64_t lo, std::int64_t hi);
// A file name: a non-empty string ("Bad file name" when empty).
bool file_name(const Token*& t, std::string* out);
// A whole file read into memory: "File not found", "Permission denied",
// "Disk I/O error", "Out of memory".
bool read_file(const std::string& name, std::string* bytes);
bool write_file(const std::string& name, const void* data, std::size_t size);

}  // namespace screen::gfxarg
