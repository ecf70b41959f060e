// Compiled execution as the rest of the system sees it.
#pragma once
#include <cstddef>

#include "core/statements.h"

namespace jit {

// Installs the executor's hook (the JIT is ON at start; the environment
// variable TAMBRIL_JIT=OFF starts it off, for comparing the two paths, and
// TAMBRIL_JIT_LIST=file appends a listing of every compiled region: bytecode
// beside native offsets and bytes).
void install();
// Read before every statement the interpreter runs, so it is a plain flag.
extern bool jit_on;
inline bool enabled() { return jit_on; }
// What compiled code depends on (program version, variable table, types,
// OPTION BASE, the JIT switch): code made under another word is out of date.
std::uint32_t current_mode_word();
std::size_t region_count();

// JIT ON | JIT OFF | JIT
extern const core::NamedStatement kJitNamed[1];

}  // namespace jit
