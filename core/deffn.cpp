// DEF FN: single-expression user functions with up to 8 parameters.
#include <cstring>

#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "values/eval.h"
#include "values/store.h"
#include "values/variables.h"

namespace core {

namespace {

using values::Value;

constexpr int kMaxFunctions = 512;
constexpr int kMaxParams = 8;
constexpr int kMaxDepth = 64;

struct UserFunction {
  char name[40];
  int params;
  char param[kMaxParams][40];
  std::uint32_t line;   // where the expression lives
  std::uint32_t token;
};
UserFunction functions[kMaxFunctions];
int function_count = 0;
int depth = 0;

UserFunction* find(const char* name) {
  for (int i = 0; i < function_count; ++i)
    if (std::strcmp(functions[i].name, name) == 0) return &functions[i];
  return nullptr;
}

void copy_name(char* dst, const char* src) {
  std::memset(dst, 0, 40);
  std::memcpy(dst, src, strnlen(src, 39));
}

// The call: arguments are evaluated first, then bound to the parameter
// variables (whose values are saved and put back afterwards), then the
// definition's expression is evaluated and converted to the function's type.
bool call(const Token*& t, const char* name, Value* out) {
  UserFunction* f = find(name);
  if (!f) {
    raise("Undefined user function");
    return false;
  }
  Value args[kMaxParams];
  int n = 0;
  if (t->kind == '(') {
    ++t;
    for (;;) {
      if (n == kMaxParams) {
        raise("Syntax error");
        return false;
      }
      if (!values::eval(t, &args[n++])) return false;
      if (t->kind != ',') break;
      ++t;
    }
    if (!values::expect(t, ')', "Expected )")) return false;
  }
  if (n != f->params) {
    raise("Syntax error");
    return false;
  }
  if (depth >= kMaxDepth) {
    raise("Out of memory");
    return false;
  }
  struct Saved {
    values::Descriptor* d;
    std::uint8_t value[72];
  } saved[kMaxParams];
  int bound = 0;
  bool ok = true;
  for (int i = 0; i < n && ok; ++i) {
    values::Descriptor* d = values::scalar_descriptor(f->param[i]);
    if (!d) {
      ok = false;
      break;
    }
    saved[bound].d = d;
    std::memcpy(saved[bound].value, d->value, 72);
    ++bound;
    ok = values::store_value(d->value, d->type, args[i]);
  }
  if (ok) {
    const Token* base = line_tokens(f->line);
    if (!base) {
      ok = false;
    } else {
      const Token* e = base + f->token;
      ++depth;
      Value r;
      ok = values::eval(e, &r);
      --depth;
      if (ok) {
        std::uint8_t slot[72];
        const std::uint8_t type = values::type_of_name(f->name);
        ok = values::store_value(slot, type, r);
        if (ok) {
          *out = values::load_value(slot, type);
          // A string result must outlive the parameters' restore: copy it.
          if (type == values::kString) ok = values::make_string(out->s.ptr, out->s.len, out);
        }
      }
    }
  }
  while (bound > 0) {
    --bound;
    std::memcpy(saved[bound].d->value, saved[bound].value, 72);
  }
  return ok;
}

void forget_functions() { function_count = 0; }

}  // namespace

void stmt_def(const Token*& t) {
  ++t;  // DEF
  if (exec.line == kDirect) {
    raise("Illegal direct");
    return;
  }
  char name[40];
  if (t->kind != kTokIdent || std::strncmp(t->name(), "FN", 2) != 0) {
    raise("Syntax error");
    return;
  }
  if (!std::strcmp(t->name(), "FN") && t[1].kind == kTokIdent) {  // DEF FN NAME with a blank
    char joined[48] = "FN";
    std::strncat(joined, t[1].name(), 39);
    joined[39] = 0;
    copy_name(name, joined);
    t += 2;
  } else {
    copy_name(name, t->name());
    ++t;
  }
  UserFunction f{};
  copy_name(f.name, name);
  if (t->kind == '(') {
    ++t;
    for (;;) {
      if (t->kind != kTokIdent) {
        raise("Expected variable");
        return;
      }
      if (f.params == kMaxParams) {
        raise("Syntax error");
        return;
      }
      copy_name(f.param[f.params++], t->name());
      ++t;
      if (t->kind != ',') break;
      ++t;
    }
    if (!values::expect(t, ')', "Expected )")) return;
  }
  if (!values::expect(t, '=', "Syntax error")) return;
  f.line = exec.line;
  f.token = token_index(t);
  values::skip_expression(t);
  UserFunction* slot = find(name);
  if (!slot) {
    if (function_count == kMaxFunctions) {
      raise("Out of memory");
      return;
    }
    slot = &functions[function_count++];
  }
  *slot = f;
}

void install_user_functions() {
  values::user_function = call;
  forget_user_functions = forget_functions;
}

void (*forget_user_functions)() = nullptr;

}  // namespace core
