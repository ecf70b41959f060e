// TRACE: watched variables. After every statement of a running program each
// watch is evaluated; when its value differs from the last one seen it is
// printed as "[line] name = value". Watches are kept as text and tokenized
// once; they are evaluated with errors diverted, so a watch on an array that
// does not exist yet is simply not shown until it does.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/direct.h"
#include "core/errors.h"
#include "core/exec.h"
#include "core/statements.h"
#include "screen/console.h"
#include "tools/inspect.h"
#include "tools/linerefs.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "tools/watches.h"
#include "values/eval.h"
#include "values/strings.h"

namespace tools {

namespace {

struct Watch {
  std::string text;                  // as the user wrote it, upper-cased outside strings
  std::vector<core::Token> tokens;   // its expression, terminator included
  bool has_value = false;
  std::string last;
};
std::vector<Watch> watches;

void ignore_error(const char*) {}

}  // namespace

bool watch_value(std::size_t i, std::string* out) {
  Watch& w = watches[i];
  const core::ErrorHook saved = core::err.hook;
  const bool saved_flag = core::err.flag;
  core::err.flag = false;
  core::err.hook = ignore_error;
  const core::Token* t = w.tokens.data();
  values::Value v;
  const bool ok = values::eval(t, &v) && t->kind == core::kTokEnd;
  if (ok) *out = value_text(v, 60);
  core::err.hook = saved;
  core::err.flag = saved_flag;
  return ok;
}

std::size_t watch_count() { return watches.size(); }
const std::string& watch_text(std::size_t i) { return watches[i].text; }

bool add_watch(const std::string& text) {
  for (const Watch& w : watches)
    if (w.text == text) return true;
  if (watches.size() >= kMaxWatches) {
    core::raise("Too many watches");
    return false;
  }
  Watch w;
  w.text = text;
  std::string error;
  quiet_tokenize(w.text.c_str(), &w.tokens, &error);
  if (!error.empty()) {
    core::raise(error.c_str());
    return false;
  }
  // String literals in the tokens point into the text: the vector never
  // reallocates (room for every watch is reserved), so the kept text stays.
  watches.reserve(kMaxWatches);
  watches.push_back(std::move(w));
  Watch& kept = watches.back();
  quiet_tokenize(kept.text.c_str(), &kept.tokens, &error);
  std::string now;
  kept.has_value = watch_value(watches.size() - 1, &now);
  kept.last = now;
  core::after_statement = check_watches;
  return true;
}

void clear_watches() {
  watches.clear();
  core::after_statement = nullptr;
}

void check_watches() {
  const bool in_program = core::exec.line != core::kDirect;
  for (std::size_t i = 0; i < watches.size(); ++i) {
    std::string now;
    const bool ok = watch_value(i, &now);
    Watch& w = watches[i];
    if (ok == w.has_value && (!ok || now == w.last)) continue;
    w.has_value = ok;
    w.last = now;
    // Direct-mode statements only move the baseline: the watch reports what
    // the program changes.
    if (!ok || !in_program) continue;
    char head[24];
    std::snprintf(head, sizeof head, "[%u] ", core::current_line_number());
    screen::ensure_left_column();
    screen::put_line((head + w.text + " = " + now).c_str());
  }
}

void stmt_trace(const core::Token*& t) {
  ++t;
  if (core::at_statement_end(t)) {
    Pager out(true);
    if (watches.empty()) out.line("(no watches)");
    for (std::size_t i = 0; i < watches.size(); ++i) {
      std::string now;
      if (!out.line(watches[i].text + " = " + (watch_value(i, &now) ? now : std::string("(undefined)")))) return;
    }
    return;
  }
  if (t->kind == core::kTokIdent && std::strcmp(t->name(), "OFF") == 0 && core::at_statement_end(t + 1)) {
    ++t;
    clear_watches();
    return;
  }
  // A list of variables or array elements, each kept as its source text.
  const char* text = core::current_line_text();
  for (;;) {
    if (t->kind != core::kTokIdent) {
      core::raise("Expected variable");
      return;
    }
    const std::size_t start = t->column;
    ++t;
    if (t->kind == '(' && !(t = past_parentheses(t))) {
      core::raise("Expected )");
      return;
    }
    if (t->kind == '.' && t[1].kind == core::kTokIdent) t += 2;  // X@.R
    const std::size_t end = t->kind == core::kTokEnd ? std::strlen(text) : t->column;
    std::string w(text + start, end - start);
    while (!w.empty() && (w.back() == ' ' || w.back() == '\t')) w.pop_back();
    if (!add_watch(upper(w))) return;
    if (t->kind != ',') break;
    ++t;
  }
}

}  // namespace tools
