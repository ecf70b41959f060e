// Display modes of the monitor that holds the window (SCREEN MODES, VIDEOMODE,
// VIDEOMODES()). Implemented by each window front end.
#pragma once
#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace host {

using DisplayMode = std::pair<std::uint32_t, std::uint32_t>;  // width, height
constexpr std::size_t kMaxDisplayModes = 256;

// Unique (width, height) pairs with nonzero sides, at most kMaxDisplayModes,
// sorted. Empty when nothing can be listed (no display).
std::vector<DisplayMode> display_modes();

// The collecting rule both front ends share: zero sides and repeats are
// skipped; false once the list is full, which ends the enumeration.
inline bool add_display_mode(std::vector<DisplayMode>& modes, std::uint32_t w, std::uint32_t h) {
  if (modes.size() >= kMaxDisplayModes) return false;
  if (w == 0 || h == 0) return true;
  if (std::find(modes.begin(), modes.end(), DisplayMode{w, h}) == modes.end()) modes.emplace_back(w, h);
  return modes.size() < kMaxDisplayModes;
}

}  // namespace host
