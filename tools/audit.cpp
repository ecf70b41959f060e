// AUDIT: checks every program line without running it. Each finding is
// printed once as "Line n: ..." in line order; a clean program prints
// nothing. The checks are static readings of the source, built so that
// correct programs in the classic style give no findings: a loop closed
// inside an IF branch, for instance, does not count as closing it.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "tools/linerefs.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "values/builtins.h"
#include "values/types.h"

namespace tools {

void (*audit_extension)(int findings) = parfor_scalar_check;

namespace {

using core::Token;
using core::program;
using core::line_index;

struct Finding {
  std::uint32_t line;  // line number
  int order;           // position on the line, so findings keep source order
  std::string text;
};

struct Line {
  std::uint32_t number;
  std::string text;
  LineScan scan;
  bool explained = false;  // its oddities were already reported through another line
};

// Keywords that start statements (inside a program).
bool statement_keyword(std::uint8_t k) {
  using namespace core;
  switch (k) {
    case KW_RUN: case KW_LIST: case KW_GOTO: case KW_GOSUB: case KW_ON: case KW_RESUME: case KW_POKE:
    case KW_POKE16: case KW_POKE32: case KW_POKE64: case KW_RETURN: case KW_IF: case KW_FOR: case KW_PARFOR:
    case KW_NEXT: case KW_WHILE: case KW_WEND: case KW_END: case KW_SYSTEM: case KW_STOP: case KW_RANDOMIZE:
    case KW_SWAP: case KW_PSET: case KW_PRESET: case KW_TXTWINDOW: case KW_WINDOW: case KW_LINE: case KW_CIRCLE:
    case KW_PAINT: case KW_POLYFILL: case KW_GET: case KW_PUT: case KW_SCREEN: case KW_CLS: case KW_COLOR:
    case KW_LOCATE: case KW_OPEN: case KW_CLOSE: case KW_KILL: case KW_FILES: case KW_DIR: case KW_CHDIR:
    case KW_MKDIR: case KW_RMDIR: case KW_OPTION: case KW_REDIM: case KW_ERASE: case KW_NAME: case KW_MERGE:
    case KW_DELETE: case KW_ERROR: case KW_TRON: case KW_TROFF: case KW_LSET: case KW_RSET: case KW_FIELD:
    case KW_VIEW: case KW_DRAW: case KW_CONT: case KW_BLOAD: case KW_BSAVE: case KW_CHAIN: case KW_COMMON:
    case KW_TRACE: case KW_VARINFO: case KW_ARRAYINFO: case KW_ECONOMY: case KW_TAMBRIL: case KW_HELP:
    case KW_LOAD: case KW_SAVE: case KW_CREATEEXE: case KW_INPUT: case KW_WRITE: case KW_DATA: case KW_READ:
    case KW_RESTORE: case KW_LOADBMP: case KW_SAVEBMP: case KW_BITBLT: case KW_LOADSPRITE: case KW_SPRITE:
    case KW_MOVESPRITE: case KW_SHOWSPRITE: case KW_HIDESPRITE: case KW_DELSPRITE: case KW_SPRITETEXT:
    case KW_SPRITEOFF: case KW_KEYREPEAT: case KW_WAITREL: case KW_MOUSE: case KW_MOUSEPOS: case KW_VIDEOMODE:
    case KW_TCP: case KW_DEFINT: case KW_DEFLNG: case KW_DEFI64: case KW_DEFSNG: case KW_DEFDBL: case KW_DEFSTR:
    case KW_DIM: case KW_LET: case KW_REM: case KW_PRINT: case KW_CLEAR: case KW_NEW: case KW_DEF: case KW_EDIT:
      return true;
    default:
      return false;
  }
}

bool is_ident(const Token& t, const char* name) {
  return t.kind == core::kTokIdent && std::strcmp(t.name(), name) == 0;
}
bool stmt_end(const Token& t) { return t.kind == core::kTokEnd || t.kind == ':' || t.kind == core::KW_ELSE; }
bool relational(std::uint8_t k) { return k == '=' || k == '<' || k == '>'; }
// An ELSE that starts a line is a statement of its own (and a syntax error
// at run time), not the ELSE of an IF.
bool at_line_start(const Token* base, const Token* t) { return t == base; }

bool binary_operator(std::uint8_t k) {
  using namespace core;
  return k == '+' || k == '-' || k == '*' || k == '/' || k == '\\' || k == '^' || relational(k) || k == KW_MOD ||
         k == KW_AND || k == KW_OR || k == KW_XOR || k == KW_EQV || k == KW_IMP;
}

// The syntax of one expression, without evaluating anything. Leaves t on
// the first token that does not belong to it; false at a token that cannot
// stand where it is.
bool expression(const Token*& t);

bool primary(const Token*& t) {
  while (t->kind == '-' || t->kind == '+' || t->kind == core::KW_NOT) ++t;
  switch (t->kind) {
    case core::kTokNumber:
    case core::kTokString:
      ++t;
      break;
    case '(':
      ++t;
      if (!expression(t) || t->kind != ')') return false;
      ++t;
      break;
    case core::kTokIdent:
    case core::KW_SCREEN:  // SCREEN(row, col) reads a text cell
      ++t;
      if (t->kind == '(') {
        ++t;
        if (t->kind != ')') {
          for (;;) {
            if (t->kind == '#') ++t;  // a file number: EOF(#1), INPUT$(n, #1)
            if (!expression(t)) return false;
            if (t->kind != ',') break;
            ++t;
          }
        }
        if (t->kind != ')') return false;
        ++t;
      }
      if (t->kind == '.') {  // a hypercomplex component
        ++t;
        if (t->kind != core::kTokIdent) return false;
        ++t;
      }
      break;
    default:
      return false;
  }
  return true;
}

bool expression(const Token*& t) {
  for (;;) {
    if (!primary(t)) return false;
    if (!binary_operator(t->kind)) return true;
    if (relational(t->kind) && relational(t[1].kind)) ++t;  // <=, <>, >=
    ++t;
  }
}

// The value of a numeric literal as its text says, before any rounding.
double literal_text_value(const std::string& text, const Token& t) {
  return std::strtod(text.c_str() + t.column, nullptr);
}

class Auditor {
 public:
  std::vector<Finding> findings;

