// KILL, NAME, FILES/DIR, CHDIR, MKDIR, RMDIR, GETFILES, GETDRIVES, BLOAD,
// BSAVE and CHAIN.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/exec.h"
#include "core/program.h"
#include "core/statements.h"
#include "files/file_statements.h"
#include "files/file_table.h"
#include "files/var_image.h"
#include "host/platform.h"
#include "screen/console.h"
#include "values/arrays.h"
#include "values/eval.h"
#include "values/store.h"
#include "values/strings.h"

namespace files {

bool keep_files_once = false;  // CHAIN: the clear that starts the next program leaves files open

namespace {

bool fail(const char* m) {
  core::raise(m);
  return false;
}

bool end_of_statement(const Token* t) {
  if (core::at_statement_end(t)) return true;
  return fail("Syntax error");
}

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// DOS wildcards, case-insensitive: "*" any run, "?" one character; "*.*" is everything.
bool wild_match(const char* p, const char* s) {
  if (std::strcmp(p, "*.*") == 0) return true;
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*s) {
    if (*p == '*') {
      star = p++;
      resume = s;
    } else if (*p == '?' || (*p && upper(*p) == upper(*s))) {
      ++p;
      ++s;
    } else if (star) {
      p = star + 1;
      s = ++resume;
    } else {
      return false;
    }
  }
  while (*p == '*') ++p;
  return *p == 0;
}

// A pattern as FILES, KILL and GETFILES take it: a directory part checked like
// any file name and a last part that may hold wildcards. A pattern that
// names a directory lists that directory.
struct Pattern {
  std::string dir;   // "" for the current directory, else ending in a separator
  std::string mask;  // "*" when none was given
};

bool parse_pattern(const char* text, std::uint32_t len, Pattern* out, bool directory_lists = true) {
  std::string all(text, len);
  const std::size_t sep = all.find_last_of("\\/");
  std::string dir = sep == std::string::npos ? std::string() : all.substr(0, sep + 1);
  std::string mask = sep == std::string::npos ? all : all.substr(sep + 1);
  if (all.size() == 2 && all[1] == ':') {
    dir = all;
    mask.clear();
  }
  std::string checked;
  if (!dir.empty() && !core::check_file_name(dir.data(), static_cast<std::uint32_t>(dir.size()), &checked)) return false;
  if (!mask.empty()) {
    // Wildcards are allowed in the last part only; the rest of the checks are the usual ones.
    std::string plain = mask;
    for (char& c : plain)
      if (c == '*' || c == '?') c = 'X';
    if (!core::check_file_name(plain.data(), static_cast<std::uint32_t>(plain.size()), &checked)) return false;
  }
  if (directory_lists && !mask.empty() && mask.find_first_of("*?") == std::string::npos &&
      host::path_kind(dir + mask) == 2) {
    dir += mask;
    dir += host::path_separator();
    mask.clear();
  }
  out->dir = dir;
  out->mask = mask.empty() ? "*" : mask;
  return true;
}

// The entries a pattern matches, sorted by name (case-insensitively).
bool matching(const Pattern& p, std::vector<host::DirEntry>* out) {
  std::vector<host::DirEntry> all;
  std::string dir = p.dir;
  if (dir.size() > 1 && (dir.back() == '\\' || dir.back() == '/') && dir[dir.size() - 2] != ':') dir.pop_back();
  if (!host::list_directory(dir, &all)) return fail("Path not found");
  for (host::DirEntry& e : all)
    if (wild_match(p.mask.c_str(), e.name.c_str())) out->push_back(e);
  std::sort(out->begin(), out->end(), [](const host::DirEntry& a, const host::DirEntry& b) {
    const std::size_t n = std::min(a.name.size(), b.name.size());
    for (std::size_t i = 0; i < n; ++i)
      if (upper(a.name[i]) != upper(b.name[i])) return upper(a.name[i]) < upper(b.name[i]);
    return a.name.size() < b.name.size();
  });
  return true;
}

bool string_value(const Token*& t, values::Value* v) {
  if (!values::eval(t, v)) return false;
  if (v->type != values::kString) return fail("Type mismatch");
  return true;
}

// A one-argument statement on a checked file name.
bool name_statement(const Token*& t, std::string* name) {
  ++t;
  return file_name_value(t, name) && end_of_statement(t);
}

bool report(host::FileFault f) {
  if (f == host::FileFault::none) return true;
  return fail(fault_message(f));
}

// "A$()" for the array statements: a string array name with empty parentheses.
bool array_target(const Token*& t, char name[40]) {
  if (t->kind != core::kTokIdent || t[1].kind != '(' || t[2].kind != ')') return fail("Syntax error");
  std::memcpy(name, t->name(), 40);  // token names are NUL-terminated within 40 bytes
  name[39] = 0;
  if (values::type_of_name(name) != values::kString) return fail("Type mismatch");
  t += 3;
  return true;
}

// Fill the string array `name` with the texts: elements from OPTION BASE on,
// at least one element (empty) when there are none; then the count into the
// optional numeric variable that follows.
void store_list(const Token*& t, const char* name, const std::vector<std::string>& texts) {
  values::LValue count;
  bool has_count = false;
  if (t->kind == ',') {
    ++t;
    if (!values::parse_lvalue(t, &count)) return;
    has_count = true;
  }
  if (!end_of_statement(t)) return;
  const std::int64_t n = static_cast<std::int64_t>(texts.size());
  const std::int64_t upper = values::option_base + (n > 0 ? n : 1) - 1;
  values::Descriptor* d = values::array_create(name, &upper, 1, true);
  if (!d) return;
  for (std::int64_t i = 0; i < n; ++i) {
    const std::int64_t sub = values::option_base + i;
    void* slot = values::array_element(d, &sub, 1);
    if (!slot) return;
    const std::string& s = texts[static_cast<std::size_t>(i)];
    if (!values::store_value(slot, values::kString,
                             values::Value::string(const_cast<char*>(s.data()), static_cast<std::uint32_t>(s.size()))))
      return;
  }
  if (has_count) (void)values::assign(count, values::Value::integer(n, values::kInt64));
}

bool is_common(const values::Descriptor& d) {
  for (int i = 0; i < values::common_count(); ++i) {
    const values::CommonEntry& e = values::common_entry(i);
    if (e.array == d.is_array() && e.type == d.type && values::base_length(e.name) == values::base_length(d.name) &&
        std::memcmp(e.name, d.name, values::base_length(d.name)) == 0)
      return true;
  }
  return false;
}

constexpr std::uint8_t kImageMark = 0xFD;  // the first byte of a BSAVE image, as ever

}  // namespace

