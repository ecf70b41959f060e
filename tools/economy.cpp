// ECONOMY: the memory-economy report. It measures what the program's data
// costs where it lives (program arena, descriptor table, block heap, string
// heap) and says what would help when something is wasted.
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "core/errors.h"
#include "core/program.h"
#include "core/statements.h"
#include "host/shell.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/strings.h"
#include "values/variables.h"

namespace tools {

namespace {

std::string grouped(std::uint64_t n) {
  std::string s = std::to_string(n);
  for (int i = static_cast<int>(s.size()) - 3; i > 0; i -= 3) s.insert(static_cast<std::size_t>(i), ",");
  return s;
}

// "1 line", "2 lines".
std::string count(std::uint64_t n, const char* noun) { return grouped(n) + " " + noun + (n == 1 ? "" : "s"); }

std::string percent(std::uint64_t part, std::uint64_t whole) {
  char buf[16];
  const double share = whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0;
  std::snprintf(buf, sizeof buf, "%.1f%%", share);
  return buf;
}

struct HeapFigures {
  std::uint64_t used = 0, blocks = 0, free_bytes = 0, free_blocks = 0, largest_free = 0;
};

HeapFigures heap_figures() {
  HeapFigures h;
  const auto* base = values::arena.table_end;
  h.used = static_cast<std::uint64_t>(values::arena.freebot - base);
  // Walk the heap block by block: every block starts with {size, next}.
  for (const std::uint8_t* p = base; p < values::arena.freebot;) {
    std::uint64_t size;
    std::memcpy(&size, p, 8);
    ++h.blocks;
    p += 16 + size;
  }
  for (std::uint64_t b = values::arena.free_head; b;) {
    std::uint64_t size, next;
    std::memcpy(&size, reinterpret_cast<const void*>(b), 8);
    std::memcpy(&next, reinterpret_cast<const void*>(b + 8), 8);
    ++h.free_blocks;
    h.free_bytes += size;
    if (size > h.largest_free) h.largest_free = size;
    b = next;
  }
  return h;
}

struct StringFigures {
  std::uint64_t heap = 0, live = 0, strings = 0, shared = 0;
};

// Live bytes: every string a variable owns inside the string heap, shared
// copies counted once (with the longest length, as compaction keeps them).
StringFigures string_figures() {
  StringFigures s;
  const std::uint8_t* top = values::arena.freetop;
  const std::uint8_t* end = values::arena.himem;
  s.heap = static_cast<std::uint64_t>(end - top);
  std::map<const char*, std::uint32_t> seen;
  auto note = [&](const values::StringDesc& d) {
    if (!d.length || !d.ptr || reinterpret_cast<const std::uint8_t*>(d.ptr) < top ||
        reinterpret_cast<const std::uint8_t*>(d.ptr) >= end)
      return;
    std::uint32_t& len = seen[d.ptr];
    if (len) ++s.shared;
    if (d.length > len) len = d.length;
  };
  const values::Descriptor* table = values::descriptor_table();
  for (std::uint32_t i = 0; i < values::descriptor_count(); ++i) {
    const values::Descriptor& d = table[i];
    if (d.type != values::kString) continue;
    if (!d.is_array()) {
      values::StringDesc sd;
      std::memcpy(&sd, d.value, sizeof sd);
      note(sd);
    } else if (d.array_block()) {
      const auto* block = static_cast<const std::uint8_t*>(d.array_block());
      const std::uint64_t n = values::array_count(&d);
      const auto* elems = block + 8 + 8 * static_cast<std::uint64_t>(values::array_dims(&d));
      for (std::uint64_t k = 0; k < n; ++k) {
        values::StringDesc sd;
        std::memcpy(&sd, elems + 16 * k, sizeof sd);
        note(sd);
      }
    }
  }
  for (const auto& [p, len] : seen) s.live += len;
  s.strings = seen.size();
  return s;
}

}  // namespace

void stmt_economy(const core::Token*& t) {
  ++t;
  if (!core::at_statement_end(t)) {
    core::raise("Syntax Error");
    return;
  }
  using core::program;
  Pager out(true);
  const std::uint64_t code_size = host::kProgramArenaBytes;
  const std::uint64_t code_used = static_cast<std::uint64_t>(program.end - program.base);
  const std::uint64_t cache =
      program.cache_top ? static_cast<std::uint64_t>(program.cache_top - program.end) : 0;
  const std::uint32_t vars = values::descriptor_count();
  const HeapFigures h = heap_figures();
  const StringFigures s = string_figures();
  const std::uint64_t gap = static_cast<std::uint64_t>(values::arena.freetop - values::arena.freebot);
  const std::uint64_t arena = static_cast<std::uint64_t>(values::arena.himem - values::arena.lomem);
  const std::uint64_t dead = s.heap > s.live ? s.heap - s.live : 0;
  const std::uint64_t since = values::bytes_since_compaction();
  // The ring's counter runs on past its 64 entries.
  const std::uint64_t temps = values::temp_count < values::kTemporaries ? values::temp_count : values::kTemporaries;

  const std::string lines[] = {
      "MEMORY ECONOMY",
      "Program arena : " + grouped(code_used) + " of " + grouped(code_size) + " bytes in " +
          count(program.lines, "line") + "; token cache " + grouped(cache) + " bytes",
      "Data arena    : " + grouped(arena) + " bytes, " + grouped(values::fre()) + " free (FRE)",
      "Descriptors   : " + grouped(vars) + " of " + grouped(values::kMaxDescriptors) + " (" +
          grouped(std::uint64_t{vars} * values::kDescriptorBytes) + " of " + grouped(values::kDescriptorTableBytes) +
          " bytes)",
      "Block heap    : " + grouped(h.used) + " bytes in " + count(h.blocks, "block") + "; " +
          count(h.free_blocks, "free block") + " of " + grouped(h.free_bytes) + " bytes",
      "Fragmentation : " + percent(h.free_bytes, h.used) + " of the block heap is free blocks; largest " +
          grouped(h.largest_free) + " bytes",
      "Free gap      : " + grouped(gap) + " bytes between FREEBOT and FREETOP",
      "String heap   : " + grouped(s.heap) + " bytes; " + grouped(s.live) + " live in " + count(s.strings, "string") +
          " (" + grouped(s.shared) + " shared), " + grouped(dead) + " dead",
      "Temporaries   : " + grouped(temps) + " of " + std::to_string(values::kTemporaries) + " in the ring; adoption " +
          (values::adoption_on() ? "on" : "off (after POKE)"),
      "Compaction    : " + grouped(since) + " bytes allocated since the last; next at 8 MiB or a gap under 8 MiB" +
          (values::compaction_requested() ? " (requested)" : ""),
  };
  for (const std::string& l : lines)
    if (!out.line(l)) return;

  std::string advice[8];
  int n = 0;
  if (dead > 65536 && dead > s.live)
    advice[n++] = "Dead strings hold " + grouped(dead) +
                  " bytes: they are reclaimed by the next compaction; building strings in one expression "
                  "(or with MID$ assignment into a fixed buffer) makes fewer of them.";
  if (h.free_blocks > 0 && h.free_bytes * 4 > h.used)
    advice[n++] = "The block heap has " + count(h.free_blocks, "free block") + " of " + grouped(h.free_bytes) +
                  " bytes between arrays: ERASE arrays in the reverse order of their DIM, or CLEAR, to give them "
                  "back to the free gap.";
  if (vars * 10 > values::kMaxDescriptors * 9)
    advice[n++] = "The descriptor table is nearly full (" + grouped(vars) +
                  " variables): keep related values in arrays instead of separate names.";
  if (code_used * 10 > code_size * 9)
    advice[n++] = "The program arena is nearly full: CHAIN parts of the program, or shorten REM lines.";
  if (!values::adoption_on())
    advice[n++] = "String adoption is off since a POKE: every assignment copies its string until RUN or CLEAR.";
  if (gap < 8388608)
    advice[n++] = "Less than 8 MiB remain between the heaps: compaction will run at every statement that makes "
                  "strings; ERASE unused arrays.";
  if (!out.line("Advice:")) return;
  if (n == 0) {
    out.line("  Nothing is wasted.");
    return;
  }
  for (int i = 0; i < n; ++i)
    if (!out.columns("  -", 4, advice[i])) return;
}

}  // namespace tools
