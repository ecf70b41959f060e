// HELP: lookups in the HELP table and the three forms of the command.
#include "tools/help.h"

#include <cstring>

#include "core/direct.h"
#include "core/statements.h"
#include "screen/console.h"
#include "tools/pager.h"

namespace tools {

namespace {

// Upper case, blanks and tabs collapsed to one blank, trimmed.
std::string normalise(const std::string& s) {
  std::string out;
  bool blank = false;
  for (char c : s) {
    if (c == ' ' || c == '\t') {
      blank = !out.empty();
      continue;
    }
    if (blank) out += ' ';
    blank = false;
    out += c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
  }
  return out;
}

bool alias_matches(const char* aliases, const std::string& topic) {
  if (!aliases) return false;
  const char* p = aliases;
  for (;;) {
    const char* bar = std::strchr(p, '|');
    const std::size_t n = bar ? static_cast<std::size_t>(bar - p) : std::strlen(p);
    if (topic.size() == n && topic.compare(0, n, p, n) == 0) return true;
    if (!bar) return false;
    p = bar + 1;
  }
}

// The argument of HELP as the user typed it: the raw text from the first
// token to the end of the statement, so that words the tokenizer cannot
// keep (an apostrophe, "?" that becomes PRINT, two-character operators)
// still find their entries.
std::string raw_topic(const core::Token*& t, std::size_t start) {
  const char* text = core::current_line_text();
  if (start > std::strlen(text)) start = std::strlen(text);
  while (t->kind != core::kTokEnd && t->kind != ':') ++t;
  std::size_t end = t->kind == ':' ? t->column : std::strlen(text);
  if (start > end) return "";
  std::string topic = normalise(std::string(text + start, end - start));
  if (topic.size() >= 2 && topic.front() == '"') {
    topic = topic.substr(1);
    if (!topic.empty() && topic.back() == '"') topic.pop_back();
    topic = normalise(topic);
  }
  return topic;
}

void show_categories(Pager& out) {
  out.line("HELP category lists the entries of a category; HELP name shows one entry.");
  for (int i = 0; i < kHelpCategoryCount && !out.stopped(); ++i) {
    int n = 0;
    for (int k = 0; k < kHelpEntryCount; ++k) n += std::strcmp(kHelpEntries[k].category, kHelpCategories[i].name) == 0;
    out.line(pad(kHelpCategories[i].name, 12) + kHelpCategories[i].title + " (" + std::to_string(n) + ")");
  }
}

void show_category(const HelpCategory& c, Pager& out) {
  out.line(std::string(c.name) + ": " + c.title);
  for (int k = 0; k < kHelpEntryCount; ++k) {
    const HelpEntry& e = kHelpEntries[k];
    if (std::strcmp(e.category, c.name) == 0 && !out.columns(e.name, 18, e.syntax)) return;
  }
}

void show_entry(const HelpEntry& e, Pager& out) {
  out.line(std::string(e.name) + " - " + e.category);
  if (out.columns("Syntax:", 8, e.syntax)) out.columns("", 0, e.text);
}

}  // namespace

const HelpEntry* find_help_entry(const std::string& topic) {
  const std::string key = normalise(topic);
  for (int k = 0; k < kHelpEntryCount; ++k)
    if (key == kHelpEntries[k].name) return &kHelpEntries[k];
  for (int k = 0; k < kHelpEntryCount; ++k)
    if (alias_matches(kHelpEntries[k].aliases, key)) return &kHelpEntries[k];
  return nullptr;
}

const HelpCategory* find_help_category(const std::string& topic) {
  const std::string key = normalise(topic);
  for (int i = 0; i < kHelpCategoryCount; ++i)
    if (key == kHelpCategories[i].name) return &kHelpCategories[i];
  return nullptr;
}

std::string wrap_text(const std::string& text, unsigned width, unsigned indent) {
  if (width < indent + 8) width = indent + 8;
  std::string out;
  std::size_t col = 0;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && text[i] == ' ') ++i;
    std::size_t j = text.find(' ', i);
    if (j == std::string::npos) j = text.size();
    if (j == i) break;
    std::string word = text.substr(i, j - i);
    i = j;
    if (col > indent && col + 1 + word.size() > width) {
      out += '\n';
      out.append(indent, ' ');
      col = indent;
    } else if (col > indent || (col > 0 && out.back() != ' ')) {
      out += ' ';
      ++col;
    }
    // A word longer than a whole line is cut where the line ends.
    while (col + word.size() > width) {
      out += word.substr(0, width - col);
      word = word.substr(width - col);
      out += '\n';
      out.append(indent, ' ');
      col = indent;
    }
    out += word;
    col += word.size();
  }
  return out;
}

void stmt_help(const core::Token*& t) {
  const std::size_t after = t->column + 4u;  // the text behind the word HELP
  ++t;
  const std::string topic = raw_topic(t, after);
  Pager out(true);
  if (topic.empty()) {
    show_categories(out);
    return;
  }
  if (const HelpCategory* c = find_help_category(topic)) {
    show_category(*c, out);
    return;
  }
  if (const HelpEntry* e = find_help_entry(topic)) {
    show_entry(*e, out);
    return;
  }
  // Not found: suggest the entries that begin with the same text.
  std::string near;
  for (int k = 0; k < kHelpEntryCount; ++k)
    if (std::strncmp(kHelpEntries[k].name, topic.c_str(), topic.size() < 3 ? topic.size() : 3) == 0)
      near += near.empty() ? kHelpEntries[k].name : std::string(", ") + kHelpEntries[k].name;
  out.line("No HELP entry for " + topic + "; HELP lists the categories.");
  if (!near.empty()) out.columns("See also:", 10, near);
}

}  // namespace tools
