// The watches of TRACE, shared with the debugger.
#pragma once
#include <cstddef>
#include <string>

namespace tools {

constexpr std::size_t kMaxWatches = 16;

// Add a watch on a variable or array element written as text ("A", "M(3,I)").
[[nodiscard]] bool add_watch(const std::string& text);
void clear_watches();
std::size_t watch_count();
const std::string& watch_text(std::size_t i);
// The watch's current value as listed; false when it cannot be evaluated now.
bool watch_value(std::size_t i, std::string* out);
// After each statement while watches exist.
void check_watches();

}  // namespace tools
