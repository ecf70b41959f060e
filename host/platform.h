// The narrow interface between the portable system and the operating system.
// Implemented once per platform (host/posix for Linux, host/win32 for Windows);
// nothing outside host/ includes an OS header.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace host {

// --- memory -------------------------------------------------------------
// Reserve (and commit) a zero-filled read/write region. Pages are not touched,
// so a large reservation costs nothing until used. Returns nullptr on failure.
void* reserve_memory(std::size_t bytes);
void release_memory(void* base, std::size_t bytes);
// A large heap buffer about to be filled front to back (decoded sound): ask
// for large pages where the system gives them on request, so that filling it
// takes a few hundred page faults instead of hundreds of thousands. Only the
// whole pages inside the buffer are affected; nothing happens elsewhere.
void advise_large_buffer(void* p, std::size_t bytes);
// The figure the data arena is sized from: the smallest of the installed
// physical memory, the total physical memory and the system commit limit.
std::uint64_t memory_reference_bytes();
// Memory for generated code: allocated read-write, then switched to
// read-execute (never both at once). exec_protect also flushes the
// instruction cache for the range. Tests inject failures through
// exec_fail_next (1: the next allocation fails, 2: the next protection).
void* exec_alloc(std::size_t bytes);
bool exec_protect(void* base, std::size_t bytes);
void exec_free(void* base, std::size_t bytes);
extern int exec_fail_next;
// True when any mapping of this process is writable and executable at once
// (Linux reads /proc/self/maps; elsewhere it answers false).
bool any_writable_executable_mapping();
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
// Open a file whose name is code page 437 text (converted to the platform's
// own names here). nullptr on failure, like fopen.
std::FILE* open_file(const std::string& cp437_name, const char* mode);
bool is_absolute_path(const std::string& path);
char path_separator();
// Open a file by the system's own path (UTF-8), as executable_path gives it.
std::FILE* open_native_file(const std::string& utf8_path, const char* mode);
// Create (or truncate) a file for writing that the system may start as a
// program: executable bits on Linux (as the umask allows), an ordinary file
// on Windows. nullptr on failure.
std::FILE* create_executable_file(const std::string& cp437_name);
// What an executable's name ends with when the user gives none (".exe" on
// Windows, nothing on Linux).
const char* executable_extension();

// --- files and directories (names are code page 437 text) -----------------
// What went wrong, for the caller to turn into its own message.
enum class FileFault { none, not_found, path_not_found, exists, denied, not_empty, in_use, disk_full, other };
FileFault delete_file(const std::string& cp437_name);
// Fails with `exists` when the new name is taken (NAME never overwrites).
FileFault rename_file(const std::string& cp437_old, const std::string& cp437_new);
// Atomic replacement: `from` takes the place of `to` (which may exist), and
// the change of directory entry is on disk before this returns.
FileFault replace_file(const std::string& cp437_from, const std::string& cp437_to);
// A whole file written so that a crash or a full disk at any moment leaves
// either the old file or the new one under the name, never a mixture: the
// bytes go to name + ".TMP", are forced to the disk, and that file is renamed
// over the old one. `created` tells whether the temporary file could be made
// (false: nothing was written anywhere). On failure the temporary is removed.
FileFault write_file_replacing(const std::string& cp437_name, const void* data, std::size_t n, bool* created);
// OPEN's SHARED and LOCK clauses: what other openers of the file may do
// while it is open here. open_file_shared fails with `in_use` when an
// opener's own clause refuses this one (or this one refuses an opener).
enum class Share { all, deny_read, deny_write, deny_both };
std::FILE* open_file_shared(const std::string& cp437_name, const char* mode, Share share, FileFault* fault);
// LOCK and UNLOCK: a byte range of an open file for this process alone;
// false when another holder's range overlaps (or, unlocking, no such range).
bool lock_range(std::FILE* f, std::int64_t start, std::int64_t length, bool lock);
// Before fclose of a stream from open_file_shared: its sharing and record
// locks end.
void release_sharing(std::FILE* f);
FileFault make_directory(const std::string& cp437_name);
FileFault remove_directory(const std::string& cp437_name);
FileFault change_directory(const std::string& cp437_name);
// The current directory as code page 437 (characters without a counterpart become '?').
std::string current_directory_cp437();
// 0 nothing there, 1 a file, 2 a directory.
int path_kind(const std::string& cp437_name);

struct DirEntry {
  std::string name;     // code page 437; entries whose names have no counterpart are left out
  bool directory;
  std::uint64_t size;
};
// Every entry of a directory ("" is the current one), "." and ".." excluded.
// False when the directory cannot be read.
bool list_directory(const std::string& cp437_dir, std::vector<DirEntry>* out);
// Drive roots ("C:\" ..., "/" on Linux) and a drive's kind in the classic
// numbering: 0 unknown, 1 no such root, 2 removable, 3 fixed, 4 remote,
// 5 CD-ROM, 6 RAM disk.
std::vector<std::string> drive_roots();
int drive_kind(const std::string& cp437_root);
// The current directory on a drive ("" the current drive); empty on failure.
std::string drive_current_directory(const std::string& cp437_drive);

// Large-file positioning and durability for files opened by open_file.
bool seek_file(std::FILE* f, std::int64_t offset);
std::int64_t tell_file(std::FILE* f);
std::int64_t file_length(std::FILE* f);  // flushes first; -1 on failure
bool sync_file(std::FILE* f);            // flush and force the bytes to the disk
std::int64_t os_file_handle(std::FILE* f);

// An exclusive lock on a lock file, held until unlock_file or the end of the
// process (the system drops it when a process dies). Null when another
// process holds it or the file cannot be made.
void* lock_file(const std::string& cp437_name);
void unlock_file(void* lock);

// End of the executable image in memory (the IMAGEEND landmark).
std::uint64_t image_end();

// --- environment ------------------------------------------------------------
// Set (or, with an empty value, remove) a variable of the process
// environment that getenv reads. False when the system refuses.
bool set_environment(const std::string& name, const std::string& value);

// --- diagnostics ----------------------------------------------------------
// A start-up failure box: caption "Tambril BASIC", error icon (stderr on Linux).
void fatal_box(const char* text);
// Host beep when no audio engine runs.
void host_beep(unsigned hz, unsigned ms);

}  // namespace host