  void run() {
    load();
    default_types();
    block_ifs();
    for (Line& l : lines_) statements(l);
    loops();
    targets();
    returns();
  }

 private:
  std::vector<Line> lines_;
  std::uint8_t types_[26];

  void find(const Line& l, int order, const std::string& text) { findings.push_back({l.number, order, text}); }

  void load() {
    lines_.reserve(program.lines);
    for (std::uint32_t i = 0; i < program.lines; ++i) {
      Line l;
      l.number = line_index[i].number;
      l.text.assign(core::line_body(i), core::line_body_length(i));
      l.scan = scan_line(l.text.c_str());
      lines_.push_back(std::move(l));
    }
  }

  // The DEFxxx statements, wherever they stand, decide unsuffixed names.
  void default_types() {
    std::fill(std::begin(types_), std::end(types_), values::kDouble);
    for (const Line& l : lines_) {
      const Token* t = l.scan.tokens.data();
      for (; t->kind != core::kTokEnd; ++t) {
        std::uint8_t type = 0;
        switch (t->kind) {
          case core::KW_DEFINT: type = values::kInteger; break;
          case core::KW_DEFLNG: type = values::kLong; break;
          case core::KW_DEFI64: type = values::kInt64; break;
          case core::KW_DEFSNG: type = values::kSingle; break;
          case core::KW_DEFDBL: type = values::kDouble; break;
          case core::KW_DEFSTR: type = values::kString; break;
          default: continue;
        }
        const Token* p = t + 1;
        while (p->kind == core::kTokIdent && std::strlen(p->name()) == 1) {
          char first = p->name()[0], last = first;
          ++p;
          if (p->kind == '-' && p[1].kind == core::kTokIdent && std::strlen(p[1].name()) == 1) {
            last = p[1].name()[0];
            p += 2;
          }
          for (char c = first; c <= last && c >= 'A' && c <= 'Z'; ++c) types_[c - 'A'] = type;
          if (p->kind != ',') break;
          ++p;
        }
      }
    }
  }

