// The developer tools: HELP, RENUM, AUDIT, XREF, FIND/REPLACE, TRACE,
// VARINFO/ARRAYINFO, ECONOMY, the memory explorer (TAMBRIL, TAMBRILADR) and
// the F12 debugger. Core reaches them through the installers below.
#pragma once
#include <cstdint>

#include "core/keywords.h"
#include "core/statements.h"
#include "tools/help.h"
#include "values/builtins.h"

namespace tools {

using core::Token;

// Keyword statements (they also run inside programs).
void stmt_trace(const Token*& t);
void stmt_varinfo(const Token*& t);
void stmt_arrayinfo(const Token*& t);
void stmt_economy(const Token*& t);
void stmt_tambril(const Token*& t);

// Direct-mode commands.
void cmd_renum(const Token*& t);
void cmd_find(const Token*& t);
void cmd_replace(const Token*& t);
void cmd_xref(const Token*& t);
void cmd_audit(const Token*& t);

// RENUM's work, for tests: false (with the error raised) when refused.
[[nodiscard]] bool renumber(std::uint32_t first, std::uint32_t from, std::uint32_t step);

constexpr void install_tool_statements(core::HandlerTable& table) {
  table[core::KW_HELP] = stmt_help;
  table[core::KW_TRACE] = stmt_trace;
  table[core::KW_VARINFO] = stmt_varinfo;
  table[core::KW_ARRAYINFO] = stmt_arrayinfo;
  table[core::KW_ECONOMY] = stmt_economy;
  table[core::KW_TAMBRIL] = stmt_tambril;
}

// Commands the direct-mode dispatcher runs when the line starts with one of
// these identifiers (not followed by "=" or "("); in a program they are
// ordinary names. JIT and PROFILE belong here too when they land.
inline constexpr core::NamedStatement kDirectNamed[] = {
    {"FIND", cmd_find},
    {"REPLACE", cmd_replace},
    {"XREF", cmd_xref},
    {"AUDIT", cmd_audit},
};
inline constexpr int kDirectNamedCount = static_cast<int>(sizeof kDirectNamed / sizeof kDirectNamed[0]);

// TAMBRILADR.
const values::BuiltinGroup& tool_builtins();

// Watches and the debugger hook into the run loop and the line editor.
void install_hooks();

// AUDIT's extensions (the PARFOR scalar check): called after AUDIT's own
// checks with the number of findings so far; null until installed.
extern void (*audit_extension)(int findings);
// The PARFOR scalar check (the extension AUDIT starts with).
void parfor_scalar_check(int findings);

}  // namespace tools