// KILL f$: delete a file; wildcards in the last part delete every match.
void stmt_kill(const Token*& t) {
  ++t;
  values::Value v;
  if (!string_value(t, &v) || !end_of_statement(t)) return;
  Pattern p;
  // KILL "DIR" names the directory itself, which KILL never deletes.
  if (!parse_pattern(v.s.ptr, v.s.len, &p, false)) return;
  std::vector<host::DirEntry> list;
  if (!matching(p, &list)) return;
  bool any = false;
  for (const host::DirEntry& e : list) {
    if (e.directory) continue;
    const std::string name = p.dir + e.name;
    if (open_name(name)) {
      core::raise("File already open");
      return;
    }
    if (!report(host::delete_file(name))) return;
    any = true;
  }
  if (!any) core::raise("File not found");
}

// NAME old$ AS new$: rename (or move within a drive); never overwrites.
void stmt_name(const Token*& t) {
  ++t;
  std::string from, to;
  if (!file_name_value(t, &from) || !values::expect(t, core::KW_AS, "Syntax error") || !file_name_value(t, &to) ||
      !end_of_statement(t))
    return;
  if (host::path_kind(from) == 0) {
    core::raise("File not found");
    return;
  }
  if (open_name(from)) {
    core::raise("File already open");
    return;
  }
  (void)report(host::rename_file(from, to));
}

