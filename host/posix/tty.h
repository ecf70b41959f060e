// The controlling terminal of an interactive headless session: raw mode,
// its size, waiting for input, and putting the terminal back on every way
// out of the process (normal end, exit, fatal signals).
#pragma once
#include <cstddef>
#include <cstdint>

namespace host::tty {

// stdin and stdout are both terminals.
bool interactive();

// Raw mode (no echo, no line discipline, no signal keys) and the fatal-signal
// and exit handlers that undo it. `enter` is written now, `leave` whenever
// the terminal is restored. False when the terminal cannot be switched.
bool enter_raw(const char* enter, const char* leave);
// Put the terminal back as it was (idempotent, async-signal-safe).
void restore();

// The window size in cells; false when unknown.
bool size(std::uint32_t* cols, std::uint32_t* rows);

enum Event : unsigned { kResized = 1, kInterrupt = 2, kInputEnded = 4 };
// Wait up to timeout_ms (-1: no limit) for input or a signal; bytes read go
// to buf. Returns the byte count (0 on a time-out or a signal) and sets the
// bits of *events for what else happened.
int read_input(unsigned char* buf, int cap, int timeout_ms, unsigned* events);

// Write everything (retrying short writes).
void write_all(const char* p, std::size_t n);

}  // namespace host::tty
