// Program store: records, line index, token caches, LOAD/MERGE/SAVE.
#include "core/program.h"

#include <cstdio>
#include <cstring>

#include "core/errors.h"
#include "core/tokenizer.h"
#include "host/platform.h"

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

bool load_source(const std::string& name, bool merge) {
  std::FILE* f = host::open_file(name, "rb");
  if (!f) return fail("File not found");
  ++program.loading;
  if (!merge) program_clear();
  char line[300];
  std::size_t len = 0;
  bool ok = true, ended = false, last_cr = false;
  auto finish_line = [&]() -> bool {
    line[len] = 0;
    const char* p = line;
    while (*p == ' ') ++p;
    if (*p == 0) return true;  // empty lines are skipped
    if (!(*p >= '0' && *p <= '9')) return fail("Direct statement in file");
    std::uint32_t number;
    if (!parse_line_number(p, &number)) return false;
    if (*p == ' ') ++p;  // exactly one blank: indentation in files is kept
    return store_line(number, p, static_cast<std::uint32_t>(std::strlen(p)));
  };
  unsigned char block[512];
  while (ok && !ended) {
    const std::size_t got = std::fread(block, 1, sizeof block, f);
    if (got == 0) {
      if (std::ferror(f)) ok = fail("Disk read failed");
      break;
    }
    for (std::size_t i = 0; i < got && ok; ++i) {
      const unsigned char c = block[i];
      if (c == 0x1A) {
        ended = true;
        break;
      }
      if (c == '\n' && last_cr) {
        last_cr = false;
        continue;
      }
      last_cr = c == '\r';
      if (c == '\r' || c == '\n') {
        ok = finish_line();
        len = 0;
        continue;
      }
      if (c == '\t') {
        do {
          if (len >= 299) {
            ok = fail("Line too long");
            break;
          }
          line[len++] = ' ';
        } while (len % 4 != 0);
        continue;
      }
      if (len >= 299) {
        ok = fail("Line too long");
        break;
      }
      line[len++] = static_cast<char>(c);
    }
  }
  if (ok && len > 0) ok = finish_line();
  std::fclose(f);
  if (--program.loading == 0 && program.invalidate_pending) {
    program.invalidate_pending = false;
    invalidate_caches();
  }
  return ok;
}

bool save_source(const std::string& name) {
  std::FILE* f = host::open_file(name, "wb");
  if (!f) return fail("Bad file name");
  bool ok = true;
  for (std::uint32_t i = 0; i < program.lines && ok; ++i) {
    char head[16];
    const int n = std::snprintf(head, sizeof head, "%u ", line_index[i].number);
    const std::uint32_t len = line_body_length(i);
    ok = std::fwrite(head, 1, static_cast<std::size_t>(n), f) == static_cast<std::size_t>(n) &&
         std::fwrite(line_body(i), 1, len, f) == len && std::fwrite("\r\n", 1, 2, f) == 2;
  }
  if (std::fclose(f) != 0) ok = false;
  if (!ok) return fail("Disk I/O error");
  return true;
}

}  // namespace core
