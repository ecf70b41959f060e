// Output of the developer tools: whole lines through the console, pausing
// with the LIST page prompt when a screenful has been shown, and stopping
// when the user presses Esc.
#pragma once
#include <cstdint>
#include <string>

namespace tools {

class Pager {
 public:
  // paging: pause at each full page (never in a headless session or a capture).
  explicit Pager(bool paging = true);
  // Print one line (it may wrap at the console's width). False once the
  // user has abandoned the output; callers stop printing then.
  bool line(const std::string& text);
  // `text` wrapped between words into the console width right of `column`;
  // the first line starts with `label` padded to the column, the others with
  // blanks. False once the output was abandoned.
  bool columns(const std::string& label, std::size_t column, const std::string& text);
  bool stopped() const { return stopped_; }

 private:
  bool paging_;
  bool stopped_ = false;
  std::uint32_t used_ = 0;
  std::uint32_t page_ = 0;
  std::uint32_t width_ = 0;
};

// Text helpers shared by the listings.
std::string pad(const std::string& s, std::size_t width);
std::string upper(std::string s);
std::string hex_address(std::uint64_t a);  // &H followed by 16 hexadecimal digits

}  // namespace tools
