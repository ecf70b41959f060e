// AUDIT's PARFOR scalar check: numeric scalars that a PARFOR body reads
// before it assigns them in the same iteration look like accumulators, but
// every worker has its own copy and none is copied back.
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "tools/linerefs.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "values/builtins.h"
#include "values/types.h"
#include "values/variables.h"

namespace tools {

namespace {

using core::Token;

constexpr std::size_t kMaxBlocks = 128;

struct Block {
  std::uint8_t kind;  // KW_FOR, KW_PARFOR, KW_WHILE or KW_IF
  std::string var;    // FOR and PARFOR
  int loop = -1;      // PARFOR: its entry in loops
};

struct LoopState {
  std::uint32_t line;
  std::uint32_t column;
  std::set<std::string> assigned;  // in this iteration so far (unconditionally)
  std::set<std::string> assigned_anywhere;
  std::vector<std::string> early_reads;  // read before their assignment, in order
  bool skipped = false;
};

bool numeric_scalar(const Token* t) {
  if (t->kind != core::kTokIdent || t[1].kind == '(') return false;
  const char* name = t->name();
  if (values::find_builtin(name) >= 0 || values::find_pseudo(name) >= 0 || values::is_read_only_name(name))
    return false;
  if (core::is_statement_word(name)) return false;
  return values::is_numeric_type(values::type_of_name(name));
}

class Check {
 public:
  // False when the program has no PARFOR; *stopped when the pass gave up.
  bool run(Pager& out, bool* stopped);
  int checked = 0, skipped = 0;
  std::vector<LoopState> loops;

 private:
  std::vector<Block> blocks;
  std::vector<int> open;  // indices into loops of the PARFORs open, innermost last
  bool conditional = false;  // inside a THEN or ELSE part of the line

