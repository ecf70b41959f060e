// Console capture (CAPTURE): while a capture runs, every byte the console
// puts goes into a string buffer or a file instead of the screen.
#pragma once
#include <cstdint>
#include <string>

namespace screen {

// A string capture may hold at most this many bytes; the buffer starts at
// 1,024 bytes and doubles, so the last doubling reaches exactly this size.
constexpr std::uint64_t kCaptureLimit = 67108864;

// Start capturing into memory (console capture mode 1). Any capture still
// open is ended first. False (with "Out of memory") when the first buffer
// cannot be had.
[[nodiscard]] bool capture_to_string();
// Start capturing into a new file (mode 2); false when it cannot be created
// (nothing raised: the statement names the error).
[[nodiscard]] bool capture_to_file(const std::string& cp437_name);

// The text captured so far by a string capture.
const char* capture_data();
std::uint64_t capture_size();

// Called with the whole text when a string capture ends normally (the
// CAPTURE statement stores it into its variable).
using CaptureDone = void (*)(const char* text, std::uint64_t n);
extern CaptureDone capture_done;

// End the capture: a string capture's text goes to capture_done, a file is
// closed, output goes to the screen again. Called by CAPTURE OFF, before an
// error message or "Break" is printed, and when a direct command ends.
void end_capture();

}  // namespace screen
