// The program store: numbered lines of source text in the 16 MiB program
// arena, a sorted line index, and per-line token caches laid above the
// program end.
//
// Stored line record (4-byte aligned, packed in ascending line order):
//   +0 u32 line number   +4 u32 body length (1..244)   +8 body bytes, NUL, 0-3 padding
//   record size = (body length + 12) rounded down to a multiple of 4
#pragma once
#include <cstdint>
#include <string>

#include "core/token.h"

namespace core {

constexpr std::uint32_t kMaxLines = 65536;
constexpr std::uint32_t kMaxBody = 244;

struct LineEntry {
  std::uint32_t number;
  std::uint8_t* record;
  Token* tokens;        // cached token array, or null
  std::uint16_t count;  // records in it, terminator included
};

struct Program {
  std::uint8_t* base = nullptr;
  std::uint8_t* end = nullptr;        // just past the last record
  std::uint8_t* arena_end = nullptr;
  std::uint8_t* cache_top = nullptr;  // null: the next cached array starts at the program end
  std::uint32_t lines = 0;
  std::uint32_t edit_line = 0xFFFFFFFFu;  // "." in LIST, AUTO, DELETE, EDIT
  bool modified = false;
  std::uint32_t generation = 1;           // never 0
  int loading = 0;                        // LOAD/MERGE nesting
  bool invalidate_pending = false;
};
extern Program program;
extern LineEntry line_index[kMaxLines];

void program_init(std::uint8_t* base, std::uint64_t bytes);
// Empty the program (NEW, LOAD).
void program_clear();

// Binary search: true and the index when found, else false and the index
// where the line would go.
bool find_line(std::uint32_t number, std::uint32_t* index);
const char* line_body(std::uint32_t index);
std::uint32_t line_body_length(std::uint32_t index);

// Insert, replace or delete (length 0). Raises "Line too long" or
// "Program too large" and changes nothing then.
bool store_line(std::uint32_t number, const char* body, std::uint32_t length);
void delete_line(std::uint32_t index);
// Discards token caches and compiled work (deferred while loading).
void invalidate_caches();
// The line's tokens, tokenizing and caching them on first use; null after a
// tokenizing error (the line becomes the error line).
const Token* line_tokens(std::uint32_t index, int* count = nullptr);

// Parse a decimal line number at p; false with "Line number too large" past
// 4294967294. Advances p.
bool parse_line_number(const char*& p, std::uint32_t* number);

// LOAD (replace) or MERGE (add) an ASCII source file; CHAIN and CHAIN MERGE
// read the same way but keep TABs and cut lines at 299 bytes instead of
// refusing them. On an error the lines read before it are kept, and a note
// says how far the file was read.
enum class LoadMode { load, merge, chain, chain_merge };
bool load_source(const std::string& name, LoadMode mode);
bool save_source(const std::string& name);
// File names: a missing extension becomes .BAS; the checks of every file
// statement ("Bad file name", "Illegal filename", "Path too long").
bool resolve_source_name(const char* text, std::uint32_t length, std::string* out);
bool check_file_name(const char* text, std::uint32_t length, std::string* out);

// Hooks the executor installs: the program changed (can-continue ends) and
// the per-line run tables must be reset.
extern void (*on_program_changed)();

}  // namespace core
