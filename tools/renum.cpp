// RENUM [new][,[old][,increment]]: renumber the program and every reference
// to its lines. All new texts are made and checked first; the program is
// only rebuilt when every line fits, so a refused RENUM changes nothing.
#include <cstdio>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/direct.h"
#include "core/errors.h"
#include "core/exec.h"
#include "core/program.h"
#include "core/statements.h"
#include "screen/console.h"
#include "tools/linerefs.h"
#include "tools/tools.h"
#include "values/eval.h"

namespace tools {

namespace {

bool fail(const char* m) {
  core::raise(m);
  return false;
}

// One argument of RENUM: absent (empty before "," or the end) keeps the default.
bool renum_arg(const core::Token*& t, std::int64_t* out) {
  if (core::at_statement_end(t) || t->kind == ',') return true;
  return values::eval_int64(t, out);
}

}  // namespace

bool renumber(std::uint32_t first, std::uint32_t from, std::uint32_t step) {
  using core::program;
  using core::line_index;
  std::uint32_t k;
  (void)core::find_line(from, &k);
  if (k >= program.lines) return true;  // nothing from `from` on
  const std::uint64_t last = std::uint64_t{first} + std::uint64_t{step} * (program.lines - 1 - k);
  // The renumbered lines must stay behind the lines that keep their numbers.
  if (last > core::kMaxLineNumber || (k > 0 && first <= line_index[k - 1].number)) return fail("Illegal function call");
  std::unordered_map<std::uint32_t, std::uint32_t> moved;
  for (std::uint32_t i = k; i < program.lines; ++i) moved[line_index[i].number] = first + step * (i - k);
  auto new_number = [&](std::uint32_t i) { return i < k ? line_index[i].number : moved[line_index[i].number]; };

  std::vector<std::string> bodies(program.lines);
  std::uint64_t bytes = 0;
  for (std::uint32_t i = 0; i < program.lines; ++i) {
    const std::string text(core::line_body(i), core::line_body_length(i));
    const LineScan scan = scan_line(text.c_str());
    std::string out;
    std::size_t at = 0;
    for (const LineRef& r : scan.refs) {
      std::string number = text.substr(r.column, r.length);
      const auto it = moved.find(r.target);
      if (it != moved.end()) {
        number = std::to_string(it->second);
      } else if (!core::line_exists(r.target)) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "Undefined line %u in %u", r.target, new_number(i));
        screen::ensure_left_column();
        screen::put_line(buf);
      }
      out.append(text, at, r.column - at);
      out += number;
      at = r.column + r.length;
    }
    out.append(text, at, std::string::npos);
    if (out.size() > core::kMaxBody) {
      char buf[64];
      std::snprintf(buf, sizeof buf, "Line too long in %u", new_number(i));
      return fail(buf);
    }
    bytes += (out.size() + 12) & ~std::uint64_t{3};
    bodies[i] = std::move(out);
  }
  if (bytes > static_cast<std::uint64_t>(program.arena_end - program.base)) return fail("Program too large");

  std::vector<std::uint32_t> numbers(program.lines);
  for (std::uint32_t i = 0; i < program.lines; ++i) numbers[i] = new_number(i);
  const std::uint32_t edit = program.edit_line;
  // Rebuild the store in one pass, the caches invalidated once at the end.
  ++program.loading;
  core::program_clear();
  for (std::size_t i = 0; i < numbers.size(); ++i)
    (void)core::store_line(numbers[i], bodies[i].data(), static_cast<std::uint32_t>(bodies[i].size()));
  if (--program.loading == 0) {
    program.invalidate_pending = false;
    core::invalidate_caches();
  }
  if (moved.count(edit)) program.edit_line = moved[edit];
  int count;
  std::uint32_t* bp = core::breakpoint_list(&count);
  for (int i = 0; i < count; ++i)
    if (moved.count(bp[i])) bp[i] = moved[bp[i]];
  program.modified = true;
  return true;
}

void cmd_renum(const core::Token*& t) {
  ++t;
  std::int64_t first = 10, from = 0, step = 10;
  if (!renum_arg(t, &first)) return;
  if (t->kind == ',') {
    ++t;
    if (!renum_arg(t, &from)) return;
    if (t->kind == ',') {
      ++t;
      if (core::at_statement_end(t)) {
        core::raise("Syntax Error");
        return;
      }
      if (!renum_arg(t, &step)) return;
    }
  }
  if (!core::at_statement_end(t)) {
    core::raise("Syntax Error");
    return;
  }
  const std::int64_t max = core::kMaxLineNumber;
  if (first < 0 || first > max || from < 0 || from > max || step < 1 || step > max) {
    core::raise("Illegal function call");
    return;
  }
  (void)renumber(static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(from), static_cast<std::uint32_t>(step));
}

}  // namespace tools
