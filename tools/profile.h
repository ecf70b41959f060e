// PROFILE: a per-line profiler for interpreted statements and native code.
//
// Interpreted statements are counted and timed one by one. Native code
// counts its statements in per-region counters and times one statement in
// every 513..1535 (a sample whose time stands for all the runs between);
// PARFOR workers only sample, adding their time to the shared totals
// atomically.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/statements.h"
#include "core/token.h"

namespace tools {

// PROFILE [ALL] | ON [MARK] | MARK [ON|OFF] | JIT | SAMPLE | EXACT |
// INTERPRETER | OFF | CLEAR
void stmt_profile(const core::Token*& t);
extern const core::NamedStatement kProfileNamed[1];

bool profiling();        // statistics are being gathered
bool profiling_exact();  // PROFILE EXACT / INTERPRETER: no compiled code
// The two profiling-mode bits of PARFOR's region-cache key (bits 30 and 31)
// and bit 29 (profiling active).
std::uint32_t profile_mode_bits();

// The interpreter is about to run the statement at t (null: no interpreted
// statement runs now, e.g. native code takes over or the run ended).
void profile_statement(const core::Token* t);
// Native code: runs counted per statement, and one timed sample standing
// for `weight` runs (from a PARFOR worker when `worker`).
void profile_native_runs(std::uint32_t line, std::uint32_t pos, std::uint64_t runs);
void profile_sample(std::uint32_t line, std::uint32_t pos, std::uint64_t cycles, std::uint64_t weight, bool worker);
std::uint64_t profile_clock();

// How a statement last ran, for LIST under PROFILE MARK.
enum class Mark : std::uint8_t { none, native, capable, unsupported };
Mark profile_mark(std::uint32_t line, std::uint32_t pos);
bool profile_marking();
// LIST's colours for a line under PROFILE MARK; false when it has none.
bool profile_list_line(std::uint32_t line);

// One line of the report, for tests: RUNS, JITRUNS, INTRUNS, cycles, MODE.
struct LineReport {
  std::uint32_t number;
  std::uint64_t runs, jit_runs, int_runs, cycles;
  std::string mode;
};
std::vector<LineReport> profile_lines();
std::string profile_mode_text(std::uint64_t jit_runs, std::uint64_t int_runs, std::uint64_t cycles);

}  // namespace tools
