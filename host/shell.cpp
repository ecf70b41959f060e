// Shell state and the start-up steps every front end shares: command line,
// arenas, time-stamp-counter calibration, the interpreter thread.
#include "host/shell.h"

#include <condition_variable>
#include <cstring>
#include <thread>

#include "host/cp437.h"
#include "host/platform.h"
#include "screen/keyqueue.h"

namespace host {

Shell shell;

void request_stop() {
  shell.stop.store(1);
  shell.wake.set();
  screen::keys.signal();
}

std::vector<std::u16string> split_command_line(const std::u16string& line) {
  std::vector<std::u16string> words;
  std::size_t i = 0;
  const std::size_t n = line.size();
  while (i < n) {
    while (i < n && (line[i] == u' ' || line[i] == u'\t')) ++i;
    if (i >= n) break;
    std::u16string w;
    if (line[i] == u'"') {
      ++i;
      while (i < n && line[i] != u'"') w += line[i++];
      if (i < n) ++i;  // the closing quote is dropped
    } else {
      while (i < n && line[i] != u' ' && line[i] != u'\t') w += line[i++];
    }
    words.push_back(std::move(w));
  }
  return words;
}

static void add_argument(const std::u16string& word) {
  if (shell.arg_count >= kMaxProgramArgs) return;
  std::string text;
  if (!utf16_to_cp437(word.substr(0, kMaxArgLength), &text)) return;  // dropped
  std::memcpy(shell.args[shell.arg_count], text.data(), text.size());
  shell.args[shell.arg_count][text.size()] = 0;
  ++shell.arg_count;
}

void parse_command_words(const std::vector<std::u16string>& words) {
  shell.autostart.clear();
  shell.autostart_invalid = false;
  shell.arg_count = 0;
  std::size_t i = 1;
  if (!shell.packed && i < words.size()) {
    const std::u16string& name = words[i++];
    if (name.size() >= kMaxAutostartName) {
      shell.autostart_invalid = true;
      return;
    }
    if (!utf16_to_cp437(name, &shell.autostart)) {
      shell.autostart_invalid = true;
      shell.autostart.clear();
    }
  }
  for (; i < words.size(); ++i) add_argument(words[i]);
}

std::string directory_of(const std::string& path) {
  const std::size_t p = path.find_last_of("\\/");
  if (p == std::string::npos) return std::string();
  if (p == 2 && path[1] == ':') return path.substr(0, 3);  // drive root X:\ keeps its separator
  if (p == 0) return path.substr(0, 1);                     // "/" on Linux
  return path.substr(0, p);
}

bool allocate_arenas() {
  shell.program_arena = static_cast<std::uint8_t*>(reserve_memory(kProgramArenaBytes));
  if (!shell.program_arena) {
    fatal_box("Could not allocate the 16 MB BASIC code arena.");
    return false;
  }
  // The data arena takes a quarter of the machine's memory, between 128 MiB and
  // 8 GiB. It is reserved, not touched, so its size costs nothing at start-up;
  // a refused reservation is retried at half the size down to the floor.
  const std::uint64_t reference = memory_reference_bytes();
  std::uint64_t size = 0;
  if (reference >= kDataArenaFloor) {
    size = reference / 4;
    if (size < kDataArenaFloor) size = kDataArenaFloor;
    if (size > (8ull << 30)) size = 8ull << 30;
    size &= ~0xFFFull;
    for (;;) {
      shell.data_arena = static_cast<std::uint8_t*>(reserve_memory(static_cast<std::size_t>(size)));
      if (shell.data_arena || size / 2 < kDataArenaFloor) break;
      size = (size / 2) & ~0xFFFull;
    }
  }
  if (!shell.data_arena || size == 0) {
    fatal_box("Could not allocate the BASIC data arena.");
    return false;
  }
  shell.data_pages = size >> 12;
  return true;
}

void release_arenas() {
  if (shell.program_arena) release_memory(shell.program_arena, kProgramArenaBytes);
  if (shell.data_arena) release_memory(shell.data_arena, static_cast<std::size_t>(shell.data_pages << 12));
  shell.program_arena = nullptr;
  shell.data_arena = nullptr;
}

std::uint64_t tsc_now() { return __builtin_ia32_rdtsc(); }

namespace {
// Both threads are detached: nothing may be left joinable when the process
// ends from elsewhere (an X server that goes away makes Xlib call exit()).
// Completion is told through the condition variable and the events instead.
// Shutdown cuts the measurement short: a session that ends within 100 ms
// never needed the rate, and must not wait for it.
std::mutex cancel_lock;
std::condition_variable cancel_cv;
bool cancelled = false;

void calibration_sleep() {
  std::unique_lock guard(cancel_lock);
  cancel_cv.wait_for(guard, std::chrono::milliseconds(100), [] { return cancelled; });
}

void calibrate() {
  std::uint64_t rate;
  const std::uint64_t freq = perf_frequency();
  if (freq < 1) {
    const std::uint64_t t0 = tsc_now();
    calibration_sleep();
    const std::uint64_t t1 = tsc_now();
    rate = (t1 - t0) * 10;
    shell.tsc_reference = t1;
  } else {
    const std::uint64_t p0 = perf_counter();
    const std::uint64_t t0 = tsc_now();
    calibration_sleep();
    const std::uint64_t t1 = tsc_now();
    const std::uint64_t p1 = perf_counter();
    if (p1 <= p0) {
      rate = (t1 - t0) * 10;
    } else {
      rate = static_cast<std::uint64_t>(static_cast<unsigned __int128>(t1 - t0) * freq / (p1 - p0));
    }
    shell.tsc_reference = t1;
  }
  // Notified under the lock: the process may end as soon as a waiter sees
  // the rate, destroying the condition variable this thread would still touch.
  std::lock_guard guard(cancel_lock);
  shell.tsc_rate.store(rate ? rate : 1);
  cancel_cv.notify_all();
}

AutoResetEvent interpreter_done;
}  // namespace

// The 100 ms measurement runs beside start-up instead of in front of it, so the
// first "Ready." appears at once; whoever needs the rate waits for it.
void start_tsc_calibration() {
  try {
    std::thread(calibrate).detach();
  } catch (...) {
    calibrate();  // no thread to spare: measure here, 100 ms later
  }
}

std::uint64_t tsc_rate() {
  std::unique_lock guard(cancel_lock);
  cancel_cv.wait(guard, [] { return shell.tsc_rate.load() != 0; });
  return shell.tsc_rate.load();
}

bool start_interpreter_thread() {
  // std::thread reports a failed start by exception; it is caught right here
  // and becomes the start-up failure box.
  try {
    std::thread([] {
      interpreter_thread();
      interpreter_done.set();
    }).detach();
  } catch (...) {
    return false;
  }
  return true;
}

bool wait_interpreter_thread(unsigned ms) {
  // A thread that does not end in time may still use the arenas: the caller
  // then leaves them allocated.
  const bool ended = interpreter_done.wait_ms(ms);
  {
    std::lock_guard guard(cancel_lock);
    cancelled = true;
    cancel_cv.notify_all();
  }
  (void)tsc_rate();  // the cut-short measurement finishes at once
  return ended;
}

}  // namespace host
