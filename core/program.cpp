// Program store: records, line index, token caches, LOAD/MERGE/SAVE.
#include "core/program.h"

#include <cstdio>
#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/errors.h"
#include "core/tokenizer.h"
#include "host/platform.h"
#include "values/predecode.h"

namespace core {

Program program;
LineEntry line_index[kMaxLines];
void (*on_program_changed)() = nullptr;

namespace {

std::uint32_t record_size(std::uint32_t length) { return (length + 12) & ~3u; }

std::uint32_t rec_length(const std::uint8_t* r) {
  std::uint32_t n;
  std::memcpy(&n, r + 4, 4);
  return n;
}

Token current_line[kMaxTokens + 1];  // lines that found no room in the cache area

void bump_generation() {
  if (++program.generation == 0) program.generation = 1;
}

bool fail(const char* m) {
  raise(m);
  return false;
}

}  // namespace

void program_init(std::uint8_t* base, std::uint64_t bytes) {
  program.base = base;
  program.arena_end = base + bytes;
  program_clear();
}

void program_clear() {
  program.end = program.base;
  program.lines = 0;
  program.cache_top = nullptr;
  invalidate_caches();
}

bool find_line(std::uint32_t number, std::uint32_t* index) {
  std::uint32_t lo = 0, hi = program.lines;
  while (lo < hi) {
    const std::uint32_t mid = lo + (hi - lo) / 2;
    if (line_index[mid].number < number) lo = mid + 1;
    else hi = mid;
  }
  *index = lo;
  return lo < program.lines && line_index[lo].number == number;
}

const char* line_body(std::uint32_t index) { return reinterpret_cast<const char*>(line_index[index].record + 8); }
std::uint32_t line_body_length(std::uint32_t index) { return rec_length(line_index[index].record); }

void invalidate_caches() {
  if (program.loading > 0) {
    program.invalidate_pending = true;
    return;
  }
  bump_generation();
  for (std::uint32_t i = 0; i < program.lines; ++i) {
    line_index[i].tokens = nullptr;
    line_index[i].count = 0;
  }
  program.cache_top = nullptr;
  values::forget_predecoded();
  if (on_program_changed) on_program_changed();
}

void delete_line(std::uint32_t index) {
  invalidate_caches();
  std::uint8_t* r = line_index[index].record;
  const std::uint32_t size = record_size(rec_length(r));
  std::memmove(r, r + size, static_cast<std::size_t>(program.end - (r + size)));
  program.end -= size;
  for (std::uint32_t i = index + 1; i < program.lines; ++i) {
    line_index[i - 1] = line_index[i];
    line_index[i - 1].record -= size;
  }
  --program.lines;
}

bool store_line(std::uint32_t number, const char* body, std::uint32_t length) {
  if (length > kMaxBody) return fail("Line too long");
  std::uint32_t index;
  const bool found = find_line(number, &index);
  if (length == 0) {
    if (found) delete_line(index);
    return true;
  }
  if (!found && program.lines >= kMaxLines) return fail("Program too large");
  const std::uint32_t need = record_size(length);
  std::uint64_t room = static_cast<std::uint64_t>(program.arena_end - program.end);
  if (found) room += record_size(rec_length(line_index[index].record));
  if (need > room) return fail("Program too large");
  invalidate_caches();
  if (found) delete_line(index);
  std::uint8_t* at = index < program.lines ? line_index[index].record : program.end;
  std::memmove(at + need, at, static_cast<std::size_t>(program.end - at));
  program.end += need;
  for (std::uint32_t i = program.lines; i > index; --i) {
    line_index[i] = line_index[i - 1];
    line_index[i].record += need;
  }
  ++program.lines;
  std::memcpy(at, &number, 4);
  std::memcpy(at + 4, &length, 4);
  std::memcpy(at + 8, body, length);
  std::memset(at + 8 + length, 0, need - 8 - length);
  line_index[index] = {number, at, nullptr, 0};
  return true;
}

const Token* line_tokens(std::uint32_t index, int* count) {
  LineEntry& e = line_index[index];
  if (e.tokens) {
    if (count) *count = e.count;
    return e.tokens;
  }
  const int n = tokenize(line_body(index));
  if (err.flag) {
    err.line = e.number;
    err.line_recorded = true;
    return nullptr;
  }
  const std::size_t bytes = sizeof(Token) * static_cast<std::size_t>(n);
  std::uint8_t* top = program.cache_top;
  if (!top) top = program.base + ((static_cast<std::size_t>(program.end - program.base) + 7) & ~std::size_t{7});
  if (static_cast<std::size_t>(program.arena_end - top) >= bytes) {
    std::memcpy(top, scratch_tokens, bytes);
    e.tokens = reinterpret_cast<Token*>(top);
    e.count = static_cast<std::uint16_t>(n);
    program.cache_top = top + bytes;
    if (count) *count = n;
    return e.tokens;
  }
  std::memcpy(current_line, scratch_tokens, bytes);
  if (count) *count = n;
  return current_line;
}

bool parse_line_number(const char*& p, std::uint32_t* number) {
  std::uint64_t v = 0;
  while (*p >= '0' && *p <= '9') {
    v = v * 10 + static_cast<std::uint64_t>(*p - '0');
    if (v > 4294967294ull) return fail("Line number too large");
    ++p;
  }
  *number = static_cast<std::uint32_t>(v);
  return true;
}

bool check_file_name(const char* text, std::uint32_t length, std::string* out) {
  if (length == 0) return fail("Bad file name");
  if (length > 4095) return fail("Path too long");
  for (std::uint32_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    // Characters no file system of ours accepts in a name; ":" only as a drive letter's.
    if (c < 32 || c == '<' || c == '>' || c == '"' || c == '|' || c == '?' || c == '*' || (c == ':' && i != 1))
      return fail("Illegal filename");
  }
  out->assign(text, length);
  return true;
}

bool resolve_source_name(const char* text, std::uint32_t length, std::string* out) {
  if (!check_file_name(text, length, out)) return false;
  const std::size_t slash = out->find_last_of("\\/");
  const std::size_t dot = out->find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) *out += ".BAS";
  if (out->size() > 4095) return fail("Path too long");
  return true;
}

