// HELP: the language reference inside the system. One table of entries
// (name, category, syntax, text) feeds HELP, HELP category, HELP name and
// the generated reference pages in docs/reference.
#pragma once
#include <string>

#include "core/token.h"

namespace tools {

struct HelpCategory {
  const char* name;         // upper case; never the name of an entry
  const char* title;        // one line for the category list
};

struct HelpEntry {
  const char* name;         // upper case, as typed after HELP
  const char* category;
  const char* syntax;
  const char* text;
  const char* aliases;      // further names that find the entry, "|" between them, or nullptr
};

extern const HelpCategory kHelpCategories[];
extern const int kHelpCategoryCount;
extern const HelpEntry kHelpEntries[];
extern const int kHelpEntryCount;

// Case-insensitive lookups; blanks inside the topic are collapsed.
const HelpEntry* find_help_entry(const std::string& topic);
const HelpCategory* find_help_category(const std::string& topic);

// Words of at most `width` columns per line (the console's wrapping is by
// character; HELP breaks between words).
std::string wrap_text(const std::string& text, unsigned width, unsigned indent = 0);

// The reference pages: README.md (the category index) and one page per
// category, written into dir. Returns false when a file cannot be written.
bool write_reference_docs(const std::string& dir);
// The page texts themselves (file name without directory, contents).
std::string reference_index_page();
std::string reference_category_page(const HelpCategory& c);
std::string reference_file_name(const HelpCategory& c);

void stmt_help(const core::Token*& t);

}  // namespace tools
