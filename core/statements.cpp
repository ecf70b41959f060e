// Statement dispatch and the simplest statements.
#include "core/statements.h"

#include <array>
#include <cstring>

#include "core/errors.h"
#include "core/keywords.h"
#include "values/eval.h"

namespace core {

namespace {

void not_a_statement(const Token*&) { raise("Syntax error"); }

// REM's remark made no tokens: the terminator follows.
void stmt_rem(const Token*& t) { ++t; }

constexpr std::array<Handler, 256> make_table() {
  std::array<Handler, 256> table{};
  for (Handler& h : table) h = not_a_statement;
  table[KW_PRINT] = stmt_print;
  table[KW_LET] = stmt_let;
  table[KW_REM] = stmt_rem;
  return table;
}

constexpr std::array<Handler, 256> kHandlers = make_table();

}  // namespace

bool at_statement_end(const Token* t) { return t->kind == kTokEnd || t->kind == ':' || t->kind == KW_ELSE; }

void stmt_let(const Token*& t) {
  if (t->kind == KW_LET) ++t;
  values::LValue lv;
  if (!values::parse_lvalue(t, &lv)) return;
  if (!values::expect(t, '=', "Syntax error")) return;
  values::Value v;
  if (!values::eval(t, &v)) return;
  (void)values::assign(lv, v);
}

void run_statement(const Token*& t) {
  if (t->kind == kTokIdent) {
    stmt_let(t);
  } else if (t->kind == ':' ) {
    return;  // an empty statement
  } else {
    kHandlers[t->kind](t);
  }
  if (!err.flag && !at_statement_end(t)) raise("Syntax error");
}

void run_line_statements(const Token* t) {
  while (!err.flag) {
    while (t->kind == ':') ++t;
    if (t->kind == kTokEnd) return;
    run_statement(t);
    if (err.flag) return;
    if (t->kind == KW_ELSE) return;  // an ELSE outside IF ends the line
  }
}

}  // namespace core
