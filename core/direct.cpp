// Direct-command entry. A typed line is tokenized, so malformed lines report
// their errors; statements run once the executor exists.
#include "core/direct.h"

#include <cstring>

#include "core/errors.h"
#include "core/statements.h"
#include "core/tokenizer.h"
#include "values/strings.h"
#include "values/variables.h"

namespace core {

AutoState auto_numbering;
bool suppress_prompt = false;
bool last_run_failed = false;

void init_interpreter() {
  auto_numbering = AutoState{};
  suppress_prompt = false;
  last_run_failed = false;
  reset_errors();
  values::clear_variables();
}

void execute_direct(const char* line) {
  clear_error_flag();
  values::statement_boundary();
  const char* p = line;
  while (*p == ' ') ++p;
  if (*p >= '0' && *p <= '9') return;  // a numbered line belongs to the program store
  // The direct line's text must outlive its tokens (string literals point into it).
  static char text[257];
  std::strncpy(text, p, sizeof text - 1);
  text[sizeof text - 1] = 0;
  tokenize(text);
  if (err.flag) return;
  static Token tokens[kMaxTokens + 1];
  std::memcpy(tokens, scratch_tokens, sizeof tokens);
  run_line_statements(tokens);
  values::statement_boundary();
}

bool line_exists(std::uint32_t number) {
  (void)number;
  return false;
}

}  // namespace core
