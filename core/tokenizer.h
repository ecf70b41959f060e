// The tokenizer: one line of text into at most 127 token records plus a
// terminator, in a static scratch array (no allocation).
#pragma once
#include "core/token.h"

namespace core {

// The scratch array; callers copy what they keep.
extern Token scratch_tokens[kMaxTokens + 1];

// Tokenize a NUL-terminated line into scratch_tokens. Returns the number of
// records including the terminator. On a scanning error the error is raised
// and the records made so far and a terminator stand. String tokens point
// into `line`, so the line must outlive them.
int tokenize(const char* line);

}  // namespace core
