// Compiled execution: deciding when a statement runs natively, compiling its
// region, entering the code, the helpers it calls, and handing control back
// to the interpreter with its stacks as the interpreter would have them.
#include "jit/jit.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "host/shell.h"
#include "jit/native.h"
#include "jit/parfor.h"
#include "screen/console.h"
#include "screen/keyqueue.h"
#include "tools/profile.h"
#include "values/arrays.h"
#include "values/builtins.h"
#include "values/ops.h"
#include "values/store.h"
#include "values/strings.h"

namespace jit {

bool jit_on = true;

const RegionCode* running_code = nullptr;
bool profile_markers = false;
bool compiling_parfor = false;

namespace {

struct Region {
  RegionCode rc;
  NativeCode native;
  std::vector<std::uint64_t> counts;  // PROFILE: runs per statement not yet told to the profiler
};

std::uint32_t epoch = 1;
// Never destroyed: the interpreter thread may still be inside native code
// while the process exits, so nothing here is freed behind its back.
std::vector<Region*>& regions = *new std::vector<Region*>;
std::uint32_t regions_mode = 0;
constexpr std::uint64_t kNotCompilable = 1;
constexpr int kMaxNesting = 8;
int nesting = 0;
NativeFrame frames[kMaxNesting];
const char* listing_path = nullptr;

std::uint32_t mode_word() {
  std::uint32_t h = core::program.generation * 0x9E3779B1u;
  h ^= (values::table_generation() + 0x7F4A7C15u) * 0x85EBCA77u;
  h ^= (values::type_generation() + 0x165667B1u) * 0xC2B2AE3Du;
  h ^= epoch * 0x27D4EB2Fu;
  h ^= static_cast<std::uint32_t>(values::option_base) * 0x61C88647u;
  return h ? h : 1;
}

// The interpreter thread's sampling state, kept across region entries so
// that regions entered often are sampled like one long run.
std::uint64_t prof_rng = 0x2545F4914F6CDD1Dull;
std::int64_t prof_countdown = 513;
std::uint64_t prof_weight = 513;

void free_all() {
  fold_profile_counts();
  for (Region* r : regions) {
    release(&r->native);
    delete r;
  }
  regions.clear();
}

bool in_range(std::int64_t v, std::uint8_t t) {
  if (t == values::kInteger) return v >= -32768 && v <= 32767;
  if (t == values::kLong) return v >= -2147483648LL && v <= 2147483647LL;
  return true;
}

// Native code carries integers with their declared type; a value that left
// that type's range has the wider type the interpreter would give it.
void normalise(values::Value& v) {
  if (!values::is_integer_type(v.type)) return;
  while (!in_range(v.i, v.type)) ++v.type;
}

values::Value typed(const ValType& t, std::int64_t i, double d) {
  values::Value v;
  if (t.is_int()) {
    v = values::Value::integer(i, t.type);
    normalise(v);
  } else {
    v = values::Value::floating(d, t.type);
  }
  return v;
}

void write_listing(const Region& r) {
  std::FILE* f = std::fopen(listing_path, "a");
  if (!f) return;
  const RegionCode& rc = r.rc;
  // The block's address lets a sampling profile be matched to the listing.
  std::fprintf(f, "; region at line %u (%zu instructions, %zu bytes of code at %p)\n",
               core::line_index[rc.first_line].number, rc.code.size(), r.native.code_size,
               static_cast<const void*>(r.native.block));
  for (std::size_t i = 0; i < rc.code.size(); ++i) {
    const Instr& in = rc.code[i];
    const std::uint32_t from = r.native.offsets[i];
    const std::uint32_t to = i + 1 < rc.code.size() ? r.native.offsets[i + 1] : static_cast<std::uint32_t>(r.native.code_size);
    std::fprintf(f, "%4zu %-13s t=%u n=%u op=%lld  @%05x ", i, op_name(in.op), in.type, in.count,
                 static_cast<long long>(in.operand > 0xFFFFFFFFull ? 0 : in.operand), from);
    for (std::uint32_t k = from; k < to; ++k) std::fprintf(f, "%02x", r.native.block[k]);
    std::fprintf(f, "\n");
  }
  std::fclose(f);
}

Region* compile(std::uint32_t line, std::uint32_t pos) {
  auto* r = new Region;
  const char* why;
  if (!compile_region(line, pos, &r->rc, &why)) {
    delete r;
    return nullptr;
  }
  std::vector<int> depth(r->rc.code.size());
  if (const char* e = verify_stack_flow(r->rc.code.data(), static_cast<int>(r->rc.code.size()), depth.data())) {
    core::raise(e);  // a fault of the compiler, not of the program
    delete r;
    return nullptr;
  }
  if (generate(r->rc, depth.data(), &r->native)) {
    // No executable memory: the statements run in the interpreter.
    delete r;
    return nullptr;
  }
  r->counts.assign(r->rc.stmts.size(), 0);
  regions.push_back(r);
  if (listing_path) write_listing(*r);
  return r;
}

// The loops and GOSUBs native code has open go onto the interpreter's stacks.
void hand_over(const Region& r, NativeFrame& f) {
  // Leaving at a WHILE statement on the way back from its WEND: the
  // interpreter's WEND would already have popped that loop.
  const int w = r.rc.stmts[static_cast<std::size_t>(f.exit_stmt)].while_id;
  if (w >= 0 && f.mirror_top > f.mirror && f.mirror_top[-1].kind == kMirrorWhile &&
      static_cast<int>(f.mirror_top[-1].key & 0xFFFF) == w)
    --f.mirror_top;
  for (MirrorEntry* e = f.mirror; e < f.mirror_top; ++e) {
    const int id = static_cast<int>(e->key & 0xFFFF);
    if (e->kind == kMirrorFor) {
      const ForInfo& fi = r.rc.fors[static_cast<std::size_t>(id)];
      const ForSlot& s = f.fors[id];
      core::NativeFor nf{fi.d, typed(fi.limit, s.limit_i, s.limit_d), typed(fi.step, s.step_i, s.step_d),
                         fi.end_line, fi.end_pos, fi.for_line, fi.for_pos};
      (void)core::push_native_for(nf);
    } else if (e->kind == kMirrorWhile) {
      const WhileInfo& w = r.rc.whiles[static_cast<std::size_t>(id)];
      (void)core::push_native_while(w.line, w.pos);
    } else {
      const GosubSite& g = r.rc.gosubs[static_cast<std::size_t>(id)];
      (void)core::push_native_return(g.ret_line, g.ret_pos, g.if_depth);
    }
  }
  f.mirror_top = f.mirror;
}

bool run(Region* r, const core::Token*& t) {
  if (nesting >= kMaxNesting) {
    core::raise("JIT nesting too deep");
    return true;
  }
  NativeFrame& f = frames[nesting];
  f.desc_base = reinterpret_cast<std::uint8_t*>(values::descriptor_table());
  f.option_base = values::option_base;
  f.mirror_top = f.mirror;
  f.mirror_limit = f.mirror + kMirrorCapacity;
  f.sentinel = MirrorEntry{0, 0, 0};
  f.poll = kPollInterval;
  f.exit_stmt = 0;
  f.error_msg = 0;
  f.for_room = core::kMaxFor - core::for_depth();
  f.while_room = core::kMaxWhile - core::while_depth();
  f.gosub_room = core::kMaxGosub - core::gosub_depth();
  const bool profiling = tools::profiling();
  if (profiling) {
    tools::profile_statement(nullptr);  // the interpreter's statement ends here
    f.poll = prof_countdown;
    f.prof_stmts = r->rc.stmts.data();
    f.prof_rng = prof_rng;
    f.prof_weight = prof_weight;
    f.prof_info = nullptr;
  }

  std::memset(f.live, 0, sizeof f.live);
  // A loop the interpreter has open on a variable this region loops over:
  // such a FOR is the interpreter's to run (it replaces that loop).
  if (core::for_depth() > 0)
    for (std::size_t s = 0; s < r->rc.fors.size(); ++s)
      if (core::for_stack_uses(r->rc.fors[s].d)) f.live[s] = 1;
  const RegionCode* outer = running_code;
  running_code = &r->rc;
  ++nesting;
  const int code = r->native.entry(&f, nesting);
  --nesting;
  running_code = outer;
  if (profiling) {
    prof_rng = f.prof_rng;
    prof_weight = f.prof_weight;
    prof_countdown = f.prof_info ? profile_interval(&prof_rng) : f.poll;
    const std::size_t n = std::min<std::size_t>(r->counts.size(), kProfileSlots);
    for (std::size_t i = 0; i < n; ++i) {
      r->counts[i] += f.prof_runs[i];
      f.prof_runs[i] = 0;
    }
    // A GOSUB, RETURN or END that leaves the region is run again by the
    // interpreter, which counts it then.
    const auto e = static_cast<std::size_t>(f.exit_stmt);
    if ((code == kTransferGosub || code == kTransferReturn || code == kTransferEnd) && e < n && r->counts[e])
      --r->counts[e];
  }
  hand_over(*r, f);
  const StmtInfo& s = r->rc.stmts[static_cast<std::size_t>(f.exit_stmt)];
  switch (code) {
    case 0:
      core::error_at(s.line, s.pos, s.if_depth);
      if (f.error_msg) core::raise(inline_message(f.error_msg));
      return true;
    case kTransferGoto:
      core::resume_at(static_cast<std::uint32_t>(f.exit_target), 0, 0);
      return true;
    case kTransferResume:
    case kTransferGosub:
    case kTransferReturn:
    case kTransferEnd:
      // GOSUB leaving the region, RETURN to the interpreter's caller, END and
      // statements that are not compiled: the interpreter runs the statement.
      if (s.line == core::exec.line && core::exec.base + s.pos == t) return false;
      core::resume_at(s.line, s.pos, s.if_depth);
      return true;
    default:
      core::raise("Bytecode transfer error");
      return true;
  }
}

bool offer(const core::Token*& t) {
  if (!jit_on || core::err.flag || !core::compiled_execution_allowed()) return false;
  // Compiling is no part of the interpreted statement before.
  if (tools::profiling()) tools::profile_statement(nullptr);
  const std::uint32_t mode = mode_word();
  if (mode != regions_mode) {
    // The program, its variables or the JIT switch changed: every region
    // compiled before is out of date (tokens still naming one see its old
    // mode word and never use it).
    if (nesting == 0) free_all();
    regions_mode = mode;
  }
  auto* first = const_cast<core::Token*>(t);
  Region* r;
  if (first->cache[2].b == mode && first->cache[2].a) {
    if (first->cache[2].a == kNotCompilable) return false;
    r = reinterpret_cast<Region*>(first->cache[2].a);
  } else {
    r = compile(core::exec.line, core::token_index(t));
    if (core::err.flag) return true;
    first->cache[2] = {r ? reinterpret_cast<std::uint64_t>(r) : kNotCompilable, mode};
    if (!r) return false;
  }
  return run(r, t);
}

void stmt_jit(const core::Token*& t) {
  ++t;
  if (core::at_statement_end(t)) {
    screen::put_line(jit_on ? "JIT: ON" : "JIT: OFF");
    return;
  }
  if (t->kind == core::KW_ON) {
    ++t;
    jit_on = true;
    return;
  }
  if (t->kind == core::kTokIdent && std::strcmp(t->name(), "OFF") == 0) {
    ++t;
    jit_on = false;
    ++epoch;
    if (nesting == 0) free_all();
    return;
  }
  core::raise("Syntax error");
}

}  // namespace

const core::NamedStatement kJitNamed[1] = {{"JIT", stmt_jit}};

const char* inline_message(std::int32_t msg) {
  switch (msg) {
    case kMsgOverflow: return "Overflow";
    case kMsgDivisionByZero: return "Division by zero";
    case kMsgSubscript: return "Subscript out of range";
    case kMsgWrongSubscripts: return "Wrong number of subscripts";
    case kMsgNotDimensioned: return "Array not dimensioned";
    case kMsgIllegalCall: return "Illegal function call";
    default: return "JIT opcode error";
  }
}

void install() {
  core::offer_compiled_region = offer;
  if (const char* v = std::getenv("TAMBRIL_JIT")) jit_on = !(std::strcmp(v, "OFF") == 0 || std::strcmp(v, "0") == 0);
  listing_path = std::getenv("TAMBRIL_JIT_LIST");
}

std::uint32_t current_mode_word() { return mode_word(); }
std::size_t region_count() { return regions.size(); }

// --- helpers called from generated code ------------------------------------

int helper_binop(NativeFrame* f, int op) {
  normalise(f->tmp[0]);
  normalise(f->tmp[1]);
  values::Value r;
  if (!values::binary_op(static_cast<values::Op>(op), f->tmp[0], f->tmp[1], &r)) return 0;
  f->tmp[0].type = r.type;
  if (values::is_integer_type(r.type)) f->tmp[0].i = r.i;
  else f->tmp[0].d = r.d;
  return 1;
}

int helper_unary(NativeFrame* f, int code) {
  normalise(f->tmp[0]);
  values::Value r;
  const bool ok = code == 100 ? values::logical_not(f->tmp[0], &r)
                              : values::numeric_function(static_cast<values::NumFn>(code), f->tmp[0], &r);
  if (!ok) return 0;
  f->tmp[0].type = r.type;
  if (values::is_integer_type(r.type)) f->tmp[0].i = r.i;
  else f->tmp[0].d = r.d;
  return 1;
}

int helper_f2i(NativeFrame* f) {
  std::int64_t v;
  if (!values::float_to_int64(f->tmp[0].d, &v)) return 0;
  f->tmp[0].i = v;
  return 1;
}

void* helper_element(NativeFrame* f, values::Descriptor* d, int n) { return values::array_element(d, f->subs, n); }

int helper_statement(NativeFrame*, const core::Token* t, int stmt) {
  const StmtInfo& s = running_code->stmts[static_cast<std::size_t>(stmt)];
  core::error_at(s.line, s.pos, s.if_depth);
  const core::Token* p = t;
  core::run_statement(p);
  values::statement_boundary();
  if (core::err.flag) return 0;
  if (!core::at_statement_end(p)) {
    core::raise("Syntax Error");
    return 0;
  }
  return 1;
}

std::int64_t profile_interval(std::uint64_t* state) {
  std::uint64_t x = *state;
  x ^= x << 13;
  x ^= x >> 7;
  x ^= x << 17;
  *state = x;
  return static_cast<std::int64_t>(x % 1023) + 513;
}

void profile_end_sample(NativeFrame* f) {
  const std::uint64_t now = tools::profile_clock();
  tools::profile_sample(f->prof_info->line, f->prof_info->pos, now - f->prof_t0, f->prof_weight, parfor_active);
  f->prof_info = nullptr;
}

// Either the sample in progress ends here (and the next interval starts),
// or a sample starts: this statement is timed up to the next marker.
std::int64_t helper_profile(NativeFrame* f, int stmt) {
  if (f->prof_info) {
    profile_end_sample(f);
    f->prof_weight = static_cast<std::uint64_t>(profile_interval(&f->prof_rng));
    if (helper_poll(f)) return 0;
    return static_cast<std::int64_t>(f->prof_weight);
  }
  f->prof_info = &f->prof_stmts[stmt];
  f->prof_t0 = tools::profile_clock();
  return 1;
}

// Runs counted since the last fold.
void fold_profile_counts() {
  for (Region* r : regions) {
    for (std::size_t i = 0; i < r->counts.size(); ++i) {
      if (!r->counts[i]) continue;
      tools::profile_native_runs(r->rc.stmts[i].line, r->rc.stmts[i].pos, r->counts[i]);
      r->counts[i] = 0;
    }
  }
}

int helper_poll(NativeFrame* f) {
  if (f->prof_info && tools::profiling()) profile_end_sample(f);
  if (parfor_active) return parfor_poll();
  if (host::stop_requested() || core::event_pending.load(std::memory_order_relaxed) || screen::keys.has_break() ||
      screen::keys.debugger_request.load(std::memory_order_relaxed)) {
    core::exec.counter = 255;  // the run loop looks at the break key at once
    return 1;
  }
  return 0;
}

}  // namespace jit
