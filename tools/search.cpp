// FIND, REPLACE and XREF: searches over the program text.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/direct.h"
#include "core/errors.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "screen/console.h"
#include "tools/linerefs.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "values/builtins.h"
#include "values/eval.h"

namespace tools {

namespace {

using core::program;
using core::line_index;

char fold(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// Position of `what` in `text` from `from` on, letters matched in either case.
std::size_t find_folded(const std::string& text, const std::string& what, std::size_t from) {
  if (what.empty() || text.size() < what.size()) return std::string::npos;
  for (std::size_t i = from; i + what.size() <= text.size(); ++i) {
    std::size_t k = 0;
    while (k < what.size() && fold(text[i + k]) == fold(what[k])) ++k;
    if (k == what.size()) return i;
  }
  return std::string::npos;
}

std::string listed_line(std::uint32_t number, const std::string& body) { return std::to_string(number) + " " + body; }

// FIND's argument: a string literal, or the raw rest of the statement.
std::string find_argument(const core::Token*& t) {
  if (t->kind == core::kTokString && core::at_statement_end(t + 1)) {
    std::string s(t->str_ptr(), t->str_len());
    ++t;
    return s;
  }
  const char* text = core::current_line_text();
  const std::size_t start = t->kind == core::kTokEnd ? std::strlen(text) : t->column;
  while (t->kind != core::kTokEnd) ++t;
  std::string s(text + start);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.pop_back();
  return s;
}

bool string_arg(const core::Token*& t, std::string* out) {
  values::Value v;
  if (!values::eval(t, &v)) return false;
  if (v.type != values::kString) {
    core::raise("Type mismatch");
    return false;
  }
  out->assign(v.s.ptr, v.s.len);
  return true;
}

}  // namespace

void cmd_find(const core::Token*& t) {
  ++t;
  const std::string what = find_argument(t);
  if (what.empty()) {
    core::raise("Syntax Error");
    return;
  }
  Pager out(true);
  int found = 0;
  for (std::uint32_t i = 0; i < program.lines && !out.stopped(); ++i) {
    const std::string body(core::line_body(i), core::line_body_length(i));
    if (find_folded(body, what, 0) == std::string::npos) continue;
    ++found;
    out.line(listed_line(line_index[i].number, body));
  }
  if (!found) out.line("Not found");
}

void cmd_replace(const core::Token*& t) {
  ++t;
  std::string from, to;
  if (!string_arg(t, &from) || !values::expect(t, ',', "Expected ,") || !string_arg(t, &to)) return;
  if (from.empty()) {
    core::raise("Illegal function call");
    return;
  }
  struct Change {
    std::uint32_t number;
    std::string body;
  };
  std::vector<Change> changes;
  int count = 0;
  for (std::uint32_t i = 0; i < program.lines; ++i) {
    const std::string body(core::line_body(i), core::line_body_length(i));
    std::string out;
    std::size_t at = 0, hit;
    while ((hit = find_folded(body, from, at)) != std::string::npos) {
      out.append(body, at, hit - at);
      out += to;
      at = hit + from.size();
      ++count;
    }
    if (at == 0) continue;
    out.append(body, at, std::string::npos);
    if (out.size() > core::kMaxBody) {
      char buf[64];
      std::snprintf(buf, sizeof buf, "Line too long in %u", line_index[i].number);
      core::raise(buf);
      return;
    }
    changes.push_back({line_index[i].number, std::move(out)});
  }
  // An emptied line would be deleted by storing it; keep at least a blank.
  ++program.loading;
  for (Change& c : changes) {
    if (c.body.empty()) c.body = " ";
    if (!core::store_line(c.number, c.body.data(), static_cast<std::uint32_t>(c.body.size()))) break;
  }
  if (--program.loading == 0 && program.invalidate_pending) {
    program.invalidate_pending = false;
    core::invalidate_caches();
  }
  if (!changes.empty()) program.modified = true;
  Pager out(true);
  for (const Change& c : changes)
    if (!out.line(listed_line(c.number, c.body))) break;
  out.line(std::to_string(count) + (count == 1 ? " replacement" : " replacements"));
}

namespace {

// Words that name options of a statement rather than variables.
bool option_word(const char* statement, const char* word) {
  static const struct {
    const char* statement;
    const char* words;
  } kOptions[] = {
      {"ACCEPT", " AT SIZE VALIDATE BEEP DEFAULT UCASE LCASE RESTART "},
      {"CAPTURE", " FILE OFF "},
      {"LINE", " B BF "},
      {"LOAD", " R "},
      {"SAVE", " A "},
      {"LIST", " NOWAIT "},
      {"VARINFO", " FULL "},
      {"TRACE", " OFF "},
      {"MOUSE", " OFF "},
      {"SCREEN", " MODES "},
      {"KEYREPEAT", " DEFAULT "},
      {"OPTION", " ERRORPRINT PARTHREADS "},
      {"ON", " TIMER MOUSEMOVE MOUSECLICK MOUSEDOUBLECLICK "},
      {"CREATEEXE", " NOGM "},
      {"SOUND", " ON OFF RESET INFO PRELOAD GROUPS LIST MASTER "},
      {"MIDFX", " AUTO OFF CLEAR "},
      {"TCP", " OPEN SEND CLOSE "},
  };
  const std::string w = std::string(" ") + word + " ";
  for (const auto& o : kOptions)
    if (std::strcmp(o.statement, statement) == 0 && std::strstr(o.words, w.c_str())) return true;
  return std::strcmp(word, "OFF") == 0;  // TIMER(n) OFF and friends
}

}  // namespace

void cmd_xref(const core::Token*& t) {
  ++t;
  using Uses = std::map<std::string, std::vector<std::uint32_t>>;
  Uses variables, arrays, functions, targets;
  auto note = [](Uses& m, const std::string& name, std::uint32_t line) {
    std::vector<std::uint32_t>& v = m[name];
    if (v.empty() || v.back() != line) v.push_back(line);
  };
  for (std::uint32_t i = 0; i < program.lines; ++i) {
    const std::uint32_t number = line_index[i].number;
    const LineScan scan = scan_line(core::line_body(i));
    for (const LineRef& r : scan.refs) {
      char key[16];
      std::snprintf(key, sizeof key, "%10u", r.target);  // sorts numerically
      note(targets, key, number);
    }
    const std::vector<core::Token>& tk = scan.tokens;
    std::string statement;  // the word that starts the statement in hand
    bool at_start = true;
    for (std::size_t k = 0; tk[k].kind != core::kTokEnd; ++k) {
      const core::Token& w = tk[k];
      if (w.kind == ':' || w.kind == core::KW_THEN || w.kind == core::KW_ELSE) {
        at_start = true;
        continue;
      }
      const bool first = at_start;
      at_start = false;
      if (first) statement = token_text(w);
      if (w.kind != core::kTokIdent) continue;
      const char* name = w.name();
      const std::uint8_t next = tk[k + 1].kind;
      if (k > 0 && tk[k - 1].kind == '.') continue;  // a component name after X@.
      if (first && next != '=' && next != '(' && next != '.' &&
          (core::is_statement_word(name) || std::any_of(std::begin(kDirectNamed), std::end(kDirectNamed),
                                                        [&](const core::NamedStatement& n) {
                                                          return std::strcmp(n.name, name) == 0;
                                                        })))
        continue;
      if (!first && option_word(statement.c_str(), name)) continue;
      if (std::strncmp(name, "FN", 2) == 0 && (next == '(' || (k > 0 && tk[k - 1].kind == core::KW_DEF))) {
        note(functions, name, number);
      } else if (values::find_builtin(name) >= 0 || values::find_pseudo(name) >= 0) {
        note(functions, name, number);
      } else if (next == '(') {
        note(arrays, std::string(name) + "()", number);
      } else {
        note(variables, name, number);
      }
    }
  }
  Pager out(true);
  const struct {
    const char* title;
    const Uses* uses;
  } kSections[] = {
      {"Variables", &variables}, {"Arrays", &arrays}, {"Functions", &functions}, {"Line targets", &targets}};
  for (const auto& s : kSections) {
    if (s.uses->empty()) continue;
    if (!out.line(s.title)) return;
    for (const auto& [name, lines] : *s.uses) {
      std::string shown = name;
      shown.erase(0, shown.find_first_not_of(' '));
      std::string numbers;
      for (std::uint32_t n : lines) numbers += (numbers.empty() ? "" : " ") + std::to_string(n);
      if (!out.columns("  " + shown, 16, numbers)) return;
    }
  }
}

}  // namespace tools
