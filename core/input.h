// Reading values from text: INPUT and LINE INPUT from the console, INPUT #
// and LINE INPUT # from files, READ from DATA. The field rules are shared.
#pragma once
#include <cstdint>

#include "core/token.h"
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

// INPUT #, LINE INPUT # and INPUT$(n, #f) belong to the files subsystem:
// the console statements hand over when "#" follows INPUT (t on INPUT) or
// LINE INPUT (t on LINE); INPUT$ with a file number calls input_chars_hook.
extern void (*input_file_hook)(const Token*& t);
extern void (*line_input_file_hook)(const Token*& t);
extern bool (*input_chars_hook)(std::int64_t file_number, std::int64_t count, values::Value* out);

}  // namespace core