namespace {

// One line read from a source file, waiting to be stored.
struct PendingLine {
  std::uint32_t number;
  std::uint32_t file_line;  // 1-based line of the file it came from
  std::size_t offset;       // body in the pool
  std::uint32_t length;
};

// The lines of a source file in file order. Reading stops at the first
// error, which is raised; the lines before it stay in `out`.
bool read_source(std::FILE* f, LoadMode mode, std::vector<PendingLine>* out, std::string* pool,
                 std::uint32_t* stopped_at) {
  char line[300];
  std::size_t len = 0;
  std::uint32_t file_line = 1;
  bool last_cr = false;
  auto finish_line = [&]() -> bool {
    line[len] = 0;
    len = 0;
    const char* p = line;
    while (*p == ' ') ++p;
    if (*p == 0) return true;  // empty lines are skipped
    if (!(*p >= '0' && *p <= '9')) return fail("Direct statement in file");
    std::uint32_t number;
    if (!parse_line_number(p, &number)) return false;
    if (*p == ' ') ++p;  // exactly one blank: indentation in files is kept
    const std::uint32_t n = static_cast<std::uint32_t>(std::strlen(p));
    out->push_back({number, file_line, pool->size(), n});
    pool->append(p, n);
    return true;
  };
  unsigned char block[512];
  for (;;) {
    const std::size_t got = std::fread(block, 1, sizeof block, f);
    if (got == 0) {
      *stopped_at = file_line;
      if (std::ferror(f)) return fail("Disk read failed");
      return len == 0 || finish_line();
    }
    for (std::size_t i = 0; i < got; ++i) {
      const unsigned char c = block[i];
      *stopped_at = file_line;
      if (c == 0x1A) return len == 0 || finish_line();  // Ctrl-Z ends the file
      if (c == '\n' && last_cr) {
        last_cr = false;
        continue;
      }
      last_cr = c == '\r';
      if (c == '\r' || c == '\n') {
        if (!finish_line()) return false;
        ++file_line;
        continue;
      }
      const bool chain = mode == LoadMode::chain || mode == LoadMode::chain_merge;
      if (c == '\t' && !chain) {
        do {
          if (len >= 299) return fail("Line too long");
          line[len++] = ' ';
        } while (len % 4 != 0);
        continue;
      }
      if (len >= 299) {
        if (chain) continue;  // CHAIN cuts long lines instead
        return fail("Line too long");
      }
      line[len++] = static_cast<char>(c);
    }
  }
}

// How many of the pending lines (in file order) can be stored one after
// another, as Store line would take them; raises the message of the first
// that cannot.
std::size_t storable_prefix(const std::vector<PendingLine>& lines) {
  std::unordered_map<std::uint32_t, std::uint32_t> size_now;  // numbers already touched
  std::uint64_t count = program.lines;
  std::uint64_t bytes = static_cast<std::uint64_t>(program.end - program.base);
  const std::uint64_t capacity = static_cast<std::uint64_t>(program.arena_end - program.base);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const PendingLine& l = lines[i];
    if (l.length > kMaxBody) {
      raise("Line too long");
      return i;
    }
    std::uint32_t old = 0;
    const auto it = size_now.find(l.number);
    if (it != size_now.end()) {
      old = it->second;
    } else {
      std::uint32_t index;
      if (find_line(l.number, &index)) old = record_size(rec_length(line_index[index].record));
    }
    const std::uint32_t need = l.length ? record_size(l.length) : 0;
    if (need && !old && count >= kMaxLines) {
      raise("Program too large");
      return i;
    }
    if (bytes - old + need > capacity) {
      raise("Program too large");
      return i;
    }
    count = count - (old ? 1 : 0) + (need ? 1 : 0);
    bytes = bytes - old + need;
    size_now[l.number] = need;
  }
  return lines.size();
}