  void read(const Token* from, const Token* to) {
    for (const Token* t = from; t < to; ++t) {
      if (!numeric_scalar(t)) continue;
      for (int i : open) {
        LoopState& l = loops[static_cast<std::size_t>(i)];
        const std::string name = t->name();
        if (l.assigned.count(name)) continue;
        bool seen = false;
        for (const std::string& r : l.early_reads) seen = seen || r == name;
        if (!seen) l.early_reads.push_back(name);
      }
    }
  }
  void assign(const Token* t) {
    for (int i : open) {
      LoopState& l = loops[static_cast<std::size_t>(i)];
      l.assigned_anywhere.insert(t->name());
      if (!conditional) l.assigned.insert(t->name());
    }
  }
  void skip_open_loops() {
    for (int i : open) loops[static_cast<std::size_t>(i)].skipped = true;
  }
  bool statement(Pager& out, std::uint32_t number, const Token* t, const Token* end);
  void finish(int loop);
};

void Check::finish(int loop) {
  LoopState& l = loops[static_cast<std::size_t>(loop)];
  for (auto it = open.begin(); it != open.end(); ++it)
    if (*it == loop) {
      open.erase(it);
      break;
    }
  if (l.skipped) {
    ++skipped;
    return;
  }
  ++checked;
}

// False when the pass must stop.
bool Check::statement(Pager& out, std::uint32_t number, const Token* t, const Token* end) {
  // A malformed PARFOR header is reported; its block still pairs with its
  // NEXT, and the loop counts as skipped.
  auto malformed = [&](const char* what) {
    out.line("Line " + std::to_string(number) + ": " + what);
    if (t->kind == core::KW_PARFOR) {
      loops.push_back(LoopState{number, static_cast<std::uint32_t>(t->column) + 1u, {}, {}, {}, true});
      open.push_back(static_cast<int>(loops.size()) - 1);
      blocks.push_back(Block{core::KW_PARFOR, t[1].kind == core::kTokIdent ? t[1].name() : "", open.back()});
    }
    return true;
  };
  switch (t->kind) {
    case core::KW_FOR:
    case core::KW_PARFOR: {
      if (t->kind == core::KW_FOR && t[1].kind == core::KW_END) {
        skip_open_loops();
        return true;
      }
      const Token* v = t + 1;
      if (blocks.size() >= kMaxBlocks) return false;
      if (t->kind == core::KW_PARFOR) skip_open_loops();  // a PARFOR inside a PARFOR body is refused when it runs
      if (v->kind != core::kTokIdent) {
        if (t->kind == core::KW_PARFOR) return malformed("Expected FOR variable");
        return true;
      }
      if (v[1].kind != '=') {
        if (t->kind == core::KW_PARFOR) return malformed("Expected =");
        return true;
      }
      const Token* p = v + 2;
      int depth = 0;
      while (p < end && !(depth == 0 && p->kind == core::KW_TO)) {
        if (p->kind == '(') ++depth;
        else if (p->kind == ')') --depth;
        ++p;
      }
      if (p >= end && t->kind == core::KW_PARFOR) return malformed("Expected TO");
      read(v + 2, end);
      Block b{t->kind, v->name(), -1};
      if (t->kind == core::KW_PARFOR) {
        loops.push_back(LoopState{number, static_cast<std::uint32_t>(t->column) + 1u, {}, {}, {}, false});
        b.loop = static_cast<int>(loops.size()) - 1;
        open.push_back(b.loop);
      }
      assign(v);
      blocks.push_back(b);
      return true;
    }
    case core::KW_NEXT: {
      const Token* n = t + 1;
      std::vector<std::string> names;
      while (n < end && n->kind == core::kTokIdent) {
        names.emplace_back(n->name());
        ++n;
        if (n->kind != ',') break;
        ++n;
      }
      if (n < end && !core::at_statement_end(n)) {
        malformed("Expected NEXT variable");
        return false;
      }
      if (names.empty()) names.emplace_back();
      for (const std::string& name : names) {
        if (blocks.empty()) return false;
        const Block& b = blocks.back();
        if ((b.kind != core::KW_FOR && b.kind != core::KW_PARFOR) || (!name.empty() && !b.var.empty() && name != b.var))
          return false;
        if (b.loop >= 0) finish(b.loop);
        blocks.pop_back();
      }
      return true;
    }
    case core::KW_WHILE:
      if (blocks.size() >= kMaxBlocks) return false;
      read(t + 1, end);
      blocks.push_back(Block{core::KW_WHILE, {}, -1});
      return true;
    case core::KW_WEND:
      if (blocks.empty() || blocks.back().kind != core::KW_WHILE) return false;
      blocks.pop_back();
      return true;
    case core::KW_GOTO: case core::KW_GOSUB: case core::KW_RETURN: case core::KW_ON: case core::KW_END:
    case core::KW_STOP: case core::KW_RESUME: case core::KW_RUN: case core::KW_CHAIN: case core::KW_INPUT:
    case core::KW_READ: case core::KW_SWAP: case core::KW_ERROR: case core::KW_COMMON: case core::KW_CLEAR:
      // Flow or effects on variables that this reading does not follow.
      skip_open_loops();
      read(t + 1, end);
      return true;
    case core::KW_LET:
    case core::kTokIdent: {
      const Token* target = t->kind == core::KW_LET ? t + 1 : t;
      if (target->kind == core::kTokIdent && target[1].kind == '=' && numeric_scalar(target)) {
        read(target + 2, end);
        assign(target);
        return true;
      }
      read(target, end);
      return true;
    }
    default:
      read(t + 1, end);
      return true;
  }
}

const Token* statement_end(const Token* t) {
  int depth = 0;
  for (; t->kind != core::kTokEnd; ++t) {
    if (t->kind == '(') ++depth;
    else if (t->kind == ')') --depth;
    else if (depth <= 0 && (t->kind == ':' || t->kind == core::KW_ELSE || t->kind == core::KW_THEN)) break;
  }
  return t;
}

bool Check::run(Pager& out, bool* stopped) {
  *stopped = false;
  // Programs without PARFOR get no report at all.
  bool any = false;
  std::vector<std::vector<Token>> lines(core::program.lines);
  for (std::uint32_t i = 0; i < core::program.lines; ++i) {
    std::string error;
    quiet_tokenize(core::line_body(i), &lines[i], &error);
    if (!error.empty()) lines[i].assign(1, Token{});  // AUDIT reports the line; nothing to read here
    for (const Token& t : lines[i]) any = any || t.kind == core::KW_PARFOR;
  }
  if (!any) return false;
  for (std::uint32_t i = 0; i < core::program.lines; ++i) {
    const Token* base = lines[i].data();
    const std::uint32_t number = core::line_index[i].number;
    conditional = false;
    for (const Token* t = base; t->kind != core::kTokEnd;) {
      if (t->kind == ':') {
        ++t;
        continue;
      }
      if (t->kind == core::KW_REM) break;
      if (t->kind == core::KW_THEN || t->kind == core::KW_ELSE) {
        conditional = true;
        ++t;
        if (t->kind == core::kTokNumber) skip_open_loops();  // a jump
        continue;
      }
      if (t->kind == core::KW_IF) {
        const Token* e = statement_end(t + 1);
        read(t + 1, e);
        if (e->kind == core::KW_GOTO || (e->kind != core::KW_THEN && e->kind != core::KW_ELSE)) {
          // IF ... GOTO n jumps.
          const Token* g = t + 1;
          while (g < e && g->kind != core::KW_GOTO) ++g;
          if (g < e) skip_open_loops();
        }
        t = e;
        continue;
      }
      const Token* e = statement_end(t + 1);
      if (!statement(out, number, t, e)) {
        *stopped = true;
        for (int l : std::vector<int>(open)) {
          loops[static_cast<std::size_t>(l)].skipped = true;
          finish(l);
        }
        return true;
      }
      t = e;
    }
  }
  for (int l : std::vector<int>(open)) {  // PARFORs without NEXT
    loops[static_cast<std::size_t>(l)].skipped = true;
    finish(l);
  }
  return any;
}

}  // namespace

void parfor_scalar_check(int) {
  Pager out(true);
  Check c;
  bool stopped;
  if (!c.run(out, &stopped)) return;
  int warnings = 0;
  for (const LoopState& l : c.loops) {
    if (l.skipped) continue;
    for (const std::string& name : l.early_reads) {
      if (!l.assigned_anywhere.count(name)) continue;  // read-only inputs are shared as they are
      ++warnings;
      if (!out.line("WARNING: PARFOR private scalar " + name + " may be read before a per-iteration assignment (PARFOR at " +
                    std::to_string(l.line) + ", column " + std::to_string(l.column) + ")") ||
          !out.line("Its worker-local updates are not copied back; no automatic reduction."))
        return;
    }
  }
  if (stopped && !out.line("PARFOR scalar check stopped early; remaining source was not analysed.")) return;
  if (!out.line("PARFOR scalar check: " + std::to_string(c.checked) + " structured loop(s) checked; " +
                std::to_string(c.skipped) + " loop(s) skipped (unsupported flow/effects or analysis limits).")) return;
  if (warnings) out.line("Use FOR for a sequential total, or publish independent results to disjoint array elements.");
}

}  // namespace tools
