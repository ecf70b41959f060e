// The reference pages in docs/reference, generated from the HELP table so
// that the manual and HELP never say different things.
#include <cstring>
#include <fstream>

#include "tools/help.h"

namespace tools {

namespace {

// Characters that Markdown would read as markup.
std::string escape(const char* s) {
  std::string out;
  for (; *s; ++s) {
    if (std::strchr("\\`*_[]<>#|", *s)) out += '\\';
    out += *s;
  }
  return out;
}

std::string lower(const char* s) {
  std::string out;
  for (; *s; ++s) out += *s >= 'A' && *s <= 'Z' ? static_cast<char>(*s + 32) : *s;
  return out;
}

}  // namespace

std::string reference_file_name(const HelpCategory& c) { return lower(c.name) + ".md"; }

std::string reference_index_page() {
  std::string s =
      "# Language reference\n\n"
      "These pages are generated from the HELP table of the system (`tools/help_entries.cpp`), the same text\n"
      "that `HELP` shows: edit the table, then run `cmake --build build --target reference_docs`. A test fails\n"
      "when the pages and the table disagree.\n\n"
      "At the Ready prompt, `HELP` lists these categories, `HELP category` the entries of one, and `HELP name`\n"
      "one entry.\n\n"
      "| Category | Contents | Entries |\n|---|---|---|\n";
  for (int i = 0; i < kHelpCategoryCount; ++i) {
    const HelpCategory& c = kHelpCategories[i];
    std::string names;
    for (int k = 0; k < kHelpEntryCount; ++k)
      if (std::strcmp(kHelpEntries[k].category, c.name) == 0)
        names += (names.empty() ? "" : ", ") + escape(kHelpEntries[k].name);
    s += "| [" + std::string(c.name) + "](" + reference_file_name(c) + ") | " + c.title + " | " + names + " |\n";
  }
  return s;
}

std::string reference_category_page(const HelpCategory& c) {
  std::string s = "# " + std::string(c.name) + ": " + c.title + "\n\n[All categories](README.md)\n";
  for (int k = 0; k < kHelpEntryCount; ++k) {
    const HelpEntry& e = kHelpEntries[k];
    if (std::strcmp(e.category, c.name) != 0) continue;
    s += "\n## " + escape(e.name) + "\n\n    " + e.syntax + "\n\n" + escape(e.text) + "\n";
    if (e.aliases) {
      std::string also;
      for (const char* p = e.aliases; *p; ++p) also += *p == '|' ? std::string("`, `") : std::string(1, *p);
      s += "\nAlso found as `" + also + "`.\n";
    }
  }
  return s;
}

bool write_reference_docs(const std::string& dir) {
  auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream f(dir + "/" + name, std::ios::binary);
    f << text;
    return static_cast<bool>(f);
  };
  bool ok = write("README.md", reference_index_page());
  for (int i = 0; i < kHelpCategoryCount; ++i)
    ok = write(reference_file_name(kHelpCategories[i]), reference_category_page(kHelpCategories[i])) && ok;
  return ok;
}

}  // namespace tools
