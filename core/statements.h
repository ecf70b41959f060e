// Statement dispatch: keyword tokens through a jump table indexed by the
// token value, identifier-named statements first, assignment otherwise.
//
// Each subsystem (screen, files, ...) declares its handlers in a header of
// its own with a constexpr installer that writes its rows into the table, and
// a list of its statement words that are not keywords; statements.cpp calls
// every installer when it builds the table at compile time.
#pragma once
#include <array>

#include "core/keywords.h"
#include "core/token.h"

namespace core {

using Handler = void (*)(const Token*& t);
using HandlerTable = std::array<Handler, 256>;

// A statement word that is not a keyword (ACCEPT, CAPTURE, ...): it runs only
// when not followed by "=" or "(", so the name still works as a variable.
struct NamedStatement {
  const char* name;
  Handler fn;
};
struct NamedGroup {
  const NamedStatement* rows;
  int count;
};

// Run one statement at t (t on its first token); t is left on the token
// after it (":" , ELSE or the end). Errors go through the error flag.
void run_statement(const Token*& t);

// Whether an identifier is a statement word that is not a keyword (ACCEPT,
// CAPTURE, STATEWRITE, ...).
bool is_statement_word(const char* name);
// Those words by index; nullptr past the end.
const char* statement_word(int index);

// After a statement: only ":", ELSE or the end of the line may follow.
inline bool at_statement_end(const Token* t) { return t->kind == kTokEnd || t->kind == ':' || t->kind == KW_ELSE; }

// Handlers that other parts reach directly.
void stmt_print(const Token*& t);
void stmt_write(const Token*& t);
void stmt_let(const Token*& t);
void stmt_list(const Token*& t);
void stmt_load(const Token*& t);
void stmt_merge(const Token*& t);
void stmt_save(const Token*& t);
void stmt_new(const Token*& t);
void stmt_delete(const Token*& t);
void stmt_auto(const Token*& t);
void stmt_edit(const Token*& t);

void stmt_input(const Token*& t);
void stmt_line(const Token*& t);
void stmt_data(const Token*& t);
void stmt_read(const Token*& t);
void stmt_restore(const Token*& t);
void stmt_def(const Token*& t);
void stmt_mid(const Token*& t);
void stmt_lset(const Token*& t);
void stmt_rset(const Token*& t);
void stmt_dim(const Token*& t);

// DEF FN's table: installed at start, forgotten by CLEAR and RUN.
void install_user_functions();
extern void (*forget_user_functions)();
void stmt_redim(const Token*& t);
void stmt_erase(const Token*& t);
void stmt_option(const Token*& t);
void stmt_defint(const Token*& t);
void stmt_deflng(const Token*& t);
void stmt_defi64(const Token*& t);
void stmt_defsng(const Token*& t);
void stmt_defdbl(const Token*& t);
void stmt_defstr(const Token*& t);
void stmt_common(const Token*& t);
void stmt_swap(const Token*& t);
void stmt_randomize(const Token*& t);
void stmt_poke(const Token*& t);
void stmt_poke16(const Token*& t);
void stmt_poke32(const Token*& t);
void stmt_poke64(const Token*& t);
void stmt_dclval(const Token*& t);
void stmt_setvar(const Token*& t);

// A line range as LIST, DELETE, EDIT and TRON take it: n, n-, -n, n-m, ".", ERL.
bool parse_range(const Token*& t, std::uint32_t* from, std::uint32_t* to, bool* single);

// The page prompt of LIST and the other long listings: waits for a key;
// false when the user pressed Esc (the listing is abandoned).
bool page_prompt();

// EDIT asks the Ready loop to edit the line it printed.
extern bool edit_request;

}  // namespace core
