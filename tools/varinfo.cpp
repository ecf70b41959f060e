// VARINFO and ARRAYINFO: the descriptor table, listed by name.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/errors.h"
#include "core/print.h"
#include "core/statements.h"
#include "screen/console.h"
#include "tools/inspect.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/ops.h"
#include "values/store.h"

namespace tools {

using values::Descriptor;

std::vector<const Descriptor*> sorted_descriptors() {
  std::vector<const Descriptor*> all;
  const Descriptor* table = values::descriptor_table();
  for (std::uint32_t i = 0; i < values::descriptor_count(); ++i) all.push_back(&table[i]);
  std::stable_sort(all.begin(), all.end(), [](const Descriptor* a, const Descriptor* b) {
    const int c = std::strcmp(a->name, b->name);
    return c != 0 ? c < 0 : a->is_array() < b->is_array();
  });
  return all;
}

std::string value_text(const values::Value& v, std::size_t limit) {
  std::string s;
  if (v.type == values::kString) {
    s = "\"";
    for (std::uint32_t i = 0; i < v.s.len; ++i) {
      if (limit && i >= limit) {
        s += "...";
        break;
      }
      const unsigned char c = static_cast<unsigned char>(v.s.ptr[i]);
      s += c < 32 || c == 127 ? '.' : static_cast<char>(c);
    }
    return s + "\"";
  }
  char buf[512];
  const std::uint32_t n = values::number_to_text(v, buf);
  s.assign(buf, n);
  s.erase(0, s.find_first_not_of(' '));
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

std::string scalar_text(const Descriptor& d, std::size_t limit) {
  return value_text(values::load_value(d.value, d.type), limit);
}

std::string upper_bounds_text(const Descriptor& d) {
  if (!d.array_block()) return "(not dimensioned)";
  std::string s = "(";
  for (int k = 1; k <= values::array_dims(&d); ++k)
    s += (k > 1 ? "," : "") + std::to_string(values::array_upper(&d, k));
  return s + ")";
}

std::string bounds_text(const Descriptor& d) {
  if (!d.array_block()) return "not dimensioned";
  std::string s;
  for (int k = 1; k <= values::array_dims(&d); ++k)
    s += (k > 1 ? ", " : "") + std::to_string(values::option_base) + ".." + std::to_string(values::array_upper(&d, k));
  return s;
}

std::string listed_name(const Descriptor& d) { return std::string(d.name) + (d.is_array() ? "()" : ""); }

std::uint64_t descriptor_bytes(const Descriptor& d) {
  if (d.is_array()) return d.array_block() ? values::heap_block_size(d.array_block()) : 0;
  std::uint64_t n = values::slot_width(d.type);
  if (d.type == values::kString) {
    values::StringDesc s;
    std::memcpy(&s, d.value, sizeof s);
    n += s.length;
  }
  return n;
}

std::uint64_t descriptor_address(const Descriptor& d) {
  if (d.is_array()) return reinterpret_cast<std::uint64_t>(d.array_block());
  return reinterpret_cast<std::uint64_t>(d.value);
}

void stmt_varinfo(const core::Token*& t) {
  ++t;
  bool full = false;
  if (t->kind == core::kTokIdent && std::strcmp(t->name(), "FULL") == 0) {
    full = true;
    ++t;
  }
  if (!core::at_statement_end(t)) {
    core::raise("Syntax Error");
    return;
  }
  const unsigned width = screen::text_columns() > 1 ? screen::text_columns() - 1 : 1;
  Pager out(true);
  const auto all = sorted_descriptors();
  if (full) {
    char head[64];
    std::snprintf(head, sizeof head, "Descriptors: %u of %u in use", values::descriptor_count(),
                  values::kMaxDescriptors);
    out.line(head);
    if (!all.empty()) out.line(pad("NAME", 20) + pad("TYPE", 9) + pad("SIZE", 12) + pad("ADDRESS", 20) + "VALUE");
  } else if (all.empty()) {
    out.line("No variables");
  }
  for (const Descriptor* d : all) {
    std::string row = pad(listed_name(*d), 20);
    if (full) {
      char size[24];
      std::snprintf(size, sizeof size, "%llu", static_cast<unsigned long long>(descriptor_bytes(*d)));
      row += pad(values::type_name(d->type), 9) + pad(size, 12) + pad(hex_address(descriptor_address(*d)), 20);
    }
    const std::size_t room = width > row.size() + 8 ? width - row.size() - 2 : 8;
    row += d->is_array() ? upper_bounds_text(*d) : scalar_text(*d, full ? 0 : room);
    if (!out.line(row)) return;
  }
}

void stmt_arrayinfo(const core::Token*& t) {
  ++t;
  std::string only;
  if (t->kind == core::kTokIdent) {
    only = t->name();
    ++t;
    if (t->kind == '(' && t[1].kind == ')') t += 2;
  }
  if (!core::at_statement_end(t)) {
    core::raise("Syntax Error");
    return;
  }
  std::vector<const Descriptor*> arrays;
  for (const Descriptor* d : sorted_descriptors())
    if (d->is_array() && (only.empty() || only == d->name)) arrays.push_back(d);
  if (!only.empty() && arrays.empty()) {
    core::raise("Array not dimensioned");
    return;
  }
  Pager out(true);
  if (arrays.empty()) {
    out.line("No arrays");
    return;
  }
  out.line(pad("NAME", 20) + pad("TYPE", 9) + pad("BOUNDS", 26) + pad("ELEMENTS", 12) + pad("BYTES", 12) + "ADDRESS");
  for (const Descriptor* d : arrays) {
    char elements[24] = "0", bytes[24];
    if (d->array_block())
      std::snprintf(elements, sizeof elements, "%llu", static_cast<unsigned long long>(values::array_count(d)));
    std::snprintf(bytes, sizeof bytes, "%llu", static_cast<unsigned long long>(descriptor_bytes(*d)));
    const std::string row = pad(listed_name(*d), 20) + pad(values::type_name(d->type), 9) + pad(bounds_text(*d), 26) +
                            pad(elements, 12) + pad(bytes, 12) + hex_address(descriptor_address(*d));
    if (!out.line(row)) return;
  }
}

}  // namespace tools