// Store the lines in one pass: sort them (the last of equal numbers wins; an
// empty body deletes), merge them with the stored program into a new image,
// and lay it and the index down again. Linear in the program's size.
void store_all(std::vector<PendingLine>& lines, const std::string& pool) {
  if (lines.empty()) return;
  std::stable_sort(lines.begin(), lines.end(),
                   [](const PendingLine& a, const PendingLine& b) { return a.number < b.number; });
  std::vector<std::uint8_t> image;
  image.reserve(static_cast<std::size_t>(program.end - program.base) + pool.size() + 12 * lines.size());
  std::vector<std::uint32_t> numbers;
  std::vector<std::size_t> offsets;
  numbers.reserve(program.lines + lines.size());
  offsets.reserve(program.lines + lines.size());
  auto put = [&](std::uint32_t number, const char* body, std::uint32_t length) {
    const std::uint32_t size = record_size(length);
    const std::size_t at = image.size();
    image.resize(at + size, 0);
    std::memcpy(&image[at], &number, 4);
    std::memcpy(&image[at + 4], &length, 4);
    std::memcpy(&image[at + 8], body, length);
    numbers.push_back(number);
    offsets.push_back(at);
  };
  std::uint32_t old = 0;
  for (std::size_t i = 0; i < lines.size();) {
    std::size_t last = i;  // of a run of equal numbers, the last one read counts
    while (last + 1 < lines.size() && lines[last + 1].number == lines[i].number) ++last;
    const PendingLine& l = lines[last];
    for (; old < program.lines && line_index[old].number < l.number; ++old)
      put(line_index[old].number, line_body(old), line_body_length(old));
    if (old < program.lines && line_index[old].number == l.number) ++old;  // replaced or deleted
    if (l.length) put(l.number, pool.data() + l.offset, l.length);
    i = last + 1;
  }
  for (; old < program.lines; ++old) put(line_index[old].number, line_body(old), line_body_length(old));
  if (!image.empty()) std::memcpy(program.base, image.data(), image.size());
  program.end = program.base + image.size();
  program.lines = static_cast<std::uint32_t>(numbers.size());
  for (std::uint32_t i = 0; i < program.lines; ++i) line_index[i] = {numbers[i], program.base + offsets[i], nullptr, 0};
  invalidate_caches();
}

}  // namespace

bool load_source(const std::string& name, LoadMode mode) {
  std::FILE* f = host::open_file(name, "rb");
  if (!f) return fail("File not found");
  ++program.loading;
  if (mode == LoadMode::load || mode == LoadMode::chain) program_clear();
  std::vector<PendingLine> lines;
  std::string pool;
  std::uint32_t stopped_at = 1;
  bool ok = read_source(f, mode, &lines, &pool, &stopped_at);
  std::fclose(f);
  // The lines before an error are kept (Store line stops at the first that
  // does not fit, and so does this).
  const std::size_t keep = storable_prefix(lines);
  if (keep < lines.size()) {
    ok = false;
    stopped_at = lines[keep].file_line;
  }
  lines.resize(keep);
  store_all(lines, pool);
  if (--program.loading == 0 && program.invalidate_pending) {
    program.invalidate_pending = false;
    invalidate_caches();
  }
  if (!ok) {
    // A partial program looks like a whole one: say so before anyone saves it.
    char note[128];
    std::snprintf(note, sizeof note, "%u line%s loaded; the file was not read from its line %u on",
                  static_cast<unsigned>(keep), keep == 1 ? "" : "s", stopped_at);
    add_error_note(note);
  }
  return ok;
}

bool save_source(const std::string& name) {
  // The whole text first, then one replacement of the file: a crash or a full
  // disk during SAVE leaves the old file exactly as it was.
  std::string text;
  text.reserve(static_cast<std::size_t>(program.end - program.base) + 8u * program.lines);
  for (std::uint32_t i = 0; i < program.lines; ++i) {
    char head[16];
    const int n = std::snprintf(head, sizeof head, "%u ", line_index[i].number);
    text.append(head, static_cast<std::size_t>(n));
    text.append(line_body(i), line_body_length(i));
    text += "\r\n";
  }
  bool created;
  const host::FileFault r = host::write_file_replacing(name, text.data(), text.size(), &created);
  if (r == host::FileFault::none) return true;
  return fail(created ? "Disk I/O error" : "Bad file name");
}

}  // namespace core
