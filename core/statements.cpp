// Statement dispatch and the simplest statements.
#include "core/statements.h"

#include <array>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "screen/graphics_statements.h"
#include "screen/screen_statements.h"
#include "files/file_statements.h"
#include "host/packed.h"
#include "host/platform.h"
#include "jit/jit.h"
#include "jit/parfor.h"
#include "net/net.h"
#include "sound/sound.h"
#include "tools/profile.h"
#include "tools/tools.h"
#include "values/eval.h"

namespace core {

namespace {

void not_a_statement(const Token*&) { raise("Syntax Error"); }

// GET and PUT are file statements unless a coordinate pair follows.
void stmt_get(const Token*& t) {
  if (screen::is_graphics_get_put(t)) screen::stmt_graphics_get(t);
  else files::stmt_get(t);
}
void stmt_put(const Token*& t) {
  if (screen::is_graphics_get_put(t)) screen::stmt_graphics_put(t);
  else files::stmt_put(t);
}

// REM's remark made no tokens: the terminator follows.
void stmt_rem(const Token*& t) { ++t; }

constexpr HandlerTable make_table() {
  HandlerTable table{};
  for (Handler& h : table) h = not_a_statement;
  files::install_file_statements(table);
  table[KW_PRINT] = stmt_print;
  table[KW_WRITE] = stmt_write;
  table[KW_INPUT] = stmt_input;
  table[KW_LINE] = stmt_line;
  table[KW_DATA] = stmt_data;
  table[KW_DEF] = stmt_def;
  table[KW_LSET] = stmt_lset;
  table[KW_RSET] = stmt_rset;
  table[KW_READ] = stmt_read;
  table[KW_RESTORE] = stmt_restore;
  table[KW_LET] = stmt_let;
  table[KW_REM] = stmt_rem;
  table[KW_GOTO] = stmt_goto;
  table[KW_GOSUB] = stmt_gosub;
  table[KW_RETURN] = stmt_return;
  table[KW_FOR] = stmt_for;
  table[KW_NEXT] = stmt_next;
  table[KW_WHILE] = stmt_while;
  table[KW_WEND] = stmt_wend;
  table[KW_IF] = stmt_if;
  table[KW_ON] = stmt_on;
  table[KW_RESUME] = stmt_resume;
  table[KW_STOP] = stmt_stop;
  table[KW_END] = stmt_end;
  table[KW_SYSTEM] = stmt_system;
  table[KW_CONT] = stmt_cont;
  table[KW_TRON] = stmt_tron;
  table[KW_TROFF] = stmt_troff;
  table[KW_RUN] = stmt_run;
  table[KW_CLEAR] = stmt_clear;
  table[KW_ERROR] = stmt_error;
  table[KW_LIST] = stmt_list;
  table[KW_LOAD] = stmt_load;
  table[KW_MERGE] = stmt_merge;
  table[KW_SAVE] = stmt_save;
  table[KW_CREATEEXE] = host::stmt_createexe;
  table[KW_PARFOR] = jit::stmt_parfor;
  table[KW_NEW] = stmt_new;
  table[KW_DELETE] = stmt_delete;
  table[KW_EDIT] = stmt_edit;
  table[KW_DIM] = stmt_dim;
  table[KW_REDIM] = stmt_redim;
  table[KW_ERASE] = stmt_erase;
  table[KW_OPTION] = stmt_option;
  table[KW_DEFINT] = stmt_defint;
  table[KW_DEFLNG] = stmt_deflng;
  table[KW_DEFI64] = stmt_defi64;
  table[KW_DEFSNG] = stmt_defsng;
  table[KW_DEFDBL] = stmt_defdbl;
  table[KW_DEFSTR] = stmt_defstr;
  table[KW_COMMON] = stmt_common;
  table[KW_SWAP] = stmt_swap;
  table[KW_RANDOMIZE] = stmt_randomize;
  table[KW_POKE] = stmt_poke;
  table[KW_POKE16] = stmt_poke16;
  table[KW_POKE32] = stmt_poke32;
  table[KW_POKE64] = stmt_poke64;
  screen::install_screen_statements(table);
  net::install_net_statements(table);
  screen::install_graphics_statements(table);
  table[KW_GET] = stmt_get;
  table[KW_PUT] = stmt_put;
  tools::install_tool_statements(table);
  return table;
}

constexpr HandlerTable kHandlers = make_table();

// ENVIRON "name=value": set the process environment that ENVIRON$ reads and
// programs started from here inherit; an empty value removes the name.
void stmt_environ(const Token*& t) {
  ++t;
  values::Value v;
  if (!values::eval(t, &v)) return;
  if (v.type != values::kString) {
    raise("Type mismatch");
    return;
  }
  if (!at_statement_end(t)) {
    raise("Syntax Error");
    return;
  }
  const std::string text(v.s.ptr ? v.s.ptr : "", v.s.len);
  const std::size_t eq = text.find('=');
  std::size_t end = eq == std::string::npos ? 0 : eq;
  while (end > 0 && text[end - 1] == ' ') --end;
  if (end == 0 || text.find('\0') != std::string::npos) {
    raise("Illegal function call");
    return;
  }
  if (!host::set_environment(text.substr(0, end), text.substr(eq + 1))) raise("Out of memory");
}

const NamedStatement kCoreNamed[] = {
    {"DCLVAL", stmt_dclval},
    {"SETVAR", stmt_setvar},
    {"ENVIRON", stmt_environ},
    {"TIMER", stmt_timer_all},
};

const NamedGroup kNamedGroups[] = {
    {kCoreNamed, static_cast<int>(sizeof kCoreNamed / sizeof kCoreNamed[0])},
    {screen::kScreenNamed, static_cast<int>(sizeof screen::kScreenNamed / sizeof screen::kScreenNamed[0])},
    {files::kFileNamed, files::kFileNamedCount},
    {jit::kJitNamed, 1},
    {tools::kProfileNamed, 1},
    {net::kNetNamed, net::kNetNamedCount},
    {sound::kSoundNamed, sound::kSoundNamedCount},
};

Handler find_named(const char* name) {
  for (const NamedGroup& g : kNamedGroups)
    for (int i = 0; i < g.count; ++i)
      if (std::strcmp(g.rows[i].name, name) == 0) return g.rows[i].fn;
  return nullptr;
}

}  // namespace

bool is_statement_word(const char* name) { return find_named(name) != nullptr; }

const char* statement_word(int index) {
  for (const NamedGroup& g : kNamedGroups) {
    if (index < g.count) return g.rows[index].name;
    index -= g.count;
  }
  return nullptr;
}


void stmt_let(const Token*& t) {
  if (t->kind == KW_LET) ++t;
  (void)values::assign_statement(t);
}

namespace {

// Kept out of run_statement so that keyword statements, the common case, are
// dispatched without this path's stack frame.
[[gnu::noinline]] void run_ident_statement(const Token*& t) {
  const char* name = t->name();
  // Statement words that are not keywords; followed by "=" or "(" they are
  // ordinary variables or arrays.
  Handler named = t[1].kind != '=' && t[1].kind != '(' ? find_named(name) : nullptr;
  if (named) named(t);
  else if (t[1].kind == '(' && name[0] == 'T' && !std::strcmp(name, "TIMER")) stmt_timer(t);
  else if (t[1].kind == '(' && name[0] == 'M' && name[1] == 'I' && !std::strcmp(name, "MID$")) stmt_mid(t);
  else (void)values::assign_statement(t);  // an assignment without LET
}

}  // namespace

void run_statement(const Token*& t) {
  const std::uint8_t kind = t->kind;
  if (kind == kTokIdent) {
    // The plain "name = ..." assignment needs no name lookup.
    if (t[1].kind == '=') (void)values::assign_statement(t);
    else run_ident_statement(t);
  } else if (kind != ':') {
    kHandlers[kind](t);
  }
}

}  // namespace core
