// The line-reference scanner.
#include "tools/linerefs.h"

#include <cstring>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/tokenizer.h"

namespace tools {

using core::Token;

namespace {

char quiet_message[256];
void keep_message(const char* m) {
  std::strncpy(quiet_message, m, sizeof quiet_message - 1);
  quiet_message[sizeof quiet_message - 1] = 0;
}

bool is_word(const Token& t, const char* name) { return t.kind == core::kTokIdent && std::strcmp(t.name(), name) == 0; }

bool statement_end(const Token& t) { return t.kind == core::kTokEnd || t.kind == ':' || t.kind == core::KW_ELSE; }

// A literal line number: plain decimal digits, no fraction, exponent or
// suffix, at most 4294967294.
bool plain_number(const char* text, const Token& t, std::uint32_t* length, std::uint32_t* value) {
  if (t.kind != core::kTokNumber) return false;
  const char* p = text + t.column;
  std::uint64_t v = 0;
  std::uint32_t n = 0;
  while (p[n] >= '0' && p[n] <= '9') {
    v = v * 10 + static_cast<std::uint64_t>(p[n] - '0');
    if (v > 4294967294u) return false;
    ++n;
  }
  if (n == 0 || (p[n] != 0 && std::strchr(".eEdD%&!#", p[n]))) return false;
  *length = n;
  *value = static_cast<std::uint32_t>(v);
  return true;
}

// Handlers that turn a target 0 into "no handler" rather than a line.
bool disabling_zero(const Token* stmt) {
  if (stmt->kind != core::KW_ON) return false;
  const Token& w = stmt[1];
  return w.kind == core::KW_ERROR || w.kind == core::KW_BREAK || is_word(w, "TIMER") || is_word(w, "MOUSEMOVE") ||
         is_word(w, "MOUSECLICK") || is_word(w, "MOUSEDOUBLECLICK");
}

bool relational(std::uint8_t k) { return k == '=' || k == '<' || k == '>'; }

}  // namespace

void quiet_tokenize(const char* text, std::vector<Token>* tokens, std::string* error) {
  const core::ErrorHook saved = core::err.hook;
  const bool saved_flag = core::err.flag;
  core::err.flag = false;
  core::err.hook = keep_message;
  const int n = core::tokenize(text);
  error->clear();
  if (core::err.flag) *error = quiet_message;
  core::err.hook = saved;
  core::err.flag = saved_flag;
  tokens->assign(core::scratch_tokens, core::scratch_tokens + n);
}

LineScan scan_line(const char* text) {
  LineScan s;
  quiet_tokenize(text, &s.tokens, &s.error);
  // Two spare terminators: the patterns below look up to two tokens ahead.
  s.tokens.push_back(s.tokens.back());
  s.tokens.push_back(s.tokens.back());
  const Token* t = s.tokens.data();
  const Token* stmt = t;  // the start of the statement in hand
  auto add = [&](RefKind kind, const Token& tok) {
    std::uint32_t len, value;
    if (!plain_number(text, tok, &len, &value)) return false;
    s.refs.push_back({kind, tok.column, len, value});
    return true;
  };
  for (std::size_t i = 0; t[i].kind != core::kTokEnd; ++i) {
    const Token& k = t[i];
    if (k.kind == ':' || k.kind == core::KW_THEN || k.kind == core::KW_ELSE) stmt = &t[i + 1];
    switch (k.kind) {
      case core::KW_GOTO:
      case core::KW_GOSUB: {
        const RefKind kind = k.kind == core::KW_GOTO ? RefKind::Goto : RefKind::Gosub;
        // One target, or the list of ON n GOTO/GOSUB; a target followed by
        // anything else is an expression (a computed jump).
        std::size_t j = i + 1;
        for (;;) {
          std::uint32_t len, value;
          const bool literal = plain_number(text, t[j], &len, &value);
          if (!literal || !(statement_end(t[j + 1]) || t[j + 1].kind == ',')) {
            if (!statement_end(t[j])) s.computed = true;
            break;
          }
          if (!(value == 0 && disabling_zero(stmt))) add(kind, t[j]);
          if (t[j + 1].kind != ',') break;
          j += 2;
        }
        i = j;
        break;
      }
      case core::KW_THEN:
      case core::KW_ELSE:
        if (statement_end(t[i + 2])) add(k.kind == core::KW_THEN ? RefKind::Then : RefKind::Else, t[i + 1]);
        break;
      case core::KW_RESTORE:
      case core::KW_RUN:
      case core::KW_RETURN:
        if (statement_end(t[i + 2]))
          add(k.kind == core::KW_RESTORE ? RefKind::Restore : k.kind == core::KW_RUN ? RefKind::Run : RefKind::Return,
              t[i + 1]);
        break;
      case core::KW_RESUME: {
        std::uint32_t len, value;
        if (statement_end(t[i + 2]) && plain_number(text, t[i + 1], &len, &value) && value != 0)
          add(RefKind::Resume, t[i + 1]);
        break;
      }
      case core::KW_LIST:
      case core::KW_DELETE:
      case core::KW_EDIT:
      case core::KW_TRON: {
        // n | n- | -n | n-m
        std::size_t j = i + 1;
        if (t[j].kind == core::kTokNumber) add(RefKind::Range, t[j++]);
        if (t[j].kind == '-') {
          ++j;
          if (t[j].kind == core::kTokNumber) add(RefKind::Range, t[j++]);
        }
        i = j - 1;
        break;
      }
      default:
        if (is_word(k, "ERL")) {
          // ERL = n, ERL <> n, ...; and n = ERL on the other side.
          std::size_t j = i + 1;
          while (relational(t[j].kind) && j < i + 3) ++j;
          if (j > i + 1) add(RefKind::Erl, t[j]);
          if (i >= 2 && relational(t[i - 1].kind)) {
            std::size_t b = i - 1;
            while (b > 0 && relational(t[b - 1].kind) && b + 2 > i) --b;
            if (b >= 1) add(RefKind::Erl, t[b - 1]);
          }
        }
        break;
    }
  }
  return s;
}

const Token* past_parentheses(const Token* t) {
  int depth = 0;
  do {
    if (t->kind == '(') ++depth;
    else if (t->kind == ')') --depth;
    else if (t->kind == core::kTokEnd) return nullptr;
    ++t;
  } while (depth > 0);
  return t;
}

std::string token_text(const Token& t) {
  if (t.kind == core::kTokIdent) return t.name();
  if (const char* kw = core::is_keyword_token(t.kind) ? core::keyword_name(t.kind) : nullptr) return kw;
  if (t.kind >= 0x20 && t.kind < 0x7F) return std::string(1, static_cast<char>(t.kind));
  return "";
}

}  // namespace tools
