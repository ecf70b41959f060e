// PARFOR: header, safety analysis, the compiled-body cache, the worker pool
// and the run of one loop.
//
// Compiled code addresses every scalar and array descriptor relative to the
// frame's descriptor base (RBX), so one compiled body serves every worker:
// each worker has its own image of the descriptor table, in which the
// entries the body touches are copies of the shared ones made when the loop
// starts. Scalars are therefore private (and never copied back); array
// descriptors are copied too, but their block pointer leads to the shared
// elements, which the analysis allows to be stored only at subscripts that
// are the loop variable itself.
#include "jit/parfor.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/sysinfo.h"
#include "jit/jit.h"
#include "jit/native.h"
#include "jit/region.h"
#include "screen/graphics.h"
#include "screen/keyqueue.h"
#include "tools/profile.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/builtins.h"
#include "values/eval.h"
#include "values/store.h"
#include "values/variables.h"

namespace jit {

bool parfor_active = false;

namespace {

// The THEN or GOTO that ends an IF's condition (or the line's end), outside
// parentheses.
const core::Token* condition_end(const core::Token* e) {
  int depth = 0;
  for (; e->kind != core::kTokEnd; ++e) {
    if (e->kind == '(') ++depth;
    else if (e->kind == ')') --depth;
    else if (depth <= 0 && (e->kind == core::KW_THEN || e->kind == core::KW_GOTO)) break;
  }
  return e;
}

using core::Token;
using values::Descriptor;

constexpr int kMaxWorkers = 32;
constexpr int kMaxPrivate = 512;
constexpr std::size_t kMaxBodies = 1024;
constexpr std::size_t kRefusalSize = 512;
constexpr std::size_t kErrorTextSize = 96;  // 95 characters and the terminator
constexpr int kMaxRegionFrames = 16;        // nested GOSUBs per worker iteration

// --- refusals ----------------------------------------------------------------

char refusal[kRefusalSize];
std::uint32_t refusal_line = core::kDirect;

void append(const char* s) {
  std::size_t n = std::strlen(refusal);
  while (*s && n < kRefusalSize - 1) refusal[n++] = *s++;
  refusal[n] = 0;
}

bool at_end(const Token* t) { return t->kind == core::kTokEnd || t->kind == ':' || t->kind == core::KW_ELSE; }

// The end of the statement at t: ":", ELSE or the line's end outside brackets.
const Token* statement_end(const Token* t) {
  int depth = 0;
  for (; t->kind != core::kTokEnd; ++t) {
    if (t->kind == '(') ++depth;
    else if (t->kind == ')') --depth;
    else if (depth <= 0 && (t->kind == ':' || t->kind == core::KW_ELSE)) break;
  }
  return t;
}

// The statement as the user wrote it (an IF with its branches).
std::string statement_text(std::uint32_t line, std::uint32_t pos) {
  const Token* base = line == core::kDirect ? nullptr : core::line_tokens(line);
  if (!base) return "<unknown statement>";
  const char* body = core::line_body(line);
  const std::uint32_t length = core::line_body_length(line);
  const Token* t = base + pos;
  const Token* e = t;
  if (t->kind == core::KW_IF) {
    while (e->kind != core::kTokEnd) ++e;
  } else {
    e = statement_end(t + 1);
  }
  std::uint32_t from = t->column, to = e->kind == core::kTokEnd ? length : e->column;
  if (to > length) to = length;
  while (to > from && body[to - 1] == ' ') --to;
  if (from >= to) return "<unknown statement>";
  return std::string(body + from, to - from);
}

// Only the first refusal of an analysis is kept.
void refuse(std::uint32_t line, std::uint32_t pos, const char* reason, const char* workaround) {
  if (refusal[0]) return;
  append("PARFOR cannot use \"");
  append(statement_text(line, pos).c_str());
  append("\". Reason: ");
  append(reason ? reason : "this code is not safe for parallel execution.");
  append(" Workaround: ");
  append(workaround ? workaround : "use ordinary FOR for this loop.");
  refusal_line = line;
}

const char* const kForWorkaroundInteger =
    "use an integer start/limit and calculate fractional values from the loop variable inside the body, or use FOR.";
const char* const kPathWorkaround =
    "make every iteration path reach NEXT without END/RETURN/GOTO outside the PARFOR block, or use FOR.";

// Functions and pseudo-variables whose value depends on state other workers
// or the host change while the loop runs.
const char* const kUnsafeNames[] = {
    "TIMER",   "CSRLIN",     "TXTMAXX",  "TXTMAXY",      "SCRNADR", "GRAPITCH", "MOUSEPRESENT",
    "KEYSTATE", "LOMEM",     "HIMEM",    "FREEBOT",      "FREETOP", "VIDEOMODES", "MOUSEX",
    "MOUSEY",  "MOUSEB",     "MOUSEWHEEL", "NETPRESENT", "HTTPSTATUS", "PEEK",  "PEEK16",
    "PEEK32",  "PEEK64",     "TCPCONNECTED", "TCPEOF",   "POINT",   "SCREENCHAR", "COMMANDLINECOUNT",
};

bool unsafe_name(const char* name) {
  for (const char* n : kUnsafeNames)
    if (std::strcmp(n, name) == 0) return true;
  // KEYSTATE is also read as KEYSTATEAVAILABLE.
  return std::strcmp(name, "KEYSTATEAVAILABLE") == 0;
}

// --- the body walk -----------------------------------------------------------

struct Loop {
  const char* var = nullptr;         // the loop variable's name as written
  std::uint32_t header_line = 0, header_pos = 0;
  std::uint32_t first = 0;           // the first body line
  std::uint32_t next_line = 0, next_pos = 0;  // the matching NEXT
  std::uint32_t after_pos = 0;       // behind the NEXT statement
  bool has_gosub = false;
  bool draws = false;
};

class Walk {
 public:
  explicit Walk(const Loop& l) : L(l) {}
  void run();
  // One statement of a subroutine the body calls (found by the graph walk):
  // the same checks, except that its jumps may go anywhere the compiled
  // graph can follow and whether it is native is the graph's question.
  void subroutine_statement(std::uint32_t at_line, std::uint32_t pos);