// FILES [pattern$] (DIR is the same statement): the directory, then one
// entry a line, sizes for files, <DIR> for directories.
void stmt_files(const Token*& t) {
  ++t;
  Pattern p{"", "*"};
  if (!core::at_statement_end(t)) {
    values::Value v;
    if (!string_value(t, &v) || !parse_pattern(v.s.ptr, v.s.len, &p)) return;
  }
  if (!end_of_statement(t)) return;
  std::vector<host::DirEntry> list;
  if (!matching(p, &list)) return;
  if (list.empty()) {
    core::raise("File not found");
    return;
  }
  // The directory first, as the classic FILES prints it: in the window the
  // current directory is the temporary one, and this line shows where a
  // SAVE without a path goes.
  std::string where = p.dir;
  if (where.empty() || !host::is_absolute_path(where)) {
    std::string cwd = host::current_directory_cp437();
    if (!cwd.empty() && cwd.back() != host::path_separator() && !where.empty()) cwd += host::path_separator();
    where = cwd + where;
  }
  screen::put_line(where.c_str());
  for (const host::DirEntry& e : list) {
    char line[64];
    if (e.directory) std::snprintf(line, sizeof line, " <DIR>");
    else std::snprintf(line, sizeof line, " %llu", static_cast<unsigned long long>(e.size));
    std::string text = e.name;
    while (text.size() < 24) text.push_back(' ');
    screen::put_line((text + line).c_str());
  }
}

void stmt_chdir(const Token*& t) {
  std::string name;
  if (!name_statement(t, &name)) return;
  const host::FileFault f = host::change_directory(name);
  (void)report(f == host::FileFault::not_found ? host::FileFault::path_not_found : f);
}

void stmt_mkdir(const Token*& t) {
  std::string name;
  if (!name_statement(t, &name)) return;
  const host::FileFault f = host::make_directory(name);
  (void)report(f == host::FileFault::not_found ? host::FileFault::path_not_found : f);
}

void stmt_rmdir(const Token*& t) {
  std::string name;
  if (!name_statement(t, &name)) return;
  if (host::path_kind(name) != 2) {
    core::raise("Path not found");
    return;
  }
  (void)report(host::remove_directory(name));
}

// GETFILES pattern$, A$() [, count]: the matching names (directories with a
// trailing separator) into a new string array A$.
void stmt_getfiles(const Token*& t) {
  ++t;
  values::Value v;
  Pattern p;
  char name[40];
  if (!string_value(t, &v) || !parse_pattern(v.s.ptr, v.s.len, &p) || !values::expect(t, ',', "Syntax error") ||
      !array_target(t, name))
    return;
  std::vector<host::DirEntry> list;
  if (!matching(p, &list)) return;
  std::vector<std::string> names;
  for (const host::DirEntry& e : list) names.push_back(e.directory ? e.name + host::path_separator() : e.name);
  store_list(t, name, names);
}

// GETDRIVES A$() [, count]: the drive roots ("C:\" ..., "/" on Linux).
void stmt_getdrives(const Token*& t) {
  ++t;
  char name[40];
  if (!array_target(t, name)) return;
  store_list(t, name, host::drive_roots());
}

// BSAVE f$, address, length: a memory image through the checked access.
// File: 0xFD, u64 address, u64 length, the bytes.
void stmt_bsave(const Token*& t) {
  ++t;
  std::string name;
  std::int64_t address, length;
  if (!file_name_value(t, &name) || !values::expect(t, ',', "Syntax error") || !values::eval_int64(t, &address) ||
      !values::expect(t, ',', "Syntax error") || !values::eval_int64(t, &length) || !end_of_statement(t))
    return;
  if (length < 0) {
    core::raise("Illegal function call");
    return;
  }
  std::string bytes(17 + static_cast<std::size_t>(length), '\0');
  bytes[0] = static_cast<char>(kImageMark);
  std::memcpy(&bytes[1], &address, 8);
  std::memcpy(&bytes[9], &length, 8);
  if (length && !host::checked_read(static_cast<std::uint64_t>(address), &bytes[17], static_cast<std::size_t>(length))) {
    core::raise("Invalid memory address");
    return;
  }
  // Never in place: a failed BSAVE leaves the old image as it was.
  bool created;
  const host::FileFault r = host::write_file_replacing(name, bytes.data(), bytes.size(), &created);
  if (r == host::FileFault::none) return;
  core::raise(!created ? "Path not found" : r == host::FileFault::disk_full ? "Disk I/O error" : fault_message(r));
}

