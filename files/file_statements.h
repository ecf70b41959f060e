// The files subsystem's statements: file numbers (OPEN ... GET/PUT),
// directories, memory images, CHAIN and the crash-safe state files.
#pragma once
#include "core/keywords.h"
#include "core/statements.h"

namespace files {

using core::Token;

// Sequential and random-access files (file_statements.cpp).
void stmt_open(const Token*& t);
void stmt_close(const Token*& t);
void stmt_field(const Token*& t);
void stmt_get(const Token*& t);
void stmt_put(const Token*& t);
// The "#" forms the console statements hand over: PRINT # and WRITE # with
// t on PRINT or WRITE, INPUT # and LINE INPUT # with t on the "#". LSET and
// RSET are core's: they write a FIELD variable's bytes in place.
void print_to_file(const Token*& t);
void write_to_file(const Token*& t);
void input_from_file(const Token*& t);
void line_input_from_file(const Token*& t);
void stmt_reset(const Token*& t);   // RESET
void stmt_lock(const Token*& t);    // LOCK [#]n [, rec | [first] TO last]
void stmt_unlock(const Token*& t);  // UNLOCK, the same forms
void stmt_width(const Token*& t);   // WIDTH [#n,] w

// Directories and whole files (dir_statements.cpp).
void stmt_kill(const Token*& t);
void stmt_name(const Token*& t);
void stmt_files(const Token*& t);  // FILES and DIR
void stmt_chdir(const Token*& t);
void stmt_mkdir(const Token*& t);
void stmt_rmdir(const Token*& t);
void stmt_getfiles(const Token*& t);
void stmt_getdrives(const Token*& t);
void stmt_bload(const Token*& t);
void stmt_bsave(const Token*& t);
void stmt_chain(const Token*& t);

// Crash-safe persistence (state_files.cpp).
void stmt_statewrite(const Token*& t);
void stmt_stateload(const Token*& t);
void stmt_filecopy(const Token*& t);
void stmt_filecommit(const Token*& t);
void stmt_sessionlock(const Token*& t);

// Connects the hooks of the executor and the console statements.
void install_hooks();

constexpr void install_file_statements(core::HandlerTable& table) {
  table[core::KW_OPEN] = stmt_open;
  table[core::KW_CLOSE] = stmt_close;
  table[core::KW_FIELD] = stmt_field;
  table[core::KW_GET] = stmt_get;
  table[core::KW_PUT] = stmt_put;
  table[core::KW_KILL] = stmt_kill;
  table[core::KW_NAME] = stmt_name;
  table[core::KW_FILES] = stmt_files;
  table[core::KW_DIR] = stmt_files;
  table[core::KW_CHDIR] = stmt_chdir;
  table[core::KW_MKDIR] = stmt_mkdir;
  table[core::KW_RMDIR] = stmt_rmdir;
  table[core::KW_BLOAD] = stmt_bload;
  table[core::KW_BSAVE] = stmt_bsave;
  table[core::KW_CHAIN] = stmt_chain;
}

inline constexpr core::NamedStatement kFileNamed[] = {
    {"STATEWRITE", stmt_statewrite}, {"STATELOAD", stmt_stateload}, {"FILECOPY", stmt_filecopy},
    {"FILECOMMIT", stmt_filecommit}, {"SESSIONLOCK", stmt_sessionlock}, {"GETFILES", stmt_getfiles},
    {"GETDRIVES", stmt_getdrives}, {"RESET", stmt_reset}, {"LOCK", stmt_lock}, {"UNLOCK", stmt_unlock},
    {"WIDTH", stmt_width},
};
inline constexpr int kFileNamedCount = static_cast<int>(sizeof kFileNamed / sizeof kFileNamed[0]);

}  // namespace files
