// PARFOR: a counted loop whose iterations run as native code on a pool of
// worker threads (the interpreter thread is worker 0), after an analysis
// that either proves the body safe for that or refuses it with the
// statement, the reason and a workaround.
#pragma once
#include <cstdint>

#include "core/token.h"

namespace jit {

void stmt_parfor(const core::Token*& t);

// True while workers run a body: the poll helper of native code then asks
// the loop (stop flag, Esc) instead of handing control to the interpreter.
// Written by the interpreter thread only around a loop's run.
extern bool parfor_active;
int parfor_poll();

// The line of the most recent refusal or worker error (for tests and AUDIT).
const char* parfor_last_refusal();

}  // namespace jit
