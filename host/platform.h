// The narrow interface between the portable system and the operating system.
// Implemented once per platform (host/posix for Linux, host/win32 for Windows);
// nothing outside host/ includes an OS header.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace host {

// --- memory -------------------------------------------------------------
// Reserve (and commit) a zero-filled read/write region. Pages are not touched,
// so a large reservation costs nothing until used. Returns nullptr on failure.
void* reserve_memory(std::size_t bytes);
void release_memory(void* base, std::size_t bytes);
// The figure the data arena is sized from: the smallest of the installed
// physical memory, the total physical memory and the system commit limit.
std::uint64_t memory_reference_bytes();
// Checked access to our own address space: false instead of a fault.
bool checked_read(std::uint64_t address, void* out, std::size_t n);
bool checked_write(std::uint64_t address, const void* in, std::size_t n);

// --- time ----------------------------------------------------------------
std::uint64_t perf_counter();     // monotonic high-resolution counter
std::uint64_t perf_frequency();   // its ticks per second (0 when unavailable)
std::uint64_t tick_ms();          // monotonic milliseconds
void sleep_ms(unsigned ms);

// --- processor -----------------------------------------------------------
unsigned logical_processors();  // as the OS reports it, at least 1

// --- paths (UTF-8 on Linux, converted from UTF-16 on Windows) ------------
std::string executable_path();     // empty on failure
std::string current_directory();   // empty on failure
bool set_current_directory(const std::string& dir);
std::string temp_directory();      // empty on failure
bool file_readable(const std::string& path);
bool is_absolute_path(const std::string& path);
char path_separator();

// End of the executable image in memory (the IMAGEEND landmark).
std::uint64_t image_end();

// --- diagnostics ----------------------------------------------------------
// A start-up failure box: caption "Tambril BASIC", error icon (stderr on Linux).
void fatal_box(const char* text);
// Host beep when no audio engine runs.
void host_beep(unsigned hz, unsigned ms);

}  // namespace host
