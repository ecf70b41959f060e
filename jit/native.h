// The native side of compiled regions: the frame generated code works in,
// the runtime helpers it calls, and the code generator's entry point.
#pragma once
#include <cstddef>
#include <cstdint>

#include "core/token.h"
#include "jit/region.h"
#include "values/types.h"
#include "values/variables.h"

namespace jit {

// The loops and GOSUBs native code has open, in the order the interpreter
// would have pushed them; handed to the interpreter's stacks on every exit.
struct MirrorEntry {
  std::uint32_t key;   // kind << 16 | id
  std::uint32_t kind;  // kMirrorFor, kMirrorWhile, kMirrorGosub
  std::uint64_t ret;   // GOSUB: native address to return to
};
enum : std::uint32_t { kMirrorFor = 1, kMirrorWhile = 2, kMirrorGosub = 3 };
constexpr int kMirrorCapacity = 256;
constexpr int kMaxForSlots = 64;
constexpr std::int64_t kPollInterval = 1024;  // backward branches between polls
constexpr int kProfileSlots = 512;

struct ForSlot {
  std::int64_t limit_i;
  double limit_d;
  std::int64_t step_i;
  double step_d;
  std::int64_t sign;
  std::int64_t limit_in_range;  // the limit clamped to the counter's type (integer counters)
};

struct NativeFrame {
  std::int64_t spill[8];    // evaluation-stack slots around helper calls
  double spill_f[8];
  values::Value tmp[2];     // helper operands and results
  std::int64_t subs[8];     // subscripts for the multi-dimensional helper
  std::uint8_t* desc_base;  // the descriptor table
  std::int64_t option_base;
  MirrorEntry* mirror_top;
  MirrorEntry* mirror_limit;
  std::int64_t poll;
  std::int32_t exit_stmt;
  std::int32_t error_msg;   // an inline check's message (kMsg*), 0 when a helper raised
  std::int32_t exit_target; // GOTO leaving the region: the target's line index
  std::int32_t for_room, while_room, gosub_room;
  std::uint8_t* saved_rsp;   // the machine stack at entry (GOSUBs push below it)
  std::uint8_t* gosub_floor; // the lowest it may go: the interpreter's GOSUB limit
  ForSlot fors[kMaxForSlots];
  std::uint8_t live[kMaxForSlots];  // FOR slot open (or blocked by an interpreter loop)
  MirrorEntry sentinel;             // below the mirror: never matches a key
  MirrorEntry mirror[kMirrorCapacity];
  // PROFILE (regions compiled with profiled statement markers). Every
  // marker counts down the poll register; reaching 0 there, the statement
  // is timed up to the next marker or backward branch, the time standing
  // for the interval of markers counted down (prof_weight). Runs are
  // counted per statement (the first kProfileSlots of a region).
  std::uint64_t prof_runs[kProfileSlots];
  const StmtInfo* prof_stmts;
  const StmtInfo* prof_info;  // the statement being timed
  std::uint64_t prof_weight;
  std::uint64_t prof_rng;
  std::uint64_t prof_t0;
  // Hypercomplex values on the evaluation stack (one record per depth; the
  // depth's registers stay unused), and a product or inverse before its
  // check.
  values::Hyper hyp[8];
  values::Hyper hyp_out, hyp_inv;
};

enum : std::int32_t {
  kMsgNone = 0,
  kMsgOverflow,
  kMsgDivisionByZero,
  kMsgSubscript,
  kMsgWrongSubscripts,
  kMsgNotDimensioned,
  kMsgIllegalCall,
};
const char* inline_message(std::int32_t msg);

// Transfer codes native code returns (0: an error is pending).
enum : int { kTransferResume = 1, kTransferGoto = 2, kTransferGosub = 3, kTransferReturn = 4, kTransferEnd = 5 };

using RegionEntry = int (*)(NativeFrame* frame, int level);

struct NativeCode {
  std::uint8_t* block = nullptr;  // code, then (page-aligned) nothing else
  std::size_t block_size = 0;
  std::size_t code_size = 0;
  RegionEntry entry = nullptr;
  std::vector<std::uint32_t> offsets;  // native offset of each instruction (listing)
};

// Verified bytecode to executable memory. On failure returns the message
// ("JIT executable memory allocation failed", ...) and leaves nothing behind.
const char* generate(const RegionCode& rc, const int* depth, NativeCode* out);
// Division by a constant d >= 2 as a multiply: q = hi64(n * magic) (+ n when
// magic is negative) >> shift, plus one when n is negative.
struct DivMagic {
  std::int64_t magic;
  int shift;
};
DivMagic div_magic(std::int64_t d);
void release(NativeCode* code);

// PSET/PRESET and LINE compiled for PARFOR workers take their arguments from
// the evaluation stack (coordinates, then the colour, then LINE's style);
// the instruction's operand describes them.
enum : std::uint64_t {
  kDrawPreset = 1,
  kDrawStep = 2,       // PSET's point, LINE's end point
  kDrawFromStep = 4,   // LINE's start point
  kDrawHasStart = 8,   // LINE (x,y)-...; without it LINE -(x,y) starts at the last point
  kDrawColourShift = 4,  // 2 bits: 0, 1 or 3 colour values
  kDrawBoxShift = 6,     // 2 bits
  kDrawBoxOutline = 1,
  kDrawBoxFilled = 2,
  kDrawStyle = 256,
  kDrawXor = 512,
  kDrawLine = 1024,    // LINE (else PSET or PRESET)
};

// Runtime helpers (called from generated code).
int helper_binop(NativeFrame* f, int op);
int helper_unary(NativeFrame* f, int code);
int helper_f2i(NativeFrame* f);
void* helper_element(NativeFrame* f, values::Descriptor* d, int n);
int helper_statement(NativeFrame* f, const core::Token* t, int stmt);
int helper_poll(NativeFrame* f);
// Drawing in a PARFOR worker: the instruction's shape and its values in
// f->subs (bit k of float_mask set: value k is a binary64, else an int64).
int helper_draw(NativeFrame* f, std::int64_t shape, std::int64_t float_mask);
// A profiled marker's countdown ran out: the next countdown, or 0 when the
// region must hand over to the interpreter (break, events).
std::int64_t helper_profile(NativeFrame* f, int stmt);
// Statement markers carry the profiling flag while this is set (PROFILE):
// 1 counts runs and samples, 2 (PARFOR bodies) only samples.
extern bool profile_markers;
extern bool compiling_parfor;
// The next sampling interval, 513..1535 markers, from a xorshift state.
std::int64_t profile_interval(std::uint64_t* state);
// Ends the sample in progress (its statement ended at a backward branch).
void profile_end_sample(NativeFrame* f);
// Adds the run counts native code gathered to the profiler's lines.
void fold_profile_counts();
extern const RegionCode* running_code;  // the region a helper runs for

}  // namespace jit