  std::uint8_t type_of(const char* name) const {
    const std::size_t n = std::strlen(name);
    const char last = name[n - 1];
    if (last == '#') return values::kDouble;
    if (last == '!') return values::kSingle;
    if (last == '%') return values::kInteger;
    if (last == '$') return values::kString;
    if (last == '@') return values::kHyper;
    if (last == '&') return n > 1 && name[n - 2] == '&' ? values::kInt64 : values::kLong;
    return name[0] >= 'A' && name[0] <= 'Z' ? types_[name[0] - 'A'] : std::uint8_t{values::kDouble};
  }

  // An IF whose THEN ends the line, followed by lines that read like the
  // body of a block IF (ELSE, END IF, ENDIF on lines of their own): block IF
  // does not exist, so the "body" runs whatever the condition.
  void block_ifs() {
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      const std::vector<Token>& tk = lines_[i].scan.tokens;
      std::size_t n = 0;
      while (tk[n].kind != core::kTokEnd) ++n;
      if (n < 2 || tk[n - 1].kind != core::KW_THEN) continue;
      bool found = false;
      for (std::size_t k = i + 1; k < lines_.size() && k <= i + 64; ++k) {
        const Token* t = lines_[k].scan.tokens.data();
        const bool closing = (t[0].kind == core::KW_END && t[1].kind == core::KW_IF) || is_ident(t[0], "ENDIF") ||
                             is_ident(t[0], "ELSEIF") || t[0].kind == core::KW_ELSE;
        if (!closing) continue;
        lines_[k].explained = true;
        found = true;
        if (t[0].kind != core::KW_ELSE && !is_ident(t[0], "ELSEIF")) break;  // END IF closes it
      }
      if (found)
        find(lines_[i], 0,
             "IF ... THEN with an empty branch before lines that look like a block IF; IF is single-line, so "
             "the following lines run whatever the condition");
    }
  }

  // The statements of one line: how each starts, its expressions, END
  // followed by a word, SINGLE literals into DOUBLE variables.
  void statements(Line& l) {
    if (!l.scan.error.empty()) {
      find(l, 0, l.scan.error);
      return;
    }
    const Token* base = l.scan.tokens.data();
    const Token* t = base;
    while (t->kind != core::kTokEnd) {
      const Token* start = t;
      const int order = static_cast<int>(t - base);
      if (!statement(l, t, order)) {
        // Skip to the next statement after the first finding in this one.
        t = start;
      }
      // Move to the next statement: past ":" (or into a THEN/ELSE branch).
      int depth = 0;
      while (t->kind != core::kTokEnd) {
        if (t->kind == '(') ++depth;
        else if (t->kind == ')') --depth;
        else if (depth <= 0 && (t->kind == ':' || t->kind == core::KW_THEN || t->kind == core::KW_ELSE)) break;
        ++t;
      }
      // Past the separators: ":", and THEN or ELSE with their line number.
      while (t->kind == ':' || t->kind == core::KW_THEN || (t->kind == core::KW_ELSE && !at_line_start(base, t))) {
        const bool branch = t->kind != ':';
        ++t;
        if (branch && t->kind == core::kTokNumber && stmt_end(t[1])) ++t;  // THEN 100 ELSE 200
      }
      if (t == start) ++t;
    }
  }

