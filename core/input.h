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

}  // namespace core
