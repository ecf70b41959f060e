// Helpers of the MIDI and WAV statements.
#include "sound/media_args.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "core/errors.h"
#include "core/exec.h"
#include "core/statements.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/keyqueue.h"
#include "values/builtins.h"
#include "sound/engine.h"

namespace sound::media {

bool fail(const char* message) {
  core::raise(message);
  return false;
}

bool int_arg(const core::Token*& t, std::int64_t* out) {
  values::Value v;
  return values::eval(t, &v) && values::arg_int(v, out);
}

bool double_arg(const core::Token*& t, double* out) {
  values::Value v;
  if (!values::eval(t, &v)) return false;
  if (v.type == values::kString || v.type == values::kHyper) return fail("Type mismatch");
  *out = v.type == values::kSingle || v.type == values::kDouble ? v.d : static_cast<double>(v.i);
  return true;
}

bool comma(const core::Token*& t) { return values::expect(t, ',', "Expected ,"); }

bool end_of_statement(const core::Token* t) { return core::at_statement_end(t) || fail("Syntax Error"); }

bool is_word(const core::Token* t, const char* upper) {
  return t->kind == core::kTokIdent && std::strcmp(t->name(), upper) == 0;
}

bool esc_taken() {
  std::lock_guard guard(host::shell.global_lock);
  return screen::keys.take_break();
}

void pass_break_on() {
  screen::keys.push(screen::kKeyEsc, 0);
  core::exec.counter = 255;
}

ReadResult read_file(const std::string& name, std::uint64_t limit, std::string* bytes) {
  if (host::path_kind(name) != 1) return ReadResult::not_found;
  std::FILE* f = host::open_file(name, "rb");
  if (!f) return ReadResult::failed;
  const std::int64_t size = host::file_length(f);
  ReadResult r = ReadResult::ok;
  if (size < 0) {
    r = ReadResult::failed;
  } else if (static_cast<std::uint64_t>(size) > limit) {
    r = ReadResult::too_big;
  } else {
    try {
      bytes->assign(static_cast<std::size_t>(size), '\0');
      if (std::fread(bytes->data(), 1, bytes->size(), f) != bytes->size()) r = ReadResult::failed;
    } catch (...) {
      r = ReadResult::failed;
    }
  }
  std::fclose(f);
  return r;
}

bool engine_up() { return present() && start(); }

}  // namespace sound::media
