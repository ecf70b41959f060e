// Tokenizer and the ACCEPT option-colon pass.
#include "core/tokenizer.h"

#include <cstring>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/numscan.h"

namespace core {

Token scratch_tokens[kMaxTokens + 1];

namespace {

bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_word_char(char c) { return is_letter(c) || is_digit(c) || c == '_'; }
bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool is_punctuation(char c) {
  switch (c) {
    case '#': case '(': case ')': case '*': case '+': case ',': case '-': case '.': case '/':
    case ':': case ';': case '<': case '=': case '>': case '@': case '\\': case '^':
      return true;
    default:
      return false;
  }
}

bool is_ident(const Token& t, const char* name) { return t.kind == kTokIdent && std::strcmp(t.name(), name) == 0; }

bool is_accept_option(const Token& t) {
  static const char* const kOptions[] = {"AT", "SIZE", "VALIDATE", "BEEP", "DEFAULT", "UCASE", "LCASE", "RESTART"};
  for (const char* o : kOptions)
    if (is_ident(t, o)) return true;
  return false;
}

// ACCEPT's options are separated by a colon ("legacy colon also accepted"):
// the first top-level colon after an option belongs to ACCEPT, not to the
// statement list.
void accept_pass(Token* t, int count) {
  for (int i = 0; i + 1 < count; ++i) {
    if (!is_ident(t[i], "ACCEPT")) continue;
    if (i > 0 && t[i - 1].kind != ':' && t[i - 1].kind != KW_THEN && t[i - 1].kind != KW_ELSE) continue;
    if (!is_accept_option(t[i + 1]) || t[i + 2].kind == '=') continue;
    int depth = 0;
    for (int j = i + 1; j < count && t[j].kind != kTokEnd; ++j) {
      const std::uint8_t k = t[j].kind;
      if (k == '(') ++depth;
      else if (k == ')') --depth;
      else if (depth == 0) {
        if (k == ':') {
          t[j].kind = kTokAcceptColon;
          break;
        }
        if (k == ',' || k == ';' || k == KW_ELSE || k == KW_REM) break;
      }
    }
  }
}

}  // namespace

int tokenize(const char* line) {
  Token* out = scratch_tokens;
  int n = 0;
  const char* p = line;
  auto start = [&](std::uint8_t kind) -> Token& {
    Token& t = out[n];
    std::memset(&t, 0, sizeof t);
    t.kind = kind;
    t.column = static_cast<std::uint16_t>(p - line);
    return t;
  };
  for (;;) {
    while (is_blank(*p)) ++p;
    if (*p == 0) break;
    if (n == kMaxTokens) {
      raise("Too many tokens");
      break;
    }
    const char c = *p;
    if (c == '"') {
      Token& t = start(kTokString);
      const char* s = ++p;
      while (*p && *p != '"') ++p;
      t.set_str(s, static_cast<std::uint32_t>(p - s));
      if (*p == '"') ++p;  // a missing closing quote is accepted
      ++n;
      continue;
    }
    if (is_digit(c) || (c == '.' && is_digit(p[1])) ||
        (c == '&' && ((p[1] & ~0x20) == 'H' || (p[1] & ~0x20) == 'O'))) {
      Token& t = start(kTokNumber);
      NumberLiteral lit;
      const char* end = scan_number(p, &lit);
      if (!end) break;
      t.type = lit.type;
      if (lit.type <= kTypeInt64) t.set_i64(lit.i);
      else t.set_f64(lit.d);
      p = end;
      ++n;
      continue;
    }
    if (is_letter(c) || c == '_') {
      const char* w = p;
      while (is_word_char(*p)) ++p;
      const std::size_t len = static_cast<std::size_t>(p - w);
      std::uint8_t kw = keyword_lookup(w, len);
      if ((kw == KW_INPUT || kw == KW_ERROR) && *p == '$') kw = 0;  // INPUT$ and ERROR$ are functions
      if (kw) {
        Token& t = start(kw);
        t.column = static_cast<std::uint16_t>(w - line);
        ++n;
        if (kw == KW_REM) {
          while (*p) ++p;  // the remark produces no tokens
          break;
        }
        continue;
      }
      if (len > static_cast<std::size_t>(kMaxNameChars)) {
        p = w;
        raise("Identifier too long (37 characters maximum)");
        break;
      }
      Token& t = start(kTokIdent);
      t.column = static_cast<std::uint16_t>(w - line);
      char* name = reinterpret_cast<char*>(t.payload);
      for (std::size_t i = 0; i < len; ++i) {
        char ch = w[i];
        if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 32);
        name[i] = ch;
      }
      std::size_t at = len;
      if (p[0] == '&' && p[1] == '&') {
        name[at++] = '&';
        name[at++] = '&';
        p += 2;
      } else if (*p == '%' || *p == '&' || *p == '$' || *p == '!' || *p == '#' || *p == '@') {
        name[at++] = *p++;
      }
      name[at] = 0;
      ++n;
      continue;
    }
    if (c == '?') {
      start(KW_PRINT);
      ++p;
      ++n;
      continue;
    }
    if (c == '\'') {
      while (*p) ++p;
      break;
    }
    if (is_punctuation(c)) {
      start(static_cast<std::uint8_t>(c));
      ++p;
      ++n;
      continue;
    }
    raise("Syntax Error");
    break;
  }
  Token& end = start(kTokEnd);
  end.column = static_cast<std::uint16_t>(p - line);
  if (n + 1 > 2) accept_pass(out, n + 1);
  return n + 1;
}

}  // namespace core
