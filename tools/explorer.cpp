// The memory explorer: TAMBRIL lists the landmarks of memory or shows the
// bytes at an address; TAMBRILADR(name$) gives a landmark's (or a
// variable's) address. Every read goes through the checked access, so an
// address nothing is mapped at shows "--" instead of faulting.
#include <cstdio>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "core/statements.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/framebuffer.h"
#include "tools/inspect.h"
#include "tools/pager.h"
#include "tools/tools.h"
#include "values/arena.h"
#include "values/builtins.h"
#include "values/eval.h"

namespace tools {

namespace {

struct Landmark {
  const char* name;
  const char* text;
};
// In address order of a running system: program arena, data arena, screen, image.
const Landmark kLandmarks[] = {
    {"CODEBASE", "BASIC program arena"},
    {"CODEEND", "end of BASIC program arena"},
    {"VARTABLE", "scalar/array descriptor table"},
    {"LOMEM", "start of BASIC data arena"},
    {"FREEBOT", "first free low-memory byte"},
    {"FREETOP", "top of free area / string heap"},
    {"HIMEM", "end of BASIC data arena"},
    {"FRAMEBUFFER", "Tambril logical framebuffer"},
    {"BACKBUFFER", "graphics back buffer"},
    {"IMAGEEND", "end of executable image"},
};

std::uint64_t addr(const void* p) { return reinterpret_cast<std::uint64_t>(p); }

bool landmark_address(const std::string& name, std::uint64_t* out) {
  const std::uint64_t code = addr(host::shell.program_arena);
  if (name == "CODEBASE") *out = code;
  else if (name == "CODEEND") *out = code ? code + host::kProgramArenaBytes : 0;
  else if (name == "VARTABLE" || name == "LOMEM") *out = addr(values::arena.lomem);
  else if (name == "FREEBOT") *out = addr(values::arena.freebot);
  else if (name == "FREETOP") *out = addr(values::arena.freetop);
  else if (name == "HIMEM") *out = addr(values::arena.himem);
  else if (name == "FRAMEBUFFER") *out = addr(screen::fb.front);
  else if (name == "BACKBUFFER") *out = addr(screen::fb.back);
  else if (name == "IMAGEEND") *out = host::image_end();
  else return false;
  return true;
}

// TAMBRILADR(name$).
bool f_tambriladr(const core::Token*& t, values::Value* out) {
  values::Value a;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_string(a)) return false;
  std::string name = upper(std::string(a.s.ptr, a.s.len));
  while (!name.empty() && name.back() == ' ') name.pop_back();
  name.erase(0, name.find_first_not_of(' '));
  std::uint64_t address = 0;
  bool found = landmark_address(name, &address);
  if (!found && !name.empty()) {
    // A variable by its name; "A()" names the array A.
    const bool array = name.size() > 2 && name.compare(name.size() - 2, 2, "()") == 0;
    if (array) name.resize(name.size() - 2);
    char id[40];
    const core::ErrorHook saved = core::err.hook;
    core::err.hook = [](const char*) {};
    const bool ok = values::check_identifier(name.data(), name.size(), id);
    core::err.hook = saved;
    core::err.flag = false;
    if (ok) {
      if (const values::Descriptor* d = values::find_descriptor(id, array, values::type_of_name(id))) {
        address = descriptor_address(*d);
        found = address != 0;
      }
    }
  }
  if (!found) {
    core::raise("Illegal function call");
    return false;
  }
  *out = values::Value::integer(static_cast<std::int64_t>(address), values::kInt64);
  return true;
}

const values::Builtin kRows[] = {{"TAMBRILADR", f_tambriladr}};

void list_landmarks(Pager& out) {
  for (const Landmark& l : kLandmarks) {
    std::uint64_t a = 0;
    (void)landmark_address(l.name, &a);
    if (!out.line(pad(l.name, 13) + pad(hex_address(a), 20) + l.text)) return;
  }
}

void dump(std::uint64_t address, std::uint64_t length, Pager& out) {
  for (std::uint64_t row = 0; row < length; row += 16) {
    std::string hex, chars;
    for (std::uint64_t i = 0; i < 16; ++i) {
      if (row + i >= length) {
        hex += "   ";
        continue;
      }
      std::uint8_t b;
      char buf[4];
      if (host::checked_read(address + row + i, &b, 1)) {
        std::snprintf(buf, sizeof buf, "%02X ", b);
        chars += b < 32 || b == 127 ? '.' : static_cast<char>(b);
      } else {
        std::snprintf(buf, sizeof buf, "-- ");
        chars += ' ';
      }
      hex += buf;
      if (i == 7) hex += ' ';
    }
    std::string line = hex_address(address + row) + "  " + hex + " " + chars;
    line.erase(line.find_last_not_of(' ') + 1);
    if (!out.line(line)) return;
  }
}

}  // namespace

const values::BuiltinGroup& tool_builtins() {
  static const values::BuiltinGroup group{kRows, static_cast<int>(sizeof kRows / sizeof kRows[0])};
  return group;
}

void stmt_tambril(const core::Token*& t) {
  ++t;
  Pager out(true);
  if (core::at_statement_end(t)) {
    list_landmarks(out);
    return;
  }
  std::int64_t address, length = 256;
  if (!values::eval_int64(t, &address)) return;
  if (t->kind == ',') {
    ++t;
    if (!values::eval_int64(t, &length)) return;
  }
  if (!core::at_statement_end(t)) {
    core::raise("Syntax Error");
    return;
  }
  if (length < 1 || length > 65536) {
    core::raise("Illegal function call");
    return;
  }
  dump(static_cast<std::uint64_t>(address), static_cast<std::uint64_t>(length), out);
}

}  // namespace tools