  // One statement; false after a finding (the rest of it is not examined).
  bool statement(Line& l, const Token*& t, int order) {
    const std::uint8_t k = t->kind;
    if (k == ':' || k == core::kTokEnd) return true;
    if (k == core::KW_ELSE && l.explained) return true;
    if (k == core::kTokIdent) return identifier_statement(l, t, order);
    if (k == core::KW_AUTO || k == core::KW_RENUM || k == core::KW_BREAK) {
      find(l, order, std::string(core::keyword_name(k)) + " is a direct-mode command");
      return false;
    }
    if (!statement_keyword(k)) {
      find(l, order, std::string(token_text(*t)) + " cannot start a statement");
      return false;
    }
    if (!balanced(l, t, order)) return false;
    switch (k) {
      case core::KW_END:
        if (t[1].kind != core::kTokEnd && t[1].kind != ':' && t[1].kind != core::KW_ELSE) {
          if (l.explained && t[1].kind == core::KW_IF) return false;
          find(l, order, "END followed by " + token_text(t[1]) +
                             ": END ends the program there and the rest of the statement never runs");
          return false;
        }
        return true;
      case core::KW_LET: {
        const Token* p = t + 1;
        return assignment(l, p, order);
      }
      case core::KW_IF: {
        const Token* p = t + 1;
        if (!expression(p)) return expression_finding(l, p, order);
        if (p->kind != core::KW_THEN && p->kind != core::KW_GOTO) {
          find(l, order, "IF without THEN or GOTO");
          return false;
        }
        t = p;
        return true;
      }
      case core::KW_WHILE: {
        const Token* p = t + 1;
        if (t[1].kind == core::KW_END) return true;
        if (!expression(p)) return expression_finding(l, p, order);
        if (!stmt_end(*p)) return expression_finding(l, p, order);
        return true;
      }
      case core::KW_FOR:
      case core::KW_PARFOR: {
        const Token* p = t + 1;
        if (k == core::KW_FOR && p->kind == core::KW_END) return true;
        if (p->kind != core::kTokIdent || p[1].kind != '=') {
          find(l, order, std::string(core::keyword_name(k)) + " needs a variable and =");
          return false;
        }
        const char* var = p->name();
        p += 2;
        const Token* from = p;
        if (!expression(p)) return expression_finding(l, p, order);
        if (p->kind != core::KW_TO) {
          find(l, order, std::string(core::keyword_name(k)) + " without TO");
          return false;
        }
        ++p;
        if (!expression(p)) return expression_finding(l, p, order);
        if (p->kind == core::KW_STEP) {
          ++p;
          if (!expression(p)) return expression_finding(l, p, order);
        }
        if (!stmt_end(*p)) return expression_finding(l, p, order);
        single_literals(l, var, from, p, order);
        return true;
      }
      default:
        return true;
    }
  }

  bool identifier_statement(Line& l, const Token*& t, int order) {
    const char* name = t->name();
    const std::uint8_t next = t[1].kind;
    if (next != '=' && next != '(' && next != '.') {
      if (core::is_statement_word(name) || std::strcmp(name, "JIT") == 0 || std::strcmp(name, "PROFILE") == 0)
        return balanced(l, t, order);
      for (const core::NamedStatement& d : kDirectNamed)
        if (std::strcmp(d.name, name) == 0) {
          find(l, order, std::string(name) + " is a direct-mode command");
          return false;
        }
    }
    if (!balanced(l, t, order)) return false;
    return assignment(l, t, order);
  }

  // variable [(subscripts)] [.component] = expression
  bool assignment(Line& l, const Token* t, int order) {
    if (t->kind != core::kTokIdent) {
      find(l, order, "Syntax error: a statement or an assignment was expected");
      return false;
    }
    const char* target = t->name();
    if (values::find_pseudo(target) >= 0 && t[1].kind != '(') {
      find(l, order, std::string(target) + " is read-only");
      return false;
    }
    ++t;
    if (t->kind == '(' && !(t = past_parentheses(t))) {
      find(l, order, "Missing )");
      return false;
    }
    const bool component = t->kind == '.';
    if (component) t += 2;
    if (t->kind != '=') {
      find(l, order, std::string("Syntax error: ") + target + " is not a statement (an assignment needs =)");
      return false;
    }
    ++t;
    const Token* from = t;
    if (!expression(t) || !stmt_end(*t)) return expression_finding(l, t, order);
    if (!component) single_literals(l, target, from, t, order);
    return true;
  }

  bool expression_finding(Line& l, const Token* at, int order) {
    const std::string what = at->kind == core::kTokEnd ? std::string("the end of the line") : token_text(*at);
    find(l, order, "Syntax error in expression at " + (what.empty() ? std::string("a literal") : what));
    return false;
  }

  // Parentheses must pair within a statement.
  bool balanced(Line& l, const Token* t, int order) {
    int depth = 0;
    for (; t->kind != core::kTokEnd && !(depth == 0 && (t->kind == ':')); ++t) {
      if (t->kind == '(') ++depth;
      else if (t->kind == ')' && --depth < 0) break;
    }
    if (depth == 0) return true;
    find(l, order, depth > 0 ? "Missing )" : "Unexpected )");
    return false;
  }

