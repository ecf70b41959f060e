// Reading values from text: INPUT and LINE INPUT from the console, INPUT #
// and LINE INPUT # from files, READ from DATA. The field rules are shared.
#pragma once
#include <cstdint>

#include "core/token.h"
#include "values/builtins.h"
#include "values/eval.h"

namespace core {

// A text field turned into a value for a target of type `type`: numbers
// through the literal scanner (an optional sign first, blanks around), strings
// as they are. False when the text is not a number for a numeric target
// (nothing raised: the caller decides between "?Redo from start" and an error).
bool field_value(const char* p, std::uint32_t n, std::uint8_t type, values::Value* out);

// Split the next comma-separated field at p (end e): quoted fields keep their
// commas; unquoted ones are trimmed. Advances p past the field and its comma.
// `quoted` tells whether the field had quotes.
void next_field(const char*& p, const char* e, const char** start, std::uint32_t* len, bool* quoted);

// Hooks the file subsystem fills: INPUT #, LINE INPUT #, INPUT$(n,#f); and
// the graphics LINE statement, which shares its keyword with LINE INPUT.
extern void (*input_from_file)(const Token*& t);
extern void (*line_input_from_file)(const Token*& t);
extern bool (*file_input_chars)(std::int64_t file, std::int64_t count, values::Value* out);
extern void (*line_graphics)(const Token*& t);

// INPUT$ and its friends for the evaluator's function tables.
const values::BuiltinGroup& input_builtins();
// CLEAR and RUN put the DATA pointer back to the first item.
void install_data_hooks();

}  // namespace core
