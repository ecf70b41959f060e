// Statement keywords and their token values (the list is core/keywords.def).
#pragma once
#include <cstddef>
#include <cstdint>

namespace core {

enum Keyword : std::uint8_t {
#define KW(name, value) KW_##name = value,
#include "core/keywords.def"
#undef KW
};

struct KeywordRow {
  const char* name;
  std::uint8_t token;
};
constexpr int kKeywordCount = 127;
extern const KeywordRow kKeywords[kKeywordCount + 1];  // ended by an empty name

// Whole-word, case-insensitive lookup from the top of the table; 0 when the
// word is not a keyword.
std::uint8_t keyword_lookup(const char* word, std::size_t length);
// The keyword's name for a token value, or nullptr.
const char* keyword_name(std::uint8_t token);
bool is_keyword_token(std::uint8_t kind);

}  // namespace core