  // A SINGLE literal whose value is not exact in binary32 loses digits when
  // it is stored into a DOUBLE variable (0.1 becomes 0.100000001490116).
  void single_literals(Line& l, const char* target, const Token* from, const Token* end, int order) {
    if (type_of(target) != values::kDouble) return;
    for (const Token* p = from; p < end; ++p) {
      if (p->kind != core::kTokNumber || p->type != values::kSingle) continue;
      const double exact = literal_text_value(l.text, *p);
      if (static_cast<double>(static_cast<float>(exact)) == exact) continue;
      std::size_t n = 0;
      const char* s = l.text.c_str() + p->column;
      while (s[n] && (std::isdigit(static_cast<unsigned char>(s[n])) || s[n] == '.' || s[n] == 'E' || s[n] == 'e' ||
                      ((s[n] == '+' || s[n] == '-') && n > 0 && (s[n - 1] == 'E' || s[n - 1] == 'e'))))
        ++n;
      const std::string lit(s, n);
      find(l, order, "SINGLE literal " + lit + " stored in DOUBLE " + target + "; write " + lit +
                         "# to keep double precision");
      return;
    }
  }

  // FOR/NEXT and WHILE/WEND in source order. A NEXT or WEND inside a THEN
  // or ELSE branch is conditional: it must have a loop to close but does not
  // end the loop in the text.
  void loops() {
    struct Open {
      bool is_for;
      std::string var;
      const Line* line;
      int order;
      bool in_branch;  // opened inside a THEN or ELSE branch
    };
    std::vector<Open> open;
    auto close_to = [&](std::size_t keep) {
      while (open.size() > keep) {
        const Open& o = open.back();
        find(*o.line, o.order, o.is_for ? "FOR " + o.var + " without NEXT" : std::string("WHILE without WEND"));
        open.pop_back();
      }
    };
    for (const Line& l : lines_) {
      if (!l.scan.error.empty()) continue;
      const Token* base = l.scan.tokens.data();
      bool in_branch = false;
      for (const Token* t = base; t->kind != core::kTokEnd; ++t) {
        const int order = static_cast<int>(t - base);
        if (t->kind == core::KW_THEN || t->kind == core::KW_ELSE) {
          in_branch = true;
          continue;
        }
        const bool at_start = t == base || t[-1].kind == ':' || t[-1].kind == core::KW_THEN ||
                              t[-1].kind == core::KW_ELSE;
        if (!at_start) continue;
        if ((t->kind == core::KW_FOR || t->kind == core::KW_PARFOR) && t[1].kind != core::KW_END) {
          open.push_back({true, t[1].kind == core::kTokIdent ? t[1].name() : "", &l, order, in_branch});
        } else if (t->kind == core::KW_WHILE && t[1].kind != core::KW_END) {
          open.push_back({false, "", &l, order, in_branch});
        } else if (t->kind == core::KW_NEXT) {
          std::vector<std::string> names;
          for (const Token* p = t + 1; p->kind == core::kTokIdent; p += 2) {
            names.push_back(p->name());
            if (p[1].kind != ',') break;
          }
          if (names.empty()) names.push_back("");
          for (const std::string& name : names) {
            std::size_t i = open.size();
            while (i > 0 && !(open[i - 1].is_for && (name.empty() || open[i - 1].var == name))) --i;
            if (i == 0) {
              find(l, order, name.empty() ? "NEXT without FOR" : "NEXT " + name + " without FOR");
              break;
            }
            // A loop opened and closed in the same branch is closed for good.
            if (!in_branch || (open[i - 1].line == &l && open[i - 1].in_branch)) {
              close_to(i);
              open.pop_back();
            }
          }
        } else if (t->kind == core::KW_WEND) {
          std::size_t i = open.size();
          while (i > 0 && open[i - 1].is_for) --i;
          if (i == 0) {
            find(l, order, "WEND without WHILE");
          } else if (!in_branch || (open[i - 1].line == &l && open[i - 1].in_branch)) {
            close_to(i);
            open.pop_back();
          }
        }
      }
    }
    close_to(0);
  }

