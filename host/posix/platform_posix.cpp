// Linux implementation of the platform interface.
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "host/cp437.h"
#include "host/platform.h"
#include "host/posix/confine.h"

extern "C" char end;  // the linker's symbol for the end of the loaded image

namespace host {

std::uint64_t image_end() { return reinterpret_cast<std::uint64_t>(&end); }

void* reserve_memory(std::size_t bytes) {
  // NORESERVE: the kernel hands out zero pages on first touch, so reserving a
  // large arena is free until it is used.
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  // Large pages where the kernel offers them: a string of gigabytes then
  // takes thousands of page faults instead of hundreds of thousands.
  if (bytes >= (64u << 20)) (void)madvise(p, bytes, MADV_HUGEPAGE);
  return p;
}

void release_memory(void* base, std::size_t bytes) {
  if (base) munmap(base, bytes);
}

void advise_large_buffer(void* p, std::size_t bytes) {
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  if (bytes < 4 * kHuge) return;
  const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(p);
  const std::uintptr_t lo = (a + kHuge - 1) & ~(kHuge - 1), hi = (a + bytes) & ~(kHuge - 1);
  if (hi > lo) (void)madvise(reinterpret_cast<void*>(lo), hi - lo, MADV_HUGEPAGE);
}

int exec_fail_next = 0;

void* exec_alloc(std::size_t bytes) {
  if (exec_fail_next == 1) {
    exec_fail_next = 0;
    return nullptr;
  }
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

bool exec_protect(void* base, std::size_t bytes) {
  if (exec_fail_next == 2) {
    exec_fail_next = 0;
    return false;
  }
  // x86 keeps instruction fetch coherent with stores: no cache flush needed.
  return mprotect(base, bytes, PROT_READ | PROT_EXEC) == 0;
}

void exec_free(void* base, std::size_t bytes) {
  if (base) munmap(base, bytes);
}

bool any_writable_executable_mapping() {
  std::FILE* f = std::fopen("/proc/self/maps", "r");
  if (!f) return false;
  char line[512];
  bool found = false;
  while (std::fgets(line, sizeof line, f)) {
    // "start-end perms ...": perms is rwxp.
    const char* sp = std::strchr(line, ' ');
    if (sp && sp[1] == 'r' && sp[2] == 'w' && sp[3] == 'x') found = true;
  }
  std::fclose(f);
  return found;
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

// --- confinement (fuzzing) ----------------------------------------------

static std::string jail;  // empty: no confinement

// The absolute, lexically normalised form of a path ("." and ".." folded).
static std::string normalised(const std::string& path) {
  std::string full = path;
  if (full.empty() || full[0] != '/') full = current_directory() + "/" + full;
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i <= full.size()) {
    const std::size_t j = full.find('/', i);
    const std::string part = full.substr(i, j == std::string::npos ? std::string::npos : j - i);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    if (j == std::string::npos) break;
    i = j + 1;
  }
  std::string out;
  for (const std::string& p : parts) out += "/" + p;
  return out.empty() ? "/" : out;
}

bool confine_files(const std::string& dir) {
  char real[PATH_MAX];
  if (!realpath(dir.c_str(), real)) return false;
  jail = real;
  return true;
}

// A BASIC file name as the system's path. Under confinement a path that
// leaves the jail names a place that cannot exist, so every operation on it
// fails as on a missing file. (No BASIC statement makes a symbolic link, so
// the lexical check is the whole check.)
static std::string native_name(const std::string& cp437_name) {
  std::string path = cp437_to_utf8(cp437_name);
  if (jail.empty()) return path;
  const std::string n = normalised(path);
  if (n == jail || n.compare(0, jail.size() + 1, jail + "/") == 0) return path;
  return "/nonexistent/outside-the-confinement";
}

std::FILE* open_file(const std::string& cp437_name, const char* mode) {
  std::string path = native_name(cp437_name);
  if (access(path.c_str(), F_OK) != 0) {
    const std::string other = case_insensitive_match(path);
    if (!other.empty()) path = other;  // also when writing: replace that file
  }
  return std::fopen(path.c_str(), mode);
}

std::FILE* open_native_file(const std::string& utf8_path, const char* mode) { return std::fopen(utf8_path.c_str(), mode); }

std::FILE* create_executable_file(const std::string& cp437_name) {
  std::string path = native_name(cp437_name);
  if (access(path.c_str(), F_OK) != 0) {
    const std::string other = case_insensitive_match(path);
    if (!other.empty()) path = other;
  }
  // Mode 0777 lets the umask decide who may run it, as for any new program;
  // a file that existed keeps its mode, plus x wherever it can be read.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) == 0 && (st.st_mode & 0111) == 0) (void)fchmod(fd, (st.st_mode & 07777) | ((st.st_mode & 0444) >> 2));
  std::FILE* f = fdopen(fd, "wb");
  if (!f) close(fd);
  return f;
}

const char* executable_extension() { return ""; }

// Linux has no sharing modes; they are built from open-file-description
// locks on two bytes far past any real data, which every Tambril program
// honours: an opener takes a shared lock on the "readers" byte when it reads
// and on the "writers" byte when it writes; denying reading or writing takes
// that byte exclusively. So a denial refuses later openers, and cannot be had
// while someone already uses the right, as on Windows. The locks live on a
// second descriptor of the file opened for reading and writing (a lock's kind
// needs that access), kept beside the stream until release_sharing. Record
// locks (LOCK) go there too, so closing one file number never drops the
// locks another holds on the same file.
static constexpr off_t kReadersByte = static_cast<off_t>(0x7FFFFFFFFFFFFF00LL);
static constexpr off_t kWritersByte = kReadersByte + 1;
static std::vector<std::pair<std::FILE*, int>> lock_descriptors;

static bool ofd_lock(int fd, off_t start, off_t length, short type) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = start;
  fl.l_len = length;
  return fcntl(fd, F_OFD_SETLK, &fl) == 0;
}

static int lock_descriptor(std::FILE* f) {
  for (const auto& e : lock_descriptors)
    if (e.first == f) return e.second;
  return -1;
}

std::FILE* open_file_shared(const std::string& cp437_name, const char* mode, Share share, FileFault* fault) {
  *fault = FileFault::none;
  std::FILE* f = open_file(cp437_name, mode);
  if (!f) {
    *fault = errno == ENOENT ? FileFault::not_found : errno == ENOTDIR ? FileFault::path_not_found : FileFault::denied;
    return nullptr;
  }
  const std::string m(mode);
  const bool reads = m[0] == 'r' || m.find('+') != std::string::npos;
  const bool writes = m[0] != 'r' || m.find('+') != std::string::npos;
  const bool deny_read = share == Share::deny_read || share == Share::deny_both;
  const bool deny_write = share == Share::deny_write || share == Share::deny_both;
  // The same file, not the same name: /proc/self/fd follows the open stream.
  const std::string self = "/proc/self/fd/" + std::to_string(fileno(f));
  int fd = open(self.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) fd = open(self.c_str(), (writes ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
  if (fd < 0) return f;  // no second descriptor: the file is opened unshared-checked
  const bool ok = (!(reads || deny_read) || ofd_lock(fd, kReadersByte, 1, deny_read ? F_WRLCK : F_RDLCK)) &&
                  (!(writes || deny_write) || ofd_lock(fd, kWritersByte, 1, deny_write ? F_WRLCK : F_RDLCK));
  if (!ok) {
    close(fd);  // its locks go with it
    std::fclose(f);
    *fault = FileFault::in_use;
    return nullptr;
  }
  lock_descriptors.emplace_back(f, fd);
  return f;
}

void release_sharing(std::FILE* f) {
  for (auto it = lock_descriptors.begin(); it != lock_descriptors.end(); ++it) {
    if (it->first != f) continue;
    close(it->second);
    lock_descriptors.erase(it);
    return;
  }
}

bool lock_range(std::FILE* f, std::int64_t start, std::int64_t length, bool lock) {
  const int fd = lock_descriptor(f);
  if (fd < 0) return false;
  if (start + length > static_cast<std::int64_t>(kReadersByte)) length = kReadersByte - start;
  return ofd_lock(fd, static_cast<off_t>(start), static_cast<off_t>(length), lock ? F_WRLCK : F_UNLCK);
}

// --- files and directories --------------------------------------------------

// The native name of an existing file or directory: the exact name, else one
// that differs only in case (see case_insensitive_match).
static std::string native_existing(const std::string& cp437_name) {
  std::string path = native_name(cp437_name);
  if (access(path.c_str(), F_OK) != 0) {
    const std::string other = case_insensitive_match(path);
    if (!other.empty()) return other;
  }
  return path;
}

static FileFault fault_from_errno(int e) {
  switch (e) {
    case 0: return FileFault::none;
    case ENOENT: return FileFault::not_found;
    case ENOTDIR: return FileFault::path_not_found;
    case EEXIST: return FileFault::exists;
    case EACCES: case EPERM: case EROFS: return FileFault::denied;
    case ENOTEMPTY: return FileFault::not_empty;
    case EBUSY: case ETXTBSY: return FileFault::in_use;
    case ENOSPC: case EDQUOT: return FileFault::disk_full;
    default: return FileFault::other;
  }
}

static FileFault result(int rc) { return rc == 0 ? FileFault::none : fault_from_errno(errno); }

// Make a directory entry change durable: fsync the directory that holds it.
static void sync_parent(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
}

FileFault delete_file(const std::string& cp437_name) {
  const std::string path = native_existing(cp437_name);
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return FileFault::denied;
  return result(unlink(path.c_str()));
}

FileFault rename_file(const std::string& cp437_old, const std::string& cp437_new) {
  const std::string from = native_existing(cp437_old);
  if (access(from.c_str(), F_OK) != 0) return fault_from_errno(errno);
  const std::string to = native_name(cp437_new);
  if (access(to.c_str(), F_OK) == 0 || !case_insensitive_match(to).empty()) {
    // The same entry under another spelling of its case is a plain rename.
    struct stat a {}, b {};
    if (!(stat(from.c_str(), &a) == 0 && stat(native_existing(cp437_new).c_str(), &b) == 0 && a.st_ino == b.st_ino &&
          a.st_dev == b.st_dev))
      return FileFault::exists;
  }
  return result(rename(from.c_str(), to.c_str()));
}

FileFault replace_file(const std::string& cp437_from, const std::string& cp437_to) {
  const std::string to = native_existing(cp437_to);
  const FileFault f = result(rename(native_existing(cp437_from).c_str(), to.c_str()));
  if (f == FileFault::none) sync_parent(to);
  return f;
}

FileFault make_directory(const std::string& cp437_name) {
  const std::string path = native_name(cp437_name);
  if (!case_insensitive_match(path).empty()) return FileFault::exists;
  return result(mkdir(path.c_str(), 0777));
}

FileFault remove_directory(const std::string& cp437_name) { return result(rmdir(native_existing(cp437_name).c_str())); }

FileFault change_directory(const std::string& cp437_name) { return result(chdir(native_existing(cp437_name).c_str())); }

std::string current_directory_cp437() {
  std::string out;
  const std::string utf8 = current_directory();
  if (utf8_to_cp437(utf8, &out)) return out;
  out.clear();
  Utf8Decoder d;
  char32_t cps[2];
  auto put = [&out](char32_t u) {
    const int b = unicode_to_cp437(u);
    out += b < 0 ? '?' : static_cast<char>(b);
  };
  for (unsigned char c : utf8)
    for (int i = 0, n = d.feed(c, cps); i < n; ++i) put(cps[i]);
  if (d.finish(cps)) put(cps[0]);
  return out;
}

int path_kind(const std::string& cp437_name) {
  struct stat st {};
  if (stat(native_existing(cp437_name).c_str(), &st) != 0) return 0;
  return S_ISDIR(st.st_mode) ? 2 : 1;
}

bool list_directory(const std::string& cp437_dir, std::vector<DirEntry>* out) {
  const std::string dir = cp437_dir.empty() ? std::string(".") : native_existing(cp437_dir);
  DIR* d = opendir(dir.c_str());
  if (!d) return false;
  while (dirent* e = readdir(d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    DirEntry entry{};
    if (!utf8_to_cp437(e->d_name, &entry.name)) continue;
    struct stat st {};
    if (fstatat(dirfd(d), e->d_name, &st, 0) != 0) continue;
    entry.directory = S_ISDIR(st.st_mode);
    entry.size = entry.directory ? 0 : static_cast<std::uint64_t>(st.st_size);
    out->push_back(entry);
  }
  closedir(d);
  return true;
}

std::vector<std::string> drive_roots() { return {"/"}; }

int drive_kind(const std::string& cp437_root) {
  struct stat st {};
  if (cp437_root.empty() || stat(native_existing(cp437_root).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return 1;
  return 3;
}

std::string drive_current_directory(const std::string& cp437_drive) {
  // One tree on Linux: every "drive" is the root, whose current directory is ours.
  if (!cp437_drive.empty() && cp437_drive != "/") return std::string();
  return current_directory_cp437();
}

bool seek_file(std::FILE* f, std::int64_t offset) { return fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0; }

std::int64_t tell_file(std::FILE* f) { return static_cast<std::int64_t>(ftello(f)); }

std::int64_t file_length(std::FILE* f) {
  if (std::fflush(f) != 0) return -1;
  struct stat st {};
  if (fstat(fileno(f), &st) != 0) return -1;
  return static_cast<std::int64_t>(st.st_size);
}

bool sync_file(std::FILE* f) { return std::fflush(f) == 0 && fsync(fileno(f)) == 0; }

std::int64_t os_file_handle(std::FILE* f) { return fileno(f); }

void* lock_file(const std::string& cp437_name) {
  const int fd = open(native_existing(cp437_name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  // flock belongs to this open file description: a second lock_file, in this
  // process or another, is refused; the kernel drops it when the process dies.
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    close(fd);
    return nullptr;
  }
  return reinterpret_cast<void*>(static_cast<std::intptr_t>(fd) + 1);
}

void unlock_file(void* lock) {
  if (!lock) return;
  const int fd = static_cast<int>(reinterpret_cast<std::intptr_t>(lock) - 1);
  flock(fd, LOCK_UN);
  close(fd);
}

bool set_environment(const std::string& name, const std::string& value) {
  if (value.empty()) return unsetenv(name.c_str()) == 0;
  return setenv(name.c_str(), value.c_str(), 1) == 0;
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
