// Linux implementation of the platform interface.
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "host/cp437.h"
#include "host/platform.h"

extern "C" char end;  // the linker's symbol for the end of the loaded image

namespace host {

std::uint64_t image_end() { return reinterpret_cast<std::uint64_t>(&end); }

void* reserve_memory(std::size_t bytes) {
  // NORESERVE: the kernel hands out zero pages on first touch, so reserving a
  // large arena is free until it is used.
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void release_memory(void* base, std::size_t bytes) {
  if (base) munmap(base, bytes);
}

std::uint64_t memory_reference_bytes() {
  struct sysinfo si {};
  std::uint64_t total = 0;
  if (sysinfo(&si) == 0) total = static_cast<std::uint64_t>(si.totalram) * si.mem_unit;
  const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
  std::uint64_t installed = pages > 0 && page > 0 ? static_cast<std::uint64_t>(pages) * page : total;
  std::uint64_t ref = total < installed ? total : installed;
  // The commit limit counts only when the kernel enforces it (overcommit mode 2).
  std::ifstream mode("/proc/sys/vm/overcommit_memory");
  int overcommit = 0;
  if (mode >> overcommit && overcommit == 2) {
    std::ifstream info("/proc/meminfo");
    std::string key;
    std::uint64_t kb;
    std::string unit;
    while (info >> key >> kb) {
      std::getline(info, unit);
      if (key == "CommitLimit:") {
        if (kb * 1024 < ref) ref = kb * 1024;
        break;
      }
    }
  }
  return ref;
}

// process_vm_readv/writev on our own pid go through the kernel's checked copy:
// an unmapped or protected address is an error code, never a fault.
bool checked_read(std::uint64_t address, void* out, std::size_t n) {
  iovec local{out, n};
  iovec remote{reinterpret_cast<void*>(address), n};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
}

bool checked_write(std::uint64_t address, const void* in, std::size_t n) {
  iovec local{const_cast<void*>(in), n};
  iovec remote{reinterpret_cast<void*>(address), n};
  return process_vm_writev(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
}

std::uint64_t perf_counter() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<std::uint64_t>(ts.tv_nsec);
}

std::uint64_t perf_frequency() { return 1000000000ull; }

std::uint64_t tick_ms() { return perf_counter() / 1000000ull; }

void sleep_ms(unsigned ms) {
  timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

unsigned logical_processors() {
  const long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<unsigned>(n) : 1u;
}

std::string executable_path() {
  char buf[4104];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0 || n >= 4103) return std::string();
  return std::string(buf, static_cast<std::size_t>(n));
}

std::string current_directory() {
  char buf[4096];
  return getcwd(buf, sizeof buf) ? std::string(buf) : std::string();
}

bool set_current_directory(const std::string& dir) { return chdir(dir.c_str()) == 0; }

std::string temp_directory() {
  const char* t = std::getenv("TMPDIR");
  std::string dir = t && *t ? t : "/tmp";
  if (dir.size() >= 4104) return std::string();
  return dir;
}

bool file_readable(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  close(fd);
  return true;
}

// BASIC programs name files without minding case (LOAD "prog" looks for
// PROG.BAS), as they do on Windows: when the exact name is missing, a file in
// the same directory whose name differs only in ASCII case is taken.
static std::string case_insensitive_match(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  DIR* d = opendir(dir.c_str());
  if (!d) return std::string();
  std::string found;
  while (dirent* e = readdir(d)) {
    if (strcasecmp(e->d_name, base.c_str()) == 0) {
      found = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + e->d_name;
      break;
    }
  }
  closedir(d);
  return found;
}

std::FILE* open_file(const std::string& cp437_name, const char* mode) {
  std::string path = cp437_to_utf8(cp437_name);
  if (access(path.c_str(), F_OK) != 0) {
    const std::string other = case_insensitive_match(path);
    if (!other.empty()) path = other;  // also when writing: replace that file
  }
  return std::fopen(path.c_str(), mode);
}

bool is_absolute_path(const std::string& path) { return !path.empty() && path[0] == '/'; }

char path_separator() { return '/'; }

void fatal_box(const char* text) { std::fprintf(stderr, "Tambril BASIC: %s\n", text); }

void host_beep(unsigned hz, unsigned ms) {
  (void)hz;
  (void)ms;
  // No speaker to drive from user space: the terminal bell is the nearest thing.
  std::fputc('\a', stderr);
  std::fflush(stderr);
}

}  // namespace host
