// Paged console output for the developer tools.
#include "tools/pager.h"

#include <cstdio>

#include "core/statements.h"
#include "tools/help.h"
#include "host/ui.h"
#include "screen/console.h"
#include "screen/keyqueue.h"

namespace tools {

Pager::Pager(bool paging) {
  // A headless session and a capture are streams: there is no page to fill.
  paging_ = paging && !(host::ui && host::ui->headless()) && screen::con.capture_mode == 0;
  width_ = screen::text_columns();
  const std::uint32_t rows = screen::text_rows() < 2 ? 2 : screen::text_rows();
  const std::uint32_t reserve = (width_ + 30) / width_;
  page_ = rows > reserve + 1 ? rows - reserve : 1;
}

bool Pager::line(const std::string& text) {
  if (stopped_) return false;
  if (screen::keys.take_break()) {
    stopped_ = true;
    return false;
  }
  const std::uint32_t rows = text.empty() ? 1 : static_cast<std::uint32_t>((text.size() + width_ - 1) / width_);
  if (paging_ && used_ + rows > page_ && used_ > 0) {
    if (!core::page_prompt()) {
      stopped_ = true;
      return false;
    }
    used_ = 0;
  }
  used_ += rows;
  screen::ensure_left_column();
  for (unsigned char c : text) screen::put_char(c);
  if (!screen::at_line_start() || text.empty()) screen::put_char(13);
  return true;
}

bool Pager::columns(const std::string& label, std::size_t column, const std::string& text) {
  const unsigned width = width_ > 1 ? width_ - 1 : 1;
  const std::string wrapped = wrap_text(text, width > column + 8 ? width - static_cast<unsigned>(column) : 8, 0);
  std::string prefix = column ? pad(label, column) : label;
  std::size_t pos = 0;
  for (;;) {
    const std::size_t nl = wrapped.find('\n', pos);
    if (!line(prefix + wrapped.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos))) return false;
    if (nl == std::string::npos) return true;
    pos = nl + 1;
    prefix.assign(column, ' ');
  }
}

std::string pad(const std::string& s, std::size_t width) {
  return s.size() >= width ? s + " " : s + std::string(width - s.size(), ' ');
}

std::string upper(std::string s) {
  for (char& c : s)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
  return s;
}

std::string hex_address(std::uint64_t a) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "&H%016llX", static_cast<unsigned long long>(a));
  return buf;
}

}  // namespace tools