// BLOAD f$[, address]: back to where it was saved, or to the address given.
void stmt_bload(const Token*& t) {
  ++t;
  std::string name;
  if (!file_name_value(t, &name)) return;
  bool at = false;
  std::int64_t address = 0;
  if (t->kind == ',') {
    ++t;
    if (!values::eval_int64(t, &address)) return;
    at = true;
  }
  if (!end_of_statement(t)) return;
  if (host::path_kind(name) != 1) {
    core::raise("File not found");
    return;
  }
  std::FILE* f = host::open_file(name, "rb");
  if (!f) {
    core::raise("Permission denied");
    return;
  }
  unsigned char head[17];
  std::int64_t saved, length;
  const std::int64_t size = host::file_length(f);
  bool ok = std::fread(head, 1, sizeof head, f) == sizeof head && head[0] == kImageMark;
  if (ok) {
    std::memcpy(&saved, head + 1, 8);
    std::memcpy(&length, head + 9, 8);
    ok = length >= 0 && length == size - 17;
  }
  if (!ok) {
    std::fclose(f);
    core::raise("Bad file format");
    return;
  }
  std::string bytes(static_cast<std::size_t>(length), '\0');
  ok = std::fread(bytes.data(), 1, bytes.size(), f) == bytes.size();
  std::fclose(f);
  if (!ok) {
    core::raise("Disk I/O error");
    return;
  }
  // The image may land on string bytes: no temporaries are adopted after this.
  values::set_adoption(false);
  if (length && !host::checked_write(static_cast<std::uint64_t>(at ? address : saved), bytes.data(), bytes.size()))
    core::raise("Invalid memory address");
}

// CHAIN [MERGE] f$ [, [line] [, [ALL] [, DELETE range]]]: replace the
// program (or, with MERGE, merge the file into it after deleting the DELETE
// range: an overlay) and run it from the line given, keeping the open files
// and the COMMON variables (every variable with ALL).
void stmt_chain(const Token*& t) {
  ++t;
  const bool merge = t->kind == core::KW_MERGE;
  if (merge) ++t;
  values::Value v;
  if (!string_value(t, &v)) return;
  std::string name;
  if (!core::resolve_source_name(v.s.ptr, v.s.len, &name)) return;
  bool has_line = false, all = false, remove = false;
  std::uint32_t number = 0, from = 0, to = 0;
  if (t->kind == ',') {
    ++t;
    if (t->kind != ',' && !core::at_statement_end(t)) {
      if (!core::eval_line_number(t, &number)) return;
      has_line = true;
    }
    if (t->kind == ',') {
      ++t;
      if (t->kind == core::kTokIdent && !std::strcmp(t->name(), "ALL")) {
        ++t;
        all = true;
      }
      if (t->kind == ',') {
        ++t;
        // DELETE belongs to overlays: it removes lines of the program that stays.
        if (t->kind != core::KW_DELETE || !merge) {
          core::raise("Syntax error");
          return;
        }
        ++t;
        bool single;
        if (!core::parse_range(t, &from, &to, &single)) return;
        remove = true;
      }
    }
  }
  if (!end_of_statement(t)) return;
  if (host::path_kind(name) != 1) {
    core::raise("File not found");
    return;
  }
  const std::string kept = encode_variables(all ? nullptr : is_common);
  const int base = values::option_base;
  const std::uint32_t here = core::current_line_number();
  if (remove) {
    std::uint32_t index;
    (void)core::find_line(from, &index);
    while (index < core::program.lines && core::line_index[index].number <= to) core::delete_line(index);
  }
  if (!core::load_source(name, merge ? core::LoadMode::chain_merge : core::LoadMode::chain)) {
    // The old program is gone and the new one partial: nothing of the old
    // run (handlers, stacks, variables) applies, and the error names the CHAIN.
    core::run_program(core::program.lines);
    core::err.line = here;
    core::err.line_recorded = true;
    return;
  }
  std::uint32_t index = 0;
  if (has_line && !core::find_line(number, &index)) {
    core::run_program(core::program.lines);  // nothing runs, but the old state is gone
    core::raise("Undefined line number");
    core::err.line = here;
    core::err.line_recorded = true;
    return;
  }
  keep_files_once = true;
  core::run_program(index);
  keep_files_once = false;
  values::option_base = base;
  (void)decode_variables(kept, true, "Internal error");
}

}  // namespace files