 private:
  const Loop& L;
  std::uint32_t line = 0;
  const Token* base = nullptr;
  bool sub = false;

  bool refused() const { return refusal[0] != 0; }
  void no(const Token* at, const char* reason, const char* workaround) {
    refuse(line, static_cast<std::uint32_t>(at - base), reason, workaround);
  }
  void expression(const Token* stmt, const Token* from, const Token* to, const Token* target);
  void jump(const Token* stmt, const Token* number, bool gosub);
  void array_store(const Token* stmt, const Token* name);
  void graphics(const Token* stmt, const Token* end);
  void transform(const Token* stmt);
  void statement(const Token* stmt, const Token* end);
};

// Every identifier of an expression: worker-unsafe functions, VARPTR, DEF FN
// calls and reads of arrays that are not there to share.
void Walk::expression(const Token* stmt, const Token* from, const Token* to, const Token* target) {
  for (const Token* t = from; t < to && !refused(); ++t) {
    if (t->kind != core::kTokIdent) continue;
    const char* name = t->name();
    if (unsafe_name(name)) {
      const std::string reason = std::string(name) +
                                 " is a runtime function whose value comes from state that other workers or the "
                                 "host change (time, screen, mouse, memory or network).";
      no(stmt, reason.c_str(),
         "if one value is enough for every worker, evaluate it before PARFOR into a numeric scalar and use that "
         "scalar inside the loop; otherwise use FOR.");
      return;
    }
    if (std::strcmp(name, "VARPTR") == 0) {
      no(stmt, "VARPTR exposes process-wide memory addresses, which are not worker-private.",
         "calculate the address outside PARFOR, avoid pointer-style memory access in the parallel body, or use FOR.");
      return;
    }
    if (name[0] == 'F' && name[1] == 'N') {
      no(stmt, "DEF FN evaluation still uses shared interpreter state and is not worker-local yet.",
         "inline the expression, replace it with JIT-compatible arithmetic/GOSUB code, or use FOR.");
      return;
    }
    if (t == target || t[1].kind != '(' || values::find_builtin(name) >= 0 || values::find_pseudo(name) >= 0)
      continue;
    const std::uint8_t type = values::type_of_name(name);
    const Descriptor* d = values::is_numeric_type(type) ? values::find_descriptor(name, true, type) : nullptr;
    if (!d || !d->array_block()) {
      no(stmt, "the array is not an existing numeric array that can be shared read-only by the workers.",
         "DIM the numeric array before PARFOR, keep it read-only inside the loop, or use FOR.");
      return;
    }
  }
}

void Walk::jump(const Token* stmt, const Token* number, bool gosub) {
  if (number->kind != core::kTokNumber || number->type > values::kInt64) return;  // not literal: not native
  const std::int64_t n = number->i64();
  std::uint32_t index;
  if (n < 0 || n > 4294967294ll || !core::find_line(static_cast<std::uint32_t>(n), &index)) {
    if (gosub)
      no(stmt, "this GOSUB target does not resolve to a program line.", "fix the target line number or use FOR.");
    else
      no(stmt, "this GOTO target does not resolve to a program line.", "fix the target line number or use FOR.");
    return;
  }
  const bool inside = index >= L.first && (index < L.next_line || (!gosub && index == L.next_line));
  if (inside || gosub || sub) return;  // the compiled graph follows calls, and jumps inside subroutines
  if (gosub)
    no(stmt,
       "this GOSUB cannot stay entirely inside the native JIT, and PARFOR workers are not allowed to fall back to "
       "the interpreter.",
       "make the GOSUB target fully JIT-compatible, move unsupported commands out of that subroutine, or use FOR.");
  else
    no(stmt,
       "this GOTO leaves the PARFOR body, so one worker could escape its iteration independently of the others.",
       "keep the GOTO target inside the PARFOR...NEXT block, refactor the external code into a JIT-compatible "
       "GOSUB, or use FOR.");
}

// name(subscripts) = ...: a shared array, written only where one subscript
// is exactly the loop variable, so that no two workers write one element.
void Walk::array_store(const Token* stmt, const Token* name) {
  const std::uint8_t type = values::type_of_name(name->name());
  const Descriptor* d = values::is_numeric_type(type) ? values::find_descriptor(name->name(), true, type) : nullptr;
  if (!d || !d->array_block()) {
    no(stmt, "the target is not an existing numeric/hypercomplex array that PARFOR can share.",
       "DIM the array before PARFOR, or use FOR.");
    return;
  }
  bool disjoint = false;
  int depth = 0;
  const Token* arg = name + 2;
  for (const Token* t = name + 2; t->kind != core::kTokEnd; ++t) {
    if (t->kind == '(') {
      ++depth;
    } else if (t->kind == ')' || (t->kind == ',' && depth == 0)) {
      if (depth == 0) {
        if (t == arg + 1 && arg->kind == core::kTokIdent && std::strcmp(arg->name(), L.var) == 0) disjoint = true;
        arg = t + 1;
        if (t->kind == ')') break;
      } else {
        --depth;
      }
    }
  }
  if (!disjoint)
    no(stmt,
       "this shared array write is not provably disjoint between workers. PARFOR accepts stores only when one "
       "subscript is exactly the PARFOR variable.",
       "write A(...,I,...)=... under PARFOR I so each worker owns a distinct element/slice, move the write outside "
       "PARFOR, or use FOR.");
}

// PSET, PRESET and LINE: an explicit colour and no XOR.
void Walk::graphics(const Token* stmt, const Token* end) {
  int depth = 0;
  bool colour = false, xor_mode = false, first_field = true;
  for (const Token* t = stmt + 1; t < end; ++t) {
    if (t->kind == '(') {
      ++depth;
    } else if (t->kind == ')') {
      --depth;
    } else if (depth == 0 && t->kind == ',' && first_field) {
      // The first field behind the coordinates is the colour (it may be empty).
      first_field = false;
      const Token* c = t + 1;
      const bool box = c->kind == core::kTokIdent && (!std::strcmp(c->name(), "B") || !std::strcmp(c->name(), "BF"));
      colour = c < end && c->kind != ',' && c->kind != core::KW_XOR && !box;
    } else if (depth == 0 && t->kind == core::KW_XOR) {
      xor_mode = true;
    }
  }
  if (stmt->kind == core::KW_LINE) {
    if (xor_mode) {
      no(stmt, "LINE XOR reads and modifies existing pixels; overlapping workers could lose updates.",
         "draw XOR overlays before/after PARFOR, or use FOR for XOR drawing.");
      return;
    }
    if (!colour)
      no(stmt, "PARFOR LINE needs an explicit colour so workers do not depend on shared COLOR state.",
         "use LINE (...)-(...),color or LINE (...)-(...),r,g,b [B|BF], or use FOR.");
    return;
  }
  if (!colour)
    no(stmt, "PARFOR PSET needs an explicit colour; omitted/default colour depends on shared graphics state.",
       "use PSET(x,y),color or PSET(x,y),r,g,b with independent output pixels, or use FOR.");
}

// Drawing in parallel needs pixel coordinates that no shared transform changes.
void Walk::transform(const Token* stmt) {
  if (screen::gfx.window || screen::gfx.view)
    no(stmt, "parallel drawing under WINDOW/VIEW depends on shared coordinate-transform graphics state.",
       "turn WINDOW and VIEW off before PARFOR, precompute screen coordinates, or use FOR.");
}

void Walk::statement(const Token* stmt, const Token* end) {
  switch (stmt->kind) {
    case core::KW_PRINT:
      no(stmt,
         "PRINT writes to shared text/file/window output, so worker output order would be nondeterministic.",
         "store results in private scalars or provably-disjoint arrays and PRINT them after NEXT, or use FOR.");
      return;
    case core::KW_LOCATE:
      no(stmt, "LOCATE changes the shared text cursor, which has no deterministic order between PARFOR workers.",
         "move LOCATE before/after PARFOR, use disjoint graphics output instead, or use FOR.");
      return;
    case core::KW_COLOR:
      no(stmt, "COLOR changes shared graphics state for all workers.",
         "set COLOR before PARFOR and leave it unchanged until NEXT, or use FOR.");
      return;
    case core::KW_END:
      if (!at_end(stmt + 1)) break;
      no(stmt,
         "END would terminate the whole BASIC program from one worker while other workers are still running.",
         "move END after NEXT, restructure the condition so the iteration reaches NEXT, or use FOR.");
      return;
    case core::KW_RETURN:
      if (!L.has_gosub && !sub)
        no(stmt, "at least one reachable control-flow path does not return to the matching NEXT.", kPathWorkaround);
      break;
    case core::KW_GOTO:
    case core::KW_GOSUB:
      expression(stmt, stmt + 1, end, nullptr);
      if (!refused()) jump(stmt, stmt + 1, stmt->kind == core::KW_GOSUB);
      break;
    case core::KW_PSET:
    case core::KW_PRESET:
    case core::KW_LINE:
      expression(stmt, stmt + 1, end, nullptr);
      if (!refused()) graphics(stmt, end);
      if (!refused()) transform(stmt);
      break;
    case core::KW_LET:
    case core::kTokIdent: {
      const Token* name = stmt->kind == core::KW_LET ? stmt + 1 : stmt;
      expression(stmt, name, end, name);
      if (!refused() && name->kind == core::kTokIdent && name[1].kind == '(') array_store(stmt, name);
      break;
    }
    default:
      expression(stmt, stmt + 1, end, nullptr);
      break;
  }
  if (refused() || sub) return;
  if (!statement_capable(line, static_cast<std::uint32_t>(stmt - base)))
    no(stmt, "this statement has no fully native JIT implementation; PARFOR workers cannot fall back to the interpreter.",
       "move this command before/after PARFOR, rewrite it using JIT-supported commands, or change PARFOR to FOR.");
}

// Every statement of every body line, THEN and ELSE parts as statements of
// their own, up to the matching NEXT.
void Walk::run() {
  for (line = L.first; line <= L.next_line && !refused(); ++line) {
    base = core::line_tokens(line);
    if (!base) return;  // the tokenizer's error is pending
    const Token* stop = line == L.next_line ? base + L.next_pos : nullptr;
    const Token* t = base;
    while (t->kind != core::kTokEnd && t != stop && !refused()) {
      if (t->kind == ':') {
        ++t;
        continue;
      }
      if (t->kind == core::KW_ELSE || t->kind == core::KW_THEN) {
        const Token* kw = t++;
        if (t->kind == core::kTokNumber) {
          jump(kw, t, false);
          ++t;
        }
        continue;
      }
      if (t->kind == core::KW_REM) break;
      if (t->kind == core::KW_IF) {
        const Token* s = t;
        const Token* e = condition_end(t + 1);
        expression(s, s + 1, e, nullptr);
        if (!refused() && !statement_capable(line, static_cast<std::uint32_t>(s - base)))
          no(s,
             "this statement has no fully native JIT implementation; PARFOR workers cannot fall back to the "
             "interpreter.",
             "move this command before/after PARFOR, rewrite it using JIT-supported commands, or change PARFOR to "
             "FOR.");
        if (e->kind == core::KW_GOTO) {
          jump(s, e + 1, false);
          t = e + 1;
          if (t->kind == core::kTokNumber) ++t;
          continue;
        }
        t = e;  // THEN: its branch follows as statements
        continue;
      }
      const Token* e = statement_end(t + 1);
      statement(t, e);
      t = e;
    }
  }
}

void Walk::subroutine_statement(std::uint32_t at_line, std::uint32_t pos) {
  line = at_line;
  base = core::line_tokens(line);
  if (!base || refused()) return;
  sub = true;
  const Token* t = base + pos;
  if (t->kind == core::KW_IF) {
    const Token* e = condition_end(t + 1);
    expression(t, t + 1, e, nullptr);
  } else if (t->kind != core::kTokEnd) {
    statement(t, statement_end(t + 1));
  }
  sub = false;
}

// --- the header --------------------------------------------------------------

// The NEXT that closes the PARFOR at (line, pos): checks 15 to 17.
bool find_next(Loop& l) {
  int depth = 0;
  for (std::uint32_t line = l.header_line + 1; line < core::program.lines; ++line) {
    const Token* base = core::line_tokens(line);
    if (!base) return false;
    for (const Token* t = base; t->kind != core::kTokEnd; ++t) {
      if (t->kind == core::KW_REM) break;
      if (t->kind == core::KW_PARFOR) {
        refuse(line, static_cast<std::uint32_t>(t - base),
               "nested PARFOR would create worker pools inside worker iterations, which is not supported yet.",
               "make the inner loop an ordinary FOR, flatten the two loops into one PARFOR index, or use FOR for the "
               "outer loop.");
        return false;
      }
      if (t->kind == core::KW_FOR && t[1].kind != core::KW_END) {
        ++depth;
      } else if (t->kind == core::KW_NEXT) {
        int closes = 1;
        const Token* n = t + 1;
        const Token* last = nullptr;
        if (n->kind == core::kTokIdent) {
          closes = 0;
          while (n->kind == core::kTokIdent) {
            ++closes;
            last = n++;
            if (n->kind != ',') break;
            ++n;
          }
        }
        depth -= closes;
        if (depth < 0) {
          if (last && std::strcmp(last->name(), l.var) != 0) break;
          l.next_line = line;
          l.next_pos = static_cast<std::uint32_t>(t - base);
          l.after_pos = static_cast<std::uint32_t>(statement_end(t + 1) - base);
          if (line == l.header_line + 1 && t == base) {
            refuse(l.header_line, l.header_pos, "PARFOR has no program line between its header and matching NEXT.",
                   "put the parallel loop body on following program lines, then close it with NEXT.");
            return false;
          }
          return true;
        }
      }
    }
  }
  refuse(l.header_line, l.header_pos,
         "no matching NEXT was found, so PARFOR cannot determine the parallel iteration body.",
         "add the matching NEXT variable for this PARFOR, or use FOR.");
  return false;
}

// A header value as a 64-bit integer: false with "Overflow" raised when it
// does not fit; *whole tells whether it had a fraction.
bool to_whole(const values::Value& v, std::int64_t* out, bool* whole) {
  *whole = true;
  if (values::is_integer_type(v.type)) {
    *out = v.i;
    return true;
  }
  if (!(v.d >= -9223372036854775808.0 && v.d < 9223372036854775808.0)) {
    core::raise("Overflow");
    return false;
  }
  *out = static_cast<std::int64_t>(v.d);
  *whole = static_cast<double>(*out) == v.d;
  return true;
}

// --- compiled bodies ---------------------------------------------------------

struct Body {
  std::uint32_t line = 0, mode = 0;
  RegionCode rc;
  NativeCode native;
  bool compiled = false;
};
// Never destroyed: pool threads may be parked while the process exits.
std::vector<Body*>& bodies = *new std::vector<Body*>;

// The region cache's key: the program version in the low 29 bits, then the
// profiling bits.
std::uint32_t body_mode() {
  return (current_mode_word() & 0x1FFFFFFFu) | tools::profile_mode_bits();
}

Body* body_for(std::uint32_t first_line) {
  const std::uint32_t mode = body_mode();
  Body* b = nullptr;
  for (Body* e : bodies)
    if (e->line == first_line) b = e;
  if (b && b->mode == mode) return b;
  if (!b) {
    if (bodies.size() >= kMaxBodies) {
      core::raise("PARFOR region cache full");
      return nullptr;
    }
    b = new Body;
    bodies.push_back(b);
  }
  if (b->compiled) release(&b->native);
  b->compiled = false;
  b->line = first_line;
  const char* why;
  compiling_parfor = true;
  const bool compiled = compile_region(first_line, 0, &b->rc, &why);
  compiling_parfor = false;
  if (compiled) {
    std::vector<int> depth(b->rc.code.size());
    if (const char* e = verify_stack_flow(b->rc.code.data(), static_cast<int>(b->rc.code.size()), depth.data())) {
      core::raise(e);
      return nullptr;
    }
    if (generate(b->rc, depth.data(), &b->native) == nullptr) b->compiled = true;
  }
  // Compiling may create the variables the body names: key the entry by the
  // word as it stands afterwards.
  b->mode = body_mode();
  return b;
}

// The compiled graph, walked from the body's entry along every branch, loop
// edge, jump and call: every path must stay native and come back to the
// matching NEXT, and a subroutine's statements pass the same checks as the
// body's. Marks the reachable instructions in *reach and returns the
// statement that exits at NEXT, or -1 after a refusal.
int check_graph(const Body& b, Loop& l, const Descriptor* loop_var, std::vector<char>* reach) {
  const RegionCode& rc = b.rc;
  auto at = [&](int stmt, const char* reason, const char* workaround) {
    const StmtInfo& s = rc.stmts[static_cast<std::size_t>(stmt)];
    refuse(s.line, s.pos, reason, workaround);
  };
  const char* const native_reason =
      "the JIT cannot keep this control-flow region fully native (usually because a branch or GOSUB reaches "
      "unsupported code).";
  const char* const native_workaround =
      "temporarily change PARFOR to FOR and use PROFILE ON MARK to find red statements, make those paths "
      "JIT-compatible, or keep the loop as FOR.";
  const char* const path_reason = "at least one reachable control-flow path does not return to the matching NEXT.";
  const char* const unproven_reason = "the reachable native graph could not be proven safe for all workers.";
  if (!b.compiled) {
    refuse(l.first, 0, native_reason, native_workaround);
    return -1;
  }
  const int count = static_cast<int>(rc.code.size());
  reach->assign(static_cast<std::size_t>(count), 0);
  auto in_body = [&](std::uint32_t line) { return line >= l.first && line <= l.next_line; };
  Walk source(l);
  std::vector<char> checked(rc.stmts.size(), 0);
  // A subroutine statement's own checks, once.
  auto check_source = [&](int stmt) {
    if (stmt < 0 || checked[static_cast<std::size_t>(stmt)]) return;
    checked[static_cast<std::size_t>(stmt)] = 1;
    const StmtInfo& s = rc.stmts[static_cast<std::size_t>(stmt)];
    if (!in_body(s.line)) source.subroutine_statement(s.line, s.pos);
  };
  // (instruction, inside a subroutine): bit 1 outside, bit 2 inside.
  std::vector<std::pair<int, bool>> work{{0, false}};
  int done = -1;
  auto rel = [&](int i) { return i + static_cast<int>(static_cast<std::int64_t>(rc.code[static_cast<std::size_t>(i)].operand)) + 1; };
  while (!work.empty() && !refusal[0]) {
    const auto [i, sub] = work.back();
    work.pop_back();
    if (i < 0 || i >= count) {
      refuse(l.first, 0, "the native region has no valid continuation inside the program.",
             "simplify the control flow or use FOR.");
      break;
    }
    char& seen = (*reach)[static_cast<std::size_t>(i)];
    const char bit = sub ? 2 : 1;
    if (seen & bit) continue;
    seen |= bit;
    const Instr& in = rc.code[static_cast<std::size_t>(i)];
    const int stmt = rc.info[static_cast<std::size_t>(i)].stmt;
    // Successors are pushed in reverse, so the fall-through path is walked first.
    switch (in.op) {
      case OP_STATEMENT:
        check_source(stmt);
        work.push_back({i + 1, sub});
        break;
      case OP_GOTO_LOCAL:
        // From a subroutine back into the body: that iteration would reach
        // NEXT with its GOSUB still open.
        if (sub && !in_body(in.line) && rel(i) < count && in_body(rc.code[static_cast<std::size_t>(rel(i))].line)) {
          at(stmt, path_reason, kPathWorkaround);
          break;
        }
        [[fallthrough]];
      case OP_JUMP:
        work.push_back({rel(i), sub});
        break;
      case OP_BRANCH_FALSE:
        work.push_back({rel(i), sub});
        work.push_back({i + 1, sub});
        break;
      case OP_FOR:
      case OP_NEXT:
        if (in.op == OP_FOR && rc.info[static_cast<std::size_t>(i)].d == loop_var) {
          at(stmt, unproven_reason, kPathWorkaround);
          break;
        }
        work.push_back({static_cast<int>(in.position), sub});
        work.push_back({i + 1, sub});
        break;
      case OP_GOSUB_LOCAL:
        work.push_back({i + 1, sub});
        work.push_back({rel(i), true});
        break;
      case OP_RETURN:
        if (!sub) at(stmt, path_reason, kPathWorkaround);
        break;
      case OP_FALLBACK:
        if (in.line == l.next_line && in.position == l.next_pos) {
          if (sub) at(stmt, path_reason, kPathWorkaround);
          else done = static_cast<int>(in.operand);
          break;
        }
        check_source(stmt);
        if (in_body(in.line) && !sub)
          refuse(in.line, in.position,
                 "this statement would force execution back into the interpreter; PARFOR workers must remain "
                 "native until their iteration finishes.",
                 "move this command before/after PARFOR, rewrite it using JIT-supported commands, or use FOR.");
        else
          refuse(in.line, in.position,
                 "the GOSUB target contains code that cannot remain fully native inside a PARFOR worker.",
                 "make that subroutine JIT-compatible, move its unsupported command outside the parallel loop, or "
                 "use FOR.");
        break;
      case OP_GOSUB_LINE:
        if (rc.segments_full)
          at(stmt, "the loop expands to more native regions than PARFOR can currently track.",
             "split the PARFOR into smaller loops, simplify the control flow, or use FOR.");
        else
          at(stmt,
             "this GOSUB cannot stay entirely inside the native JIT, and PARFOR workers are not allowed to fall "
             "back to the interpreter.",
             "make the GOSUB target fully JIT-compatible, move unsupported commands out of that subroutine, or use "
             "FOR.");
        break;
      case OP_GOTO_LINE:
        if (sub) at(stmt, native_reason, native_workaround);
        else at(stmt, path_reason, kPathWorkaround);
        break;
      case OP_END:
        if (rc.info[static_cast<std::size_t>(i)].role == kRoleEndOfProgram)
          refuse(in.line, 0, "the native region has no valid continuation inside the program.",
                 "simplify the control flow or use FOR.");
        else
          at(stmt, path_reason, kPathWorkaround);
        break;
      case OP_PSET:
      case OP_LINE:
        l.draws = true;
        work.push_back({i + 1, sub});
        break;
      case OP_PRINT:
      case OP_LOCATE:
      case OP_COLOR:
        at(stmt, unproven_reason, kPathWorkaround);
        break;
      case OP_STORE_VAR:
        // Stores are disjoint because the loop variable is each iteration's own.
        if (rc.info[static_cast<std::size_t>(i)].d == loop_var) {
          at(stmt, unproven_reason, kPathWorkaround);
          break;
        }
        work.push_back({i + 1, sub});
        break;
      default:
        work.push_back({i + 1, sub});
        break;
    }
  }
  if (refusal[0]) return -1;
  if (done < 0) refuse(l.first, 0, native_reason, native_workaround);
  return done;
}

// --- workers -----------------------------------------------------------------

struct Plan {
  RegionEntry entry = nullptr;
  const RegionCode* rc = nullptr;
  int done_stmt = 0;
  std::uint8_t var_type = 0;
  std::int32_t var_offset = 0;  // the loop variable's value in a descriptor image
  std::int64_t start = 0, step = 1, count = 0, chunk = 1;
  std::atomic<std::int64_t> next{0};
  std::atomic<int> stop{0}, failed{0}, brk{0}, claimed{0};
  char error[kErrorTextSize] = {};
  std::uint32_t error_line = core::kDirect;
};
Plan plan;

struct alignas(64) Worker {
  int index = 0;
  Descriptor* image = nullptr;  // this worker's descriptor table
  NativeFrame frame{};
  char error[kErrorTextSize] = {};
  bool failed = false;
  std::uint64_t rng = 0;
  std::int64_t countdown = kPollInterval;  // the poll register across iterations
  // Pool thread (workers 1..31): start and done signals.
  std::thread thread;
  std::mutex m;
  std::condition_variable cv;
  bool go = false, done = true;
};
Worker* workers[kMaxWorkers];
int pool_threads = 0;  // workers 1..pool_threads have a thread
thread_local Worker* self = nullptr;

void sink(const char* message) {
  if (self && !self->error[0]) {
    std::strncat(self->error, message, kErrorTextSize - 1);
  }
}

bool store_loop_value(Worker& w, std::int64_t v) {
  std::uint8_t* slot = reinterpret_cast<std::uint8_t*>(w.image) + plan.var_offset;
  switch (plan.var_type) {
    case values::kInteger: {
      if (v < -32768 || v > 32767) return false;
      const std::int16_t x = static_cast<std::int16_t>(v);
      std::memcpy(slot, &x, sizeof x);
      return true;
    }
    case values::kLong: {
      if (v < -2147483648ll || v > 2147483647ll) return false;
      const std::int32_t x = static_cast<std::int32_t>(v);
      std::memcpy(slot, &x, sizeof x);
      return true;
    }
    case values::kInt64: std::memcpy(slot, &v, sizeof v); return true;
    case values::kSingle: {
      const float x = static_cast<float>(v);
      std::memcpy(slot, &x, sizeof x);
      return true;
    }
    default: {
      const double x = static_cast<double>(v);
      std::memcpy(slot, &x, sizeof x);
      return true;
    }
  }
}

void fail(Worker& w, const char* text, std::uint32_t line) {
  w.failed = true;
  plan.failed.store(1);
  plan.stop.store(1);
  if (text && text[0] && plan.claimed.exchange(1) == 0) {
    std::snprintf(plan.error, sizeof plan.error, "%s", text);
    plan.error_line = line;
  }
}

void check_break(Worker& w) {
  if (w.index != 0) return;
  if (host::stop_requested() || screen::keys.has_break()) {
    plan.brk.store(1);
    plan.stop.store(1);
  }
}

void run_worker(Worker& w) {
  self = &w;
  core::set_thread_error_sink(sink);
  w.failed = false;
  w.error[0] = 0;
  NativeFrame& f = w.frame;
  const std::int64_t count = plan.count, chunk = plan.chunk;
  for (;;) {
    check_break(w);
    if (plan.stop.load(std::memory_order_relaxed)) break;
    const std::int64_t k = plan.next.fetch_add(chunk);
    if (k >= count) break;
    const std::int64_t end = std::min(k + chunk, count);
    for (std::int64_t i = k; i < end; ++i) {
      if (plan.stop.load(std::memory_order_relaxed)) goto out;
      if (!store_loop_value(w, plan.start + plan.step * i)) {
        fail(w, nullptr, core::kDirect);
        goto out;
      }
      f.mirror_top = f.mirror;
      f.poll = w.countdown;
      f.exit_stmt = 0;
      f.error_msg = 0;
      std::memset(f.live, 0, sizeof f.live);
      const int code = plan.entry(&f, 1);
      if (f.prof_info) {
        profile_end_sample(&f);
        w.countdown = profile_interval(&f.prof_rng);
      } else {
        w.countdown = f.poll > 0 ? f.poll : kPollInterval;
      }
      if (code == kTransferResume && f.exit_stmt == plan.done_stmt) continue;
      const StmtInfo& s = plan.rc->stmts[static_cast<std::size_t>(f.exit_stmt)];
      if (code == 0) {
        fail(w, f.error_msg ? inline_message(f.error_msg) : w.error, s.line);
        goto out;
      }
      if (plan.stop.load()) goto out;  // the poll saw the loop stopping
      // A GOSUB hands over only when the worker's region frames are used up.
      for (std::size_t j = 0; j < plan.rc->code.size(); ++j)
        if (plan.rc->code[j].op == OP_GOSUB_LOCAL && plan.rc->info[j].stmt == f.exit_stmt) {
          fail(w, "JIT nesting too deep", s.line);
          goto out;
        }
      fail(w, nullptr, s.line);
      goto out;
    }
  }
out:
  core::set_thread_error_sink(nullptr);
  self = nullptr;
}

void pool_main(Worker* w) {
  for (;;) {
    {
      std::unique_lock lock(w->m);
      w->cv.wait(lock, [w] { return w->go; });
      w->go = false;
    }
    run_worker(*w);
    {
      std::lock_guard lock(w->m);
      w->done = true;
    }
    w->cv.notify_all();
  }
}

Worker* worker(int i) {
  if (!workers[i]) {
    auto* w = new (std::nothrow) Worker;
    if (!w) return nullptr;
    w->index = i;
    w->image = static_cast<Descriptor*>(std::calloc(values::kMaxDescriptors, sizeof(Descriptor)));
    if (!w->image) {
      delete w;
      return nullptr;
    }
    w->rng = 0x9E3779B97F4A7C15ull * static_cast<std::uint64_t>(i + 1) ^ 0xD1B54A32D192ED03ull;
    workers[i] = w;
  }
  return workers[i];
}

// Threads for workers 1..n-1 (the pool only grows).
bool ensure_pool(int n) {
  for (int i = pool_threads + 1; i < n; ++i) {
    Worker* w = workers[i];
    try {
      w->thread = std::thread(pool_main, w);
      w->thread.detach();
    } catch (const std::system_error&) {
      return false;
    }
    pool_threads = i;
  }
  return true;
}

int choose_workers(std::int64_t count) {
  std::int64_t n = std::clamp<std::int64_t>(host::logical_processors(), 1, kMaxWorkers);
  if (host::parfor_cap) n = std::min<std::int64_t>(n, host::parfor_cap);
  else if (count < 64 || count < 4 * n) n = 1;
  return static_cast<int>(std::max<std::int64_t>(1, std::min(n, count)));
}

// Runs the plan on n workers; the calling thread is worker 0.
void run_loop(int n) {
  parfor_active = true;
  for (int i = 1; i < n; ++i) {
    Worker* w = workers[i];
    {
      std::lock_guard lock(w->m);
      w->done = false;
      w->go = true;
    }
    w->cv.notify_all();
  }
  run_worker(*workers[0]);
  for (int i = 1; i < n; ++i) {
    Worker* w = workers[i];
    std::unique_lock lock(w->m);
    while (!w->cv.wait_for(lock, std::chrono::milliseconds(10), [w] { return w->done; })) {
      lock.unlock();
      check_break(*workers[0]);
      lock.lock();
    }
  }
  parfor_active = false;
}

// --- the statement -----------------------------------------------------------

void set_error_line(std::uint32_t line) {
  if (line == core::kDirect || line >= core::program.lines) return;
  core::err.line = core::line_index[line].number;
  core::err.line_recorded = true;
}

void refused() {
  core::raise(refusal);
  set_error_line(refusal_line);
}

bool store_shared(Descriptor* d, std::int64_t v) {
  return values::store_value(d->value, d->type, values::Value::integer(v, values::kInt64));
}

}  // namespace

const char* parfor_last_refusal() { return refusal; }

int helper_draw(NativeFrame* f, std::int64_t shape, std::int64_t float_mask) {
  int k = 0;
  auto number = [&]() {
    double v;
    if (float_mask >> k & 1) std::memcpy(&v, &f->subs[k], sizeof v);
    else v = static_cast<double>(f->subs[k]);
    ++k;
    return v;
  };
  // Colour and style fields are integers, rounded as the interpreter rounds them.
  auto integer = [&](std::int64_t* out) {
    const bool is_float = float_mask >> k & 1;
    double v;
    std::memcpy(&v, &f->subs[k], sizeof v);
    *out = f->subs[k];
    ++k;
    return !is_float || values::value_to_int64(values::Value::floating(v), out);
  };
  auto point = [&](screen::GfxPoint* p, std::int64_t step_bit) {
    p->step = (shape & step_bit) != 0;
    p->x = number();
    p->y = number();
  };
  auto colour = [&](screen::GfxColour* c) {
    c->count = static_cast<int>(shape >> kDrawColourShift & 3);
    for (int i = 0; i < c->count; ++i)
      if (!integer(&c->v[i])) return false;
    return true;
  };
  const char* e;
  if (shape & kDrawLine) {
    screen::GfxLine line;
    line.has_start = (shape & kDrawHasStart) != 0;
    if (line.has_start) point(&line.from, kDrawFromStep);
    point(&line.to, kDrawStep);
    if (!colour(&line.colour)) return 0;
    line.box = static_cast<std::uint8_t>(shape >> kDrawBoxShift & 3);
    line.has_style = (shape & kDrawStyle) != 0;
    if (line.has_style && !integer(&line.style)) return 0;
    line.xor_mode = (shape & kDrawXor) != 0;
    e = screen::parallel_line(line);
  } else {
    screen::GfxPoint p;
    screen::GfxColour c;
    point(&p, kDrawStep);
    if (!colour(&c)) return 0;
    e = screen::parallel_pset(p, c, (shape & kDrawPreset) != 0);
  }
  if (!e) return 1;
  core::raise(e);
  return 0;
}

int parfor_poll() {
  if (self) check_break(*self);
  return plan.stop.load(std::memory_order_relaxed) ? 1 : 0;
}

void stmt_parfor(const Token*& t) {
  refusal[0] = 0;
  refusal_line = core::kDirect;
  Loop l;
  l.header_line = core::exec.line;
  l.header_pos = core::token_index(t);
  const Token* header = t;
  const std::uint32_t hl = l.header_line, hp = l.header_pos;
  auto refuse_header = [&](const char* reason, const char* workaround) {
    refuse(hl, hp, reason, workaround);
    refused();
  };
  // 1-5: the environment.
  if (!enabled())
    return refuse_header("PARFOR workers execute native JIT code only, but JIT is OFF.",
                         "use JIT ON before RUN, or change PARFOR to FOR.");
  if (core::tracing_active())
    return refuse_header("TRON/TRACE is active and would make multiple workers write shared trace output.",
                         "turn tracing off before PARFOR, or use FOR while tracing.");
  if (core::breakpoints_active())
    return refuse_header(
        "debugger breakpoints are active and PARFOR workers cannot stop independently in the debugger.",
        "clear breakpoints before PARFOR, or use FOR while debugging.");
  if (core::on_break_target())
    return refuse_header(
        "ON BREAK has a nonzero target; PARFOR workers cannot dispatch that shared handler.",
        "execute ON BREAK GOTO 0 before PARFOR (ON ERROR GOTO 0 does not disable it), then re-enable ON BREAK "
        "after NEXT; or use FOR.");
  if (core::exec.if_depth > 0)
    return refuse_header("an active interpreter IF context needs shared interpreter state.",
                         "move PARFOR to its own line outside inline IF, or use FOR.");
  // 6-9: the header's shape.
  ++t;
  if (t->kind != core::kTokIdent)
    return refuse_header("PARFOR needs a numeric loop variable immediately after PARFOR.",
                         "use syntax such as PARFOR I=0 TO N on its own line.");
  const Token* var = t++;
  l.var = var->name();
  if (t->kind != '=' || at_end(t + 1) || t[1].kind == core::KW_TO)
    return refuse_header("the PARFOR loop variable is not followed by = and a start expression.",
                         "use syntax PARFOR I=start TO limit, for example PARFOR I=0 TO 99.");
  ++t;
  values::Value start, limit, step = values::Value::integer(1);
  if (!values::eval(t, &start)) return;
  if (t->kind != core::KW_TO)
    return refuse_header("the PARFOR header has no TO limit after the start expression.",
                         "use syntax PARFOR I=start TO limit [STEP positive-integer].");
  ++t;
  if (!values::eval(t, &limit)) return;
  if (t->kind == core::KW_STEP) {
    ++t;
    if (!values::eval(t, &step)) return;
  }
  if (t->kind != core::kTokEnd)
    return refuse_header(
        "PARFOR is a multiline construct; commands after the PARFOR header would run ambiguously across workers.",
        "put the loop body on the following line and close it with NEXT, or use FOR for a single-line loop.");
  // 10-14: the values.
  if (!values::is_numeric_type(start.type) || !values::is_numeric_type(limit.type) ||
      !values::is_numeric_type(step.type))
    return refuse_header("PARFOR start, limit and STEP expressions must all be numeric.",
                         "convert them to numeric values before PARFOR, or use FOR if the loop depends on "
                         "non-numeric data.");
  std::int64_t s0, s1, st;
  bool whole;
  if (!to_whole(step, &st, &whole)) return;
  if (!whole || st < 1)
    return refuse_header("PARFOR STEP must currently be a positive integer.",
                         "use a positive integral STEP such as STEP 1, STEP 2 or STEP PS; transform "
                         "descending/fractional loops inside the body, or use FOR.");
  if (!to_whole(start, &s0, &whole)) return;
  if (!whole)
    return refuse_header(
        "the PARFOR start value is not an integer, but workers are assigned whole iteration numbers.",
        kForWorkaroundInteger);
  if (!to_whole(limit, &s1, &whole)) return;
  if (!whole)
    return refuse_header(
        "the PARFOR limit is not an integer, but workers are assigned whole iteration numbers.",
        kForWorkaroundInteger);
  const std::uint8_t var_type = values::type_of_name(l.var);
  if (!values::is_numeric_type(var_type) || values::find_pseudo(l.var) >= 0 || values::is_read_only_name(l.var))
    return refuse_header("the PARFOR induction variable is not numeric.",
                         "use a numeric loop variable such as I, I%, I&, I&&, I! or I#, or use FOR.");
  Descriptor* vd = values::scalar_of(var);
  if (!vd || !store_shared(vd, s0)) return;
  // 15-17: the body (a direct-mode line has none after it).
  if (l.header_line == core::kDirect) {
    refuse(hl, hp, "no matching NEXT was found, so PARFOR cannot determine the parallel iteration body.",
           "add the matching NEXT variable for this PARFOR, or use FOR.");
    return refused();
  }
  if (!find_next(l)) return refused();
  l.first = l.header_line + 1;
  t = header;
  while (!at_end(t)) ++t;
  if (s0 > s1) {
    core::resume_at(l.next_line, l.after_pos, 0);
    return;
  }
  const __int128 span = static_cast<__int128>(s1) - s0;
  const __int128 count = span / st + 1;
  const __int128 last = s1 - span % st;
  if (count > INT64_MAX || last > static_cast<__int128>(INT64_MAX) - st) {
    core::raise("Overflow");
    return;
  }
  // The body walk, then the compiled graph.
  for (std::uint32_t line = l.first; line <= l.next_line; ++line) {
    const Token* base = core::line_tokens(line);
    if (!base) return;
    for (const Token* p = base; p->kind != core::kTokEnd; ++p)
      if (p->kind == core::KW_GOSUB) l.has_gosub = true;
  }
  Walk(l).run();
  if (core::err.flag) return;
  if (refusal[0]) return refused();
  Body* b = body_for(l.first);
  if (!b || core::err.flag) return;
  vd = values::scalar_of(var);  // compiling may have grown the table
  std::vector<char> reach;
  const int done = check_graph(*b, l, vd, &reach);
  if (refusal[0]) return refused();
  // The private-variable table: every descriptor the body addresses.
  std::vector<std::uint32_t> priv;
  auto enter = [&](const Descriptor* d) {
    if (!d) return;
    const auto idx = static_cast<std::uint32_t>(d - values::descriptor_table());
    if (std::find(priv.begin(), priv.end(), idx) == priv.end()) priv.push_back(idx);
  };
  for (std::size_t i = 0; i < reach.size(); ++i)
    if (reach[i]) enter(b->rc.info[i].d);
  enter(vd);
  if (priv.size() > kMaxPrivate) {
    refuse(hl, hp, "PARFOR needs more private scalar variables than its current 512-variable table can hold.",
           "split the loop into smaller PARFOR sections, reduce scratch variables, or use FOR.");
    return refused();
  }
  // Workers and their private copies.
  const int n = choose_workers(static_cast<std::int64_t>(count));
  host::parfor_last_workers = n;
  for (int i = 0; i < n; ++i)
    if (!worker(i)) {
      core::raise("PARFOR setup failed");
      return;
    }
  const Descriptor* table = values::descriptor_table();
  for (int i = 0; i < n; ++i) {
    Worker& w = *workers[i];
    for (std::uint32_t idx : priv) w.image[idx] = table[idx];
    NativeFrame& f = w.frame;
    f.desc_base = reinterpret_cast<std::uint8_t*>(w.image);
    f.option_base = values::option_base;
    f.mirror_limit = f.mirror + kMirrorCapacity;
    f.sentinel = MirrorEntry{0, 0, 0};
    f.for_room = core::kMaxFor;
    f.while_room = core::kMaxWhile;
    f.gosub_room = kMaxRegionFrames;
    f.prof_rng = w.rng;
    f.prof_weight = static_cast<std::uint64_t>(profile_interval(&f.prof_rng));
    f.prof_stmts = b->rc.stmts.data();
    f.prof_info = nullptr;
    w.countdown = static_cast<std::int64_t>(f.prof_weight);
  }
  if (!ensure_pool(n)) {
    core::raise("PARFOR worker pool setup failed");
    return;
  }
  plan.entry = b->native.entry;
  plan.rc = &b->rc;
  plan.done_stmt = done;
  plan.var_type = vd->type;
  plan.var_offset = static_cast<std::int32_t>(static_cast<std::uint32_t>(vd - table) * sizeof(Descriptor) +
                                              offsetof(Descriptor, value));
  plan.start = s0;
  plan.step = st;
  plan.count = static_cast<std::int64_t>(count);
  plan.chunk = std::clamp<std::int64_t>(plan.count / (8 * n), 1, 32);
  plan.next.store(0);
  plan.stop.store(0);
  plan.failed.store(0);
  plan.brk.store(0);
  plan.claimed.store(0);
  plan.error[0] = 0;
  plan.error_line = core::kDirect;
  if (l.draws && !screen::begin_parallel_drawing()) return;
  run_loop(n);
  if (l.draws) screen::end_parallel_drawing();
  for (int i = 0; i < n; ++i) workers[i]->rng = workers[i]->frame.prof_rng;
  if (plan.failed.load()) {
    if (plan.error[0]) {
      core::raise(plan.error);
      set_error_line(plan.error_line);
    } else {
      core::raise("PARFOR worker failed");
    }
    return;
  }
  if (plan.brk.load()) {
    {
      std::lock_guard guard(host::shell.global_lock);
      (void)screen::keys.take_break();
    }
    core::break_at_statement();
    return;
  }
  if (!store_shared(vd, static_cast<std::int64_t>(last) + st)) return;
  core::resume_at(l.next_line, l.after_pos, 0);
}

}  // namespace jit
