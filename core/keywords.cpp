// Keyword table lookups.
#include "core/keywords.h"

namespace core {

const KeywordRow kKeywords[kKeywordCount + 1] = {
#define KW(name, value) {#name, value},
#include "core/keywords.def"
#undef KW
    {"", 0},
};

namespace {
constexpr int count_rows() {
  int n = 0;
#define KW(name, value) ++n;
#include "core/keywords.def"
#undef KW
  return n;
}
static_assert(count_rows() == kKeywordCount, "the keyword table has 127 rows");
}  // namespace

std::uint8_t keyword_lookup(const char* word, std::size_t length) {
  for (const KeywordRow* row = kKeywords; row->name[0]; ++row) {
    std::size_t i = 0;
    for (; i < length && row->name[i]; ++i) {
      char c = word[i];
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
      if (c != row->name[i]) break;
    }
    if (i == length && row->name[i] == 0) return row->token;
  }
  return 0;
}

const char* keyword_name(std::uint8_t token) {
  for (const KeywordRow* row = kKeywords; row->name[0]; ++row)
    if (row->token == token) return row->name;
  return nullptr;
}

bool is_keyword_token(std::uint8_t kind) { return (kind >= 0x10 && kind <= 0x17) || (kind >= 0x81 && kind <= 0xFE); }

}  // namespace core
