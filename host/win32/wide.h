// UTF-8 inside the system, UTF-16 at the Win32 calls: the two conversions
// every Windows source of host/ needs.
#pragma once
#include <cstddef>
#include <string>

#include "host/cp437.h"

namespace host {

inline std::wstring wide(const std::string& utf8) {
  const std::u16string u = utf8_to_utf16(utf8);
  return std::wstring(u.begin(), u.end());
}

inline std::string narrow(const wchar_t* s, std::size_t n) {
  return utf16_to_utf8(std::u16string(reinterpret_cast<const char16_t*>(s), n));
}

}  // namespace host
