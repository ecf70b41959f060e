// Shared set-up of the fuzz targets.
#include "tests/fuzz/harness.h"

#include <ftw.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/direct.h"
#include "core/errors.h"
#include "core/program.h"
#include "files/file_statements.h"
#include "files/file_table.h"
#include "host/platform.h"
#include "host/posix/confine.h"
#include "host/shell.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "values/arena.h"

namespace fuzz {

namespace {

// A small data arena keeps every string and array small, so that a random
// SPACE$ or DIM costs milliseconds.
constexpr std::uint64_t kDataArenaBytes = 32ull << 20;
// An input that runs longer than this is stopped as the window closing
// would stop it (endless loops are legal BASIC).
constexpr std::int64_t kBudgetMs = 250;

std::string scratch;
std::atomic<std::int64_t> deadline{INT64_MAX};

std::int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void watchdog() {
  for (;;) {
    if (now_ms() > deadline.load()) host::request_stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

int remove_entry(const char* path, const struct stat*, int, struct FTW* f) {
  if (f->level > 0) std::remove(path);
  return 0;
}

}  // namespace

void setup() {
  static bool done = false;
  if (done) return;
  done = true;
  // In memory where there is a tmpfs: SAVE forces its file to the disk, and
  // a disk's flush would cost more than the rest of an input.
  char shm[] = "/dev/shm/tambril-fuzz-XXXXXX";
  char tmp[] = "/tmp/tambril-fuzz-XXXXXX";
  char* dir = mkdtemp(shm);
  if (!dir) dir = mkdtemp(tmp);
  if (!dir || chdir(dir) != 0 || !host::confine_files(dir)) std::abort();
  scratch = dir;
  std::atexit([] {
    nftw(scratch.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    (void)rmdir(scratch.c_str());
  });
  host::shell.program_arena = static_cast<std::uint8_t*>(host::reserve_memory(host::kProgramArenaBytes));
  host::shell.data_arena = static_cast<std::uint8_t*>(host::reserve_memory(kDataArenaBytes));
  host::shell.data_pages = kDataArenaBytes >> 12;
  if (!host::shell.program_arena || !host::shell.data_arena) std::abort();
  if (!screen::create_framebuffer(screen::kStartWidth, screen::kStartHeight)) std::abort();
  values::arena_init(host::shell.data_arena, kDataArenaBytes);
  files::install_hooks();
  // No keyboard: INPUT, INKEY$ waits and the line editor see the end of input.
  screen::keys.set_input_ended();
  std::thread(watchdog).detach();
  reset();
}

void reset() {
  files::close_all();
  (void)host::set_current_directory(scratch);
  nftw(scratch.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  host::shell.stop.store(0);
  core::init_interpreter();
  screen::reset_console();
}

void command(const char* line) {
  if (host::stop_requested()) return;  // SYSTEM or the watchdog ended the session
  deadline.store(now_ms() + kBudgetMs);
  core::execute_direct(line);
  deadline.store(INT64_MAX);
}

void type_lines(const std::uint8_t* data, std::size_t size, int max_lines) {
  char line[257];
  std::size_t n = 0;
  int lines = 0;
  for (std::size_t i = 0; i <= size && lines < max_lines; ++i) {
    const bool end = i == size || data[i] == '\n' || data[i] == '\r' || data[i] == 0;
    if (!end) {
      if (n < 256) line[n++] = static_cast<char>(data[i]);
      continue;
    }
    line[n] = 0;
    n = 0;
    ++lines;
    command(line);
  }
}

void write_file(const char* name, const std::uint8_t* data, std::size_t size) {
  std::FILE* f = std::fopen((scratch + "/" + name).c_str(), "wb");
  if (!f) std::abort();
  if (size) std::fwrite(data, 1, size, f);
  std::fclose(f);
}

std::string read_file(const char* name) {
  std::string out;
  std::FILE* f = std::fopen((scratch + "/" + name).c_str(), "rb");
  if (!f) return out;
  char buf[4096];
  std::size_t got;
  while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, got);
  std::fclose(f);
  return out;
}

std::string program_text() {
  std::string out;
  for (std::uint32_t i = 0; i < core::program.lines; ++i) {
    out += std::to_string(core::line_index[i].number);
    out += ' ';
    out.append(core::line_body(i), core::line_body_length(i));
    out += '\n';
  }
  return out;
}

}  // namespace fuzz
