// PROFILE: statistics per program line, the statement marks of PROFILE
// MARK, the report, and the statement that switches it all.
#include "tools/profile.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "core/program.h"
#include "host/shell.h"
#include "jit/native.h"
#include "jit/region.h"
#include "screen/console.h"
#include "screen/framebuffer.h"

namespace tools {

namespace {

using core::Token;

constexpr std::uint32_t kMarksPerLine = core::kMaxTokens + 1;

struct LineStat {
  std::uint64_t int_runs;
  std::uint64_t jit_runs;
  std::atomic<std::uint64_t> cycles;
};

enum class Mode { off, sampled, exact };
Mode mode = Mode::off;
bool marking = false;
LineStat* stats = nullptr;          // by line index; allocated on first use
std::uint8_t* marks = nullptr;      // by line index and token position: a Mark
std::uint8_t* capable = nullptr;    // same: 0 unknown, 1 JIT-capable, 2 not
std::atomic<std::uint64_t> total{0};
std::uint64_t clock_cost = 0;       // one clock read, from the calibration
std::atomic<std::uint64_t> marker_cost{~0ull};  // the smallest sample on a REM line
std::uint32_t stats_generation = 0;  // the program version the statistics belong to

// The statement the interpreter is running, timed to the next event.
bool pending = false;
std::uint32_t pending_line = 0;
std::uint64_t pending_t0 = 0;

bool allocate() {
  if (stats) return true;
  stats = new (std::nothrow) LineStat[core::kMaxLines]();
  marks = static_cast<std::uint8_t*>(std::calloc(static_cast<std::size_t>(core::kMaxLines) * kMarksPerLine, 1));
  capable = static_cast<std::uint8_t*>(std::calloc(static_cast<std::size_t>(core::kMaxLines) * kMarksPerLine, 1));
  if (!stats || !marks || !capable) {
    core::raise("Out of memory");
    return false;
  }
  return true;
}

void clear_stats() {
  pending = false;
  total.store(0);
  marker_cost.store(~0ull);
  stats_generation = core::program.generation;
  if (!stats) return;
  for (std::uint32_t i = 0; i < core::kMaxLines; ++i) {
    stats[i].int_runs = stats[i].jit_runs = 0;
    stats[i].cycles.store(0, std::memory_order_relaxed);
  }
  std::memset(marks, 0, static_cast<std::size_t>(core::kMaxLines) * kMarksPerLine);
  std::memset(capable, 0, static_cast<std::size_t>(core::kMaxLines) * kMarksPerLine);
}

// Statistics of an older program version are gone (any edit clears them).
void check_generation() {
  if (stats && stats_generation != core::program.generation) clear_stats();
}

// Compiled code is made again with or without the profiling hooks: a new
// program version as far as compiled code is concerned (never 0).
void discard_compiled_code() {
  if (++core::program.generation == 0) core::program.generation = 1;
  stats_generation = core::program.generation;
}

void calibrate() {
  std::uint64_t best = ~0ull;
  for (int i = 0; i < 128; ++i) {
    const std::uint64_t a = profile_clock(), b = profile_clock();
    if (b >= a) best = std::min(best, b - a);
  }
  clock_cost = best == ~0ull ? 0 : best;
}

void add_cycles(std::uint32_t line, std::uint64_t c) {
  LineStat& s = stats[line];
  // Saturating: a total never wraps round to a small number.
  std::uint64_t old = s.cycles.load(std::memory_order_relaxed);
  while (!s.cycles.compare_exchange_weak(old, old + c < old ? ~0ull : old + c, std::memory_order_relaxed)) {
  }
  std::uint64_t t = total.load(std::memory_order_relaxed);
  while (!total.compare_exchange_weak(t, t + c < t ? ~0ull : t + c, std::memory_order_relaxed)) {
  }
}

void set_mark(std::uint32_t line, std::uint32_t pos, Mark m) {
  if (pos >= kMarksPerLine) return;
  std::atomic_ref<std::uint8_t>(marks[static_cast<std::size_t>(line) * kMarksPerLine + pos])
      .store(static_cast<std::uint8_t>(m), std::memory_order_relaxed);
}

// REM and ' lines: R, E, M not followed by a letter, digit or underscore.
bool rem_line(std::uint32_t line) {
  const char* b = core::line_body(line);
  const std::uint32_t n = core::line_body_length(line);
  std::uint32_t i = 0;
  while (i < n && b[i] == ' ') ++i;
  if (i < n && b[i] == '\'') return true;
  if (i + 3 > n) return false;
  auto up = [](char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c); };
  if (up(b[i]) != 'R' || up(b[i + 1]) != 'E' || up(b[i + 2]) != 'M') return false;
  if (i + 3 == n) return true;
  const char c = b[i + 3];
  return !((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_');
}

void hook(const Token* t) { profile_statement(t); }

void start(Mode m) {
  if (!allocate()) return;
  profile_statement(nullptr);
  const bool switching = mode != m;
  mode = m;
  core::profile_hook = hook;
  core::exact_profiling = m == Mode::exact;
  jit::profile_markers = m == Mode::sampled;
  calibrate();
  if (switching) discard_compiled_code();
  clear_stats();
}

void stop() {
  if (mode == Mode::off) return;
  profile_statement(nullptr);
  jit::fold_profile_counts();
  mode = Mode::off;
  core::profile_hook = nullptr;
  core::exact_profiling = false;
  jit::profile_markers = false;
  check_generation();  // kept, unless the program changed meanwhile
  discard_compiled_code();
}

double cycles_to_ms(std::uint64_t c) {
  const std::uint64_t rate = host::tsc_rate();
  return rate ? static_cast<double>(c) * 1000.0 / static_cast<double>(rate) : 0.0;
}

void report(bool all) {
  if (mode != Mode::off) profile_statement(nullptr);
  jit::fold_profile_counts();
  check_generation();
  std::vector<LineReport> rows = profile_lines();
  if (!all) {
    std::stable_sort(rows.begin(), rows.end(), [](const LineReport& a, const LineReport& b) { return a.cycles > b.cycles; });
    if (rows.size() > 20) rows.resize(20);
  }
  char buf[96];
  std::snprintf(buf, sizeof buf, "%6s %10s %10s %10s %7s %12s %7s | SOURCE", "LINE", "RUNS", "JITRUNS", "INTRUNS", "MODE",
                "TIME (ms)", "SHARE");
  screen::put_line(buf);
  const std::uint64_t all_cycles = total.load();
  for (const LineReport& r : rows) {
    const double share = all_cycles ? 100.0 * static_cast<double>(r.cycles) / static_cast<double>(all_cycles) : 0.0;
    std::snprintf(buf, sizeof buf, "%6u %10llu %10llu %10llu %7s %12.3f %6.1f%% | ", r.number,
                  static_cast<unsigned long long>(r.runs), static_cast<unsigned long long>(r.jit_runs),
                  static_cast<unsigned long long>(r.int_runs), r.mode.c_str(), cycles_to_ms(r.cycles), share);
    screen::put_text(buf);
    std::uint32_t index;
    if (core::find_line(r.number, &index)) {
      const char* body = core::line_body(index);
      const std::uint32_t len = core::line_body_length(index);
      for (std::uint32_t i = 0; i < len; ++i) screen::put_char(static_cast<std::uint8_t>(body[i]));
    }
    if (!screen::at_line_start()) screen::put_char(13);
  }
}

bool word(const Token* t, const char* w) { return t->kind == core::kTokIdent && std::strcmp(t->name(), w) == 0; }

}  // namespace

const core::NamedStatement kProfileNamed[1] = {{"PROFILE", stmt_profile}};

bool profiling() { return mode != Mode::off; }
bool profiling_exact() { return mode == Mode::exact; }
bool profile_marking() { return marking && stats; }

std::uint32_t profile_mode_bits() {
  switch (mode) {
    case Mode::sampled: return 1u << 29 | 1u << 30;
    case Mode::exact: return 1u << 29 | 2u << 30;
    default: return 0;
  }
}

std::uint64_t profile_clock() { return host::tsc_now(); }

void profile_statement(const Token* t) {
  if (!stats) return;
  const std::uint64_t now = profile_clock();
  if (pending) {
    const std::uint64_t c = now - pending_t0;
    add_cycles(pending_line, c > clock_cost ? c - clock_cost : 0);
    pending = false;
  }
  if (!t || mode == Mode::off || core::exec.line == core::kDirect) return;
  check_generation();
  const std::uint32_t line = core::exec.line;
  const std::uint32_t pos = core::token_index(t);
  ++stats[line].int_runs;
  if (pos < kMarksPerLine) {
    std::uint8_t& c = capable[static_cast<std::size_t>(line) * kMarksPerLine + pos];
    if (!c) c = jit::statement_capable(line, pos) ? 1 : 2;
    set_mark(line, pos, c == 1 ? Mark::capable : Mark::unsupported);
  }
  pending = true;
  pending_line = line;
  pending_t0 = profile_clock();
}

void profile_native_runs(std::uint32_t line, std::uint32_t pos, std::uint64_t runs) {
  if (!stats || line >= core::program.lines || stats_generation != core::program.generation) return;
  stats[line].jit_runs += runs;
  set_mark(line, pos, Mark::native);
}

void profile_sample(std::uint32_t line, std::uint32_t pos, std::uint64_t cycles, std::uint64_t weight, bool worker) {
  if (!stats || mode == Mode::off || line >= core::program.lines) return;
  cycles = cycles > clock_cost ? cycles - clock_cost : 0;
  if (rem_line(line)) {
    // A REM line's statement does nothing: what it measures is the cost of
    // a marker and a sample, which every other sample also carries.
    std::uint64_t best = marker_cost.load(std::memory_order_relaxed);
    while (cycles < best && !marker_cost.compare_exchange_weak(best, cycles, std::memory_order_relaxed)) {
    }
    return;
  }
  const std::uint64_t overhead = marker_cost.load(std::memory_order_relaxed);
  if (overhead != ~0ull) cycles = cycles > overhead ? cycles - overhead : 0;
  const unsigned __int128 charged = static_cast<unsigned __int128>(cycles) * weight;
  add_cycles(line, charged > ~0ull ? ~0ull : static_cast<std::uint64_t>(charged));
  if (worker) set_mark(line, pos, Mark::native);
}

Mark profile_mark(std::uint32_t line, std::uint32_t pos) {
  if (!stats || pos >= kMarksPerLine) return Mark::none;
  jit::fold_profile_counts();
  check_generation();
  return static_cast<Mark>(
      std::atomic_ref<std::uint8_t>(marks[static_cast<std::size_t>(line) * kMarksPerLine + pos]).load());
}

std::string profile_mode_text(std::uint64_t jit_runs, std::uint64_t int_runs, std::uint64_t cycles) {
  if (jit_runs && !int_runs) return "JIT";
  if (int_runs && !jit_runs) return "INT";
  if (jit_runs && int_runs) {
    const unsigned __int128 runs = static_cast<unsigned __int128>(jit_runs) + int_runs;
    std::uint64_t pct = static_cast<std::uint64_t>((static_cast<unsigned __int128>(jit_runs) * 200 + runs) / (2 * runs));
    if (pct > 99) pct = 99;
    char buf[16];
    std::snprintf(buf, sizeof buf, "MIX %2lluJ", static_cast<unsigned long long>(pct));
    return buf;
  }
  return cycles ? "PAR" : "-";
}

std::vector<LineReport> profile_lines() {
  std::vector<LineReport> rows;
  if (!stats) return rows;
  jit::fold_profile_counts();
  check_generation();
  for (std::uint32_t i = 0; i < core::program.lines; ++i) {
    const LineStat& s = stats[i];
    const std::uint64_t c = s.cycles.load(std::memory_order_relaxed);
    if (!s.int_runs && !s.jit_runs && !c) continue;
    rows.push_back(LineReport{core::line_index[i].number, s.int_runs + s.jit_runs, s.jit_runs, s.int_runs, c,
                              profile_mode_text(s.jit_runs, s.int_runs, c)});
  }
  return rows;
}

bool profile_list_line(std::uint32_t line) {
  if (!stats) return false;
  const Token* base = core::line_tokens(line);
  if (core::err.flag) core::clear_error_flag();  // a line that does not tokenize is listed as it stands
  if (!base) return false;
  const char* body = core::line_body(line);
  const std::uint32_t len = core::line_body_length(line);
  std::vector<std::pair<std::uint32_t, Mark>> spans;  // from column: mark (none ends a coloured part)
  for (std::uint32_t p = 0; base[p].kind != core::kTokEnd && p < kMarksPerLine; ++p) {
    const Mark m = profile_mark(line, p);
    const std::uint8_t k = base[p].kind;
    if (m != Mark::none) spans.emplace_back(base[p].column, m);
    else if (k == ':' || k == core::KW_ELSE || k == core::KW_THEN) spans.emplace_back(base[p].column, Mark::none);
  }
  if (spans.empty()) return false;
  const std::uint32_t fg = screen::con.fg;
  std::size_t next = 0;
  for (std::uint32_t i = 0; i < len; ++i) {
    while (next < spans.size() && spans[next].first <= i) {
      switch (spans[next].second) {
        case Mark::native: screen::con.fg = screen::kPalette[10]; break;
        case Mark::capable: screen::con.fg = screen::kPalette[14]; break;
        case Mark::unsupported: screen::con.fg = screen::kPalette[12]; break;
        default: screen::con.fg = fg; break;
      }
      ++next;
    }
    screen::put_char(static_cast<std::uint8_t>(body[i]));
  }
  screen::con.fg = fg;
  return true;
}

void stmt_profile(const Token*& t) {
  ++t;
  if (core::at_statement_end(t)) return report(false);
  if (word(t, "ALL")) {
    ++t;
    return report(true);
  }
  if (t->kind == core::KW_ON) {
    ++t;
    const bool mark = word(t, "MARK");
    if (mark) ++t;
    start(Mode::sampled);
    if (mark) marking = true;
    return;
  }
  if (word(t, "MARK")) {
    ++t;
    if (word(t, "OFF")) {
      ++t;
      marking = false;
      return;
    }
    if (t->kind == core::KW_ON) ++t;
    start(Mode::sampled);
    marking = true;
    return;
  }
  if (word(t, "JIT") || word(t, "SAMPLE")) {
    ++t;
    return start(Mode::sampled);
  }
  if (word(t, "EXACT") || word(t, "INTERPRETER")) {
    ++t;
    return start(Mode::exact);
  }
  if (word(t, "OFF")) {
    ++t;
    return stop();
  }
  if (t->kind == core::KW_CLEAR) {
    ++t;
    profile_statement(nullptr);
    jit::fold_profile_counts();
    clear_stats();
    return;
  }
  core::raise("Syntax error");
}

}  // namespace tools
