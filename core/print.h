// PRINT, PRINT USING and WRITE, for the console and for files: the item list
// is the same, only the sink differs.
#pragma once
#include <cstdint>

#include "core/token.h"
#include "values/types.h"

namespace core {

struct OutSink {
  void (*put)(void* ctx, std::uint8_t c);  // one byte out
  std::uint32_t (*column)(void* ctx);      // 0-based column of the next byte
  std::uint32_t width;                     // line width for zones and TAB; 0 means unlimited
  void* ctx;
};
// The console: its region's width and column.
OutSink console_sink();

// PRINT's items from t to the end of the statement: expressions, ";", ",",
// TAB(n), SPC(n), USING fmt$; items. Ends the line unless the list ends with
// ";" or ",".
void print_list(const Token*& t, OutSink& out);
// WRITE's items: separated by commas, strings in quotes, numbers without the
// sign blank; always ends the line.
void write_list(const Token*& t, OutSink& out);

// One value as PRINT writes it (numbers with the sign position and a blank after).
void print_value(const values::Value& v, OutSink& out);
// PRINT USING with format f applied to the items at t (after "USING fmt$;").
void print_using(const char* fmt, std::uint32_t fmt_len, const Token*& t, OutSink& out);
// The formatted text of one number under one numeric field (tests and files).
// Returns false for an invalid field.
bool format_using_number(const char* field, std::uint32_t field_len, double v, char* out, std::uint32_t* out_len);

// PRINT # and WRITE # belong to the files subsystem (t on PRINT or WRITE).
extern void (*print_file_hook)(const Token*& t);
extern void (*write_file_hook)(const Token*& t);

// Sinks end lines with CR LF for files and CR for the console.
void sink_newline(OutSink& out);

}  // namespace core
