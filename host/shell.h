// Process-wide state of the shell: directories, arenas, the stop flag, the
// command line, the TSC calibration. Plain globals owned by the shell.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "host/event.h"

namespace host {

constexpr std::size_t kProgramArenaBytes = 0x1000000;  // 16 MiB
constexpr std::uint64_t kDataArenaFloor = 134217728;   // 128 MiB
constexpr int kMaxProgramArgs = 32;
constexpr int kMaxArgLength = 255;
constexpr std::size_t kMaxAutostartName = 4096;

struct Shell {
  std::string module_dir;  // executable's directory; a root keeps its separator
  std::string temp_dir;
  std::string start_dir;   // where the user started us (headless keeps it)
  std::atomic<std::uint32_t> stop{0};
  AutoResetEvent wake;
  std::recursive_mutex global_lock;
  std::uint8_t* program_arena = nullptr;  // 16 MiB
  std::uint8_t* data_arena = nullptr;
  std::uint64_t data_pages = 0;           // size in 4 KiB pages
  char thousands_separator = ',';
  std::atomic<std::uint64_t> tsc_rate{0};
  // Written by the interpreter thread at its start and by the calibration
  // thread beside it.
  std::atomic<std::uint64_t> tsc_reference{0};
  bool packed = false;
  std::string autostart;  // code page 437
  bool autostart_invalid = false;
  char args[kMaxProgramArgs][kMaxArgLength + 1] = {};
  int arg_count = 0;
  // Headless options.
  bool headless = false;
  bool batch = false;
  bool no_banner = false;
  std::string screenshot;
  // Sound device: a WAV file (--audio-out), the sound card even when
  // headless (--audio-system), and the best format the WAV file accepts
  // (--audio-format: 0 float32, 1 PCM24, 2 PCM16).
  std::string audio_out;
  bool audio_system = false;
  int audio_best = 0;
  // Process exit code requested by the interpreter (SYSTEM, --batch errors).
  std::atomic<int> exit_code{0};
};

extern Shell shell;

inline bool stop_requested() { return shell.stop.load() != 0; }
// Set the stop flag and wake everything that may be waiting.
void request_stop();

// The command line as words (word 0 is the executable), already split. The
// shell keeps the autostart name and the program arguments it accepts.
void parse_command_words(const std::vector<std::u16string>& words);
// Split a raw command line at blanks and tabs; a word that starts with a
// double quote runs to the next double quote (which is dropped).
std::vector<std::u16string> split_command_line(const std::u16string& line);

// Start-up helpers shared by every front end.
bool allocate_arenas();   // shows the failure box itself; false on failure
void release_arenas();
void start_tsc_calibration();
std::uint64_t tsc_now();
std::uint64_t tsc_rate();  // waits for the calibration if it is still running
bool start_interpreter_thread();
bool wait_interpreter_thread(unsigned ms);  // true when it ended within the wait

// The module directory rule: cut at the last separator, keeping the one of a
// drive root such as X:\ (or "/" on Linux).
std::string directory_of(const std::string& path);

// Interpreter thread body.
void interpreter_thread();

}  // namespace host
