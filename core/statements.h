// Statement dispatch: keyword tokens through a jump table indexed by the
// token value, identifier-named statements first, assignment otherwise.
#pragma once
#include "core/token.h"

namespace core {

using Handler = void (*)(const Token*& t);

// Run one statement at t (t on its first token); t is left on the token
// after it (":" , ELSE or the end). Errors go through the error flag.
void run_statement(const Token*& t);
// Run the statements of one line in order until the end or an error.
void run_line_statements(const Token* t);

// After a statement: only ":", ELSE or the end of the line may follow.
bool at_statement_end(const Token* t);

// Handlers that other parts reach directly.
void stmt_print(const Token*& t);
void stmt_let(const Token*& t);

}  // namespace core