  // GOTO, GOSUB, THEN/ELSE, RESTORE, RESUME, RETURN and RUN targets must be
  // stored lines.
  void targets() {
    std::set<std::uint32_t> numbers;
    for (const Line& l : lines_) numbers.insert(l.number);
    for (const Line& l : lines_) {
      for (const LineRef& r : l.scan.refs) {
        if (r.kind == RefKind::Erl || r.kind == RefKind::Range || numbers.count(r.target)) continue;
        static const char* const kNames[] = {"GOTO", "GOSUB", "THEN", "ELSE", "RESTORE", "RESUME", "RETURN", "RUN"};
        find(l, static_cast<int>(r.column), std::string(kNames[static_cast<int>(r.kind)]) + " " +
                                                 std::to_string(r.target) + ": no line " +
                                                 std::to_string(r.target) + " in the program");
      }
    }
  }

  // RETURN with no GOSUB reaching it: the lines reachable from every GOSUB
  // target (following GOTOs and falling through) must include each RETURN.
  // Computed jumps make the question unanswerable: the check is skipped.
  void returns() {
    for (const Line& l : lines_)
      if (l.scan.computed || !l.scan.error.empty()) return;
    std::map<std::uint32_t, std::size_t> index;
    for (std::size_t i = 0; i < lines_.size(); ++i) index[lines_[i].number] = i;
    std::vector<bool> reached(lines_.size(), false);
    std::vector<std::size_t> work;
    for (const Line& l : lines_)
      for (const LineRef& r : l.scan.refs)
        if (r.kind == RefKind::Gosub && index.count(r.target)) work.push_back(index[r.target]);
    while (!work.empty()) {
      const std::size_t i = work.back();
      work.pop_back();
      if (reached[i]) continue;
      reached[i] = true;
      const Line& l = lines_[i];
      for (const LineRef& r : l.scan.refs)
        if ((r.kind == RefKind::Goto || r.kind == RefKind::Then || r.kind == RefKind::Else) && index.count(r.target))
          work.push_back(index[r.target]);
      if (i + 1 < lines_.size() && falls_through(l)) work.push_back(i + 1);
    }
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      if (reached[i]) continue;
      const Token* base = lines_[i].scan.tokens.data();
      for (const Token* t = base; t->kind != core::kTokEnd; ++t) {
        const bool at_start = t == base || t[-1].kind == ':' || t[-1].kind == core::KW_THEN ||
                              t[-1].kind == core::KW_ELSE;
        if (at_start && t->kind == core::KW_RETURN) {
          find(lines_[i], static_cast<int>(t - base), "RETURN without a GOSUB that reaches it");
          break;
        }
      }
    }
  }

  // Whether control can run past the end of the line: not when its last
  // unconditional statement is GOTO, RETURN, END, STOP, SYSTEM, RUN or CHAIN.
  static bool falls_through(const Line& l) {
    const Token* base = l.scan.tokens.data();
    const Token* last = nullptr;
    for (const Token* t = base; t->kind != core::kTokEnd; ++t) {
      if (t->kind == core::KW_IF) return true;  // a branch may not be taken
      if (t == base || t[-1].kind == ':') last = t;
    }
    if (!last) return true;
    switch (last->kind) {
      case core::KW_GOTO: case core::KW_RETURN: case core::KW_END: case core::KW_STOP: case core::KW_SYSTEM:
      case core::KW_RUN: case core::KW_CHAIN:
        return false;
      default:
        return true;
    }
  }
};

}  // namespace

void cmd_audit(const core::Token*& t) {
  ++t;
  if (!core::at_statement_end(t)) {
    core::raise("Syntax Error");
    return;
  }
  Auditor a;
  a.run();
  std::stable_sort(a.findings.begin(), a.findings.end(), [](const Finding& x, const Finding& y) {
    return x.line != y.line ? x.line < y.line : x.order < y.order;
  });
  Pager out(true);
  for (const Finding& f : a.findings)
    if (!out.line("Line " + std::to_string(f.line) + ": " + f.text)) return;
  if (audit_extension) audit_extension(static_cast<int>(a.findings.size()));
}

}  // namespace tools
