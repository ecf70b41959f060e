// Line references in program text: the one scanner behind RENUM, XREF and
// AUDIT, so the three agree on what counts as a reference to a line.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/token.h"

namespace tools {

enum class RefKind : std::uint8_t {
  Goto,     // GOTO, ON ... GOTO, IF ... GOTO, ON ERROR/BREAK GOTO
  Gosub,    // GOSUB, ON ... GOSUB, ON TIMER/MOUSE... GOSUB
  Then,     // a bare line number after THEN
  Else,     // a bare line number after ELSE
  Restore,
  Resume,
  Return,
  Run,
  Range,    // LIST, DELETE, EDIT, TRON
  Erl,      // a comparison with ERL
};

struct LineRef {
  RefKind kind;
  std::uint32_t column;  // offset of the number in the line's text
  std::uint32_t length;  // its digits
  std::uint32_t target;
};

struct LineScan {
  std::vector<core::Token> tokens;  // the line's tokens, terminator included
  std::vector<LineRef> refs;
  bool computed = false;            // a GOTO/GOSUB whose target is an expression
  std::string error;                // the tokenizer's message when the line does not tokenize
};

// Tokenize without printing or disturbing the error state. On a scanning
// error `error` holds the message and the tokens made so far are kept.
void quiet_tokenize(const char* text, std::vector<core::Token>* tokens, std::string* error);

// Scan one line's text.
LineScan scan_line(const char* text);

// With t on "(": the token after the matching ")", or null when the line
// ends first.
const core::Token* past_parentheses(const core::Token* t);

// Text of a name as the listings show it: keywords by name, identifiers as
// stored, punctuation as itself.
std::string token_text(const core::Token& t);

}  // namespace tools
