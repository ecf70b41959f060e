// Windows implementation of the platform interface. File names are UTF-8
// inside the system and UTF-16 at the Win32 calls.
#include <windows.h>
#include <io.h>
#include <share.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/cp437.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/win32/wide.h"

namespace host {

void* reserve_memory(std::size_t bytes) {
  // Committed pages are zero-filled and backed only when first touched, so a
  // large arena costs nothing until it is used.
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void release_memory(void* base, std::size_t bytes) {
  (void)bytes;  // MEM_RELEASE frees the whole reservation and wants size 0
  if (base) VirtualFree(base, 0, MEM_RELEASE);
}

// Large pages on Windows need a privilege that programs do not hold.
void advise_large_buffer(void*, std::size_t) {}

int exec_fail_next = 0;

void* exec_alloc(std::size_t bytes) {
  if (exec_fail_next == 1) {
    exec_fail_next = 0;
    return nullptr;
  }
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

bool exec_protect(void* base, std::size_t bytes) {
  if (exec_fail_next == 2) {
    exec_fail_next = 0;
    return false;
  }
  DWORD old;
  if (!VirtualProtect(base, bytes, PAGE_EXECUTE_READ, &old)) return false;
  FlushInstructionCache(GetCurrentProcess(), base, bytes);
  return true;
}

void exec_free(void* base, std::size_t) {
  if (base) VirtualFree(base, 0, MEM_RELEASE);
}

bool any_writable_executable_mapping() { return false; }

std::uint64_t memory_reference_bytes() {
  std::uint64_t ref = 0;
  auto take = [&ref](std::uint64_t v) {
    if (v != 0 && (ref == 0 || v < ref)) ref = v;
  };
  ULONGLONG installed_kb = 0;
  if (GetPhysicallyInstalledSystemMemory(&installed_kb)) take(static_cast<std::uint64_t>(installed_kb) * 1024);
  MEMORYSTATUSEX ms{};
  ms.dwLength = sizeof ms;
  if (GlobalMemoryStatusEx(&ms)) {
    take(ms.ullTotalPhys);
    take(ms.ullTotalPageFile);  // the commit limit
  }
  return ref;
}

// The kernel copies through our own process handle and reports an unmapped or
// protected address as an error instead of raising an access violation.
bool checked_read(std::uint64_t address, void* out, std::size_t n) {
  SIZE_T got = 0;
  return ReadProcessMemory(GetCurrentProcess(), reinterpret_cast<LPCVOID>(static_cast<std::uintptr_t>(address)), out,
                           n, &got) &&
         got == n;
}

bool checked_write(std::uint64_t address, const void* in, std::size_t n) {
  SIZE_T put = 0;
  return WriteProcessMemory(GetCurrentProcess(), reinterpret_cast<LPVOID>(static_cast<std::uintptr_t>(address)), in, n,
                            &put) &&
         put == n;
}

std::uint64_t perf_counter() {
  LARGE_INTEGER v;
  QueryPerformanceCounter(&v);
  return static_cast<std::uint64_t>(v.QuadPart);
}

std::uint64_t perf_frequency() {
  LARGE_INTEGER f;
  if (!QueryPerformanceFrequency(&f) || f.QuadPart < 1) return 0;
  return static_cast<std::uint64_t>(f.QuadPart);
}

std::uint64_t tick_ms() { return GetTickCount64(); }

void sleep_ms(unsigned ms) { Sleep(ms); }

unsigned logical_processors() {
  // Every processor group counts, not only the one this thread started in.
  const DWORD n = GetActiveProcessorCount(ALL_PROCESSOR_GROUPS);
  if (n > 0) return static_cast<unsigned>(n);
  SYSTEM_INFO si;
  GetSystemInfo(&si);
  return si.dwNumberOfProcessors > 0 ? static_cast<unsigned>(si.dwNumberOfProcessors) : 1u;
}

std::string executable_path() {
  // A result that fills the buffer may be truncated: treat it as unknown.
  wchar_t buf[4104];
  const DWORD n = GetModuleFileNameW(nullptr, buf, 4104);
  if (n == 0 || n >= 4103) return std::string();
  return narrow(buf, n);
}

std::string current_directory() {
  wchar_t buf[4096];
  const DWORD n = GetCurrentDirectoryW(4096, buf);
  if (n == 0 || n >= 4096) return std::string();
  return narrow(buf, n);
}

bool set_current_directory(const std::string& dir) { return SetCurrentDirectoryW(wide(dir).c_str()) != 0; }

std::string temp_directory() {
  wchar_t buf[4104];
  const DWORD n = GetTempPathW(4104, buf);
  if (n == 0 || n >= 4104) return std::string();
  return narrow(buf, n);
}

bool file_readable(const std::string& path) {
  const HANDLE h = CreateFileW(wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  CloseHandle(h);
  return true;
}

std::FILE* open_file(const std::string& cp437_name, const char* mode) {
  const std::string m(mode);
  return _wfopen(wide(cp437_to_utf8(cp437_name)).c_str(), std::wstring(m.begin(), m.end()).c_str());
}

std::FILE* open_native_file(const std::string& utf8_path, const char* mode) {
  const std::string m(mode);
  return _wfopen(wide(utf8_path).c_str(), std::wstring(m.begin(), m.end()).c_str());
}

std::FILE* create_executable_file(const std::string& cp437_name) { return open_file(cp437_name, "wb"); }

const char* executable_extension() { return ".exe"; }

// --- files and directories --------------------------------------------------

namespace {

std::wstring wname(const std::string& cp437) { return wide(cp437_to_utf8(cp437)); }

FileFault fault_from_error(DWORD e) {
  switch (e) {
    case ERROR_SUCCESS: return FileFault::none;
    case ERROR_FILE_NOT_FOUND: return FileFault::not_found;
    case ERROR_PATH_NOT_FOUND: case ERROR_INVALID_DRIVE: case ERROR_BAD_NETPATH: return FileFault::path_not_found;
    case ERROR_FILE_EXISTS: case ERROR_ALREADY_EXISTS: return FileFault::exists;
    case ERROR_ACCESS_DENIED: case ERROR_WRITE_PROTECT: return FileFault::denied;
    case ERROR_DIR_NOT_EMPTY: return FileFault::not_empty;
    case ERROR_SHARING_VIOLATION: case ERROR_LOCK_VIOLATION: case ERROR_CURRENT_DIRECTORY: return FileFault::in_use;
    case ERROR_DISK_FULL: case ERROR_HANDLE_DISK_FULL: return FileFault::disk_full;
    default: return FileFault::other;
  }
}

FileFault result(BOOL ok) { return ok ? FileFault::none : fault_from_error(GetLastError()); }

std::string to_cp437_lossy(const std::wstring& w) {
  std::string out;
  const std::u16string u(w.begin(), w.end());
  if (utf16_to_cp437(u, &out)) return out;
  out.clear();
  for (wchar_t c : w) {
    const int b = unicode_to_cp437(static_cast<char32_t>(c));
    out += b < 0 ? '?' : static_cast<char>(b);
  }
  return out;
}

}  // namespace

std::FILE* open_file_shared(const std::string& cp437_name, const char* mode, Share share, FileFault* fault) {
  *fault = FileFault::none;
  const std::string m(mode);
  const int flag = share == Share::deny_read    ? _SH_DENYRD
                   : share == Share::deny_write ? _SH_DENYWR
                   : share == Share::deny_both  ? _SH_DENYRW
                                                : _SH_DENYNO;
  std::FILE* f = _wfsopen(wide(cp437_to_utf8(cp437_name)).c_str(), std::wstring(m.begin(), m.end()).c_str(), flag);
  if (!f) {
    // The runtime's CreateFile left its reason (a sharing violation above all).
    *fault = fault_from_error(GetLastError());
    if (*fault == FileFault::none || *fault == FileFault::other) *fault = FileFault::denied;
  }
  return f;
}

// The sharing mode and the record locks belong to the handle: fclose ends them.
void release_sharing(std::FILE*) {}

bool lock_range(std::FILE* f, std::int64_t start, std::int64_t length, bool lock) {
  if (std::fflush(f) != 0) return false;
  const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(f)));
  const DWORD lo = static_cast<DWORD>(start), hi = static_cast<DWORD>(static_cast<std::uint64_t>(start) >> 32);
  const DWORD nlo = static_cast<DWORD>(length), nhi = static_cast<DWORD>(static_cast<std::uint64_t>(length) >> 32);
  return (lock ? LockFile(h, lo, hi, nlo, nhi) : UnlockFile(h, lo, hi, nlo, nhi)) != 0;
}

FileFault delete_file(const std::string& cp437_name) { return result(DeleteFileW(wname(cp437_name).c_str())); }

FileFault rename_file(const std::string& cp437_old, const std::string& cp437_new) {
  return result(MoveFileExW(wname(cp437_old).c_str(), wname(cp437_new).c_str(), 0));
}

FileFault replace_file(const std::string& cp437_from, const std::string& cp437_to) {
  return result(MoveFileExW(wname(cp437_from).c_str(), wname(cp437_to).c_str(),
                            MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
}

FileFault make_directory(const std::string& cp437_name) { return result(CreateDirectoryW(wname(cp437_name).c_str(), nullptr)); }

FileFault remove_directory(const std::string& cp437_name) { return result(RemoveDirectoryW(wname(cp437_name).c_str())); }

FileFault change_directory(const std::string& cp437_name) { return result(SetCurrentDirectoryW(wname(cp437_name).c_str())); }

std::string current_directory_cp437() {
  wchar_t buf[4104];
  const DWORD n = GetCurrentDirectoryW(4104, buf);
  if (n == 0 || n >= 4104) return std::string();
  return to_cp437_lossy(std::wstring(buf, n));
}

int path_kind(const std::string& cp437_name) {
  const DWORD a = GetFileAttributesW(wname(cp437_name).c_str());
  if (a == INVALID_FILE_ATTRIBUTES) return 0;
  return (a & FILE_ATTRIBUTE_DIRECTORY) ? 2 : 1;
}

bool list_directory(const std::string& cp437_dir, std::vector<DirEntry>* out) {
  std::wstring pattern = cp437_dir.empty() ? std::wstring(L".") : wname(cp437_dir);
  if (pattern.back() != L'\\' && pattern.back() != L'/' && pattern.back() != L':') pattern += L'\\';
  pattern += L'*';
  WIN32_FIND_DATAW fd;
  const HANDLE h = FindFirstFileW(pattern.c_str(), &fd);
  if (h == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_FILE_NOT_FOUND;
  do {
    if (!wcscmp(fd.cFileName, L".") || !wcscmp(fd.cFileName, L"..")) continue;
    DirEntry e{};
    const std::wstring w(fd.cFileName);
    if (!utf16_to_cp437(std::u16string(w.begin(), w.end()), &e.name)) continue;
    e.directory = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    e.size = e.directory ? 0 : (static_cast<std::uint64_t>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow;
    out->push_back(e);
  } while (FindNextFileW(h, &fd));
  FindClose(h);
  return true;
}

std::vector<std::string> drive_roots() {
  std::vector<std::string> roots;
  const DWORD mask = GetLogicalDrives();
  for (int i = 0; i < 26; ++i)
    if (mask & (1u << i)) roots.push_back(std::string(1, static_cast<char>('A' + i)) + ":\\");
  return roots;
}

int drive_kind(const std::string& cp437_root) {
  std::string root = cp437_root;
  if (root.size() == 1) root += ':';
  if (root.size() == 2 && root[1] == ':') root += '\\';
  return static_cast<int>(GetDriveTypeW(wname(root).c_str()));
}

std::string drive_current_directory(const std::string& cp437_drive) {
  // "X:" alone names the current directory of drive X.
  std::wstring name = cp437_drive.empty() ? std::wstring(L".") : wname(cp437_drive.substr(0, 1)) + L":";
  wchar_t buf[4104];
  const DWORD n = GetFullPathNameW(name.c_str(), 4104, buf, nullptr);
  if (n == 0 || n >= 4104) return std::string();
  return to_cp437_lossy(std::wstring(buf, n));
}

bool seek_file(std::FILE* f, std::int64_t offset) { return _fseeki64(f, offset, SEEK_SET) == 0; }

std::int64_t tell_file(std::FILE* f) { return _ftelli64(f); }

std::int64_t file_length(std::FILE* f) {
  if (std::fflush(f) != 0) return -1;
  return _filelengthi64(_fileno(f));
}

bool sync_file(std::FILE* f) { return std::fflush(f) == 0 && _commit(_fileno(f)) == 0; }

std::int64_t os_file_handle(std::FILE* f) { return _get_osfhandle(_fileno(f)); }

void* lock_file(const std::string& cp437_name) {
  // No sharing at all: a second opener, here or in another process, is refused;
  // the handle closes with the process.
  const HANDLE h = CreateFileW(wname(cp437_name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
  return h == INVALID_HANDLE_VALUE ? nullptr : h;
}

void unlock_file(void* lock) {
  if (lock) CloseHandle(lock);
}

bool set_environment(const std::string& name, const std::string& value) {
  // The C runtime's copy is the one getenv reads; _putenv_s also updates the
  // process environment that child processes inherit.
  return _putenv_s(name.c_str(), value.c_str()) == 0;
}

bool is_absolute_path(const std::string& path) {
  auto sep = [](char c) { return c == '\\' || c == '/'; };
  if (path.size() >= 3 && path[1] == ':' && sep(path[2])) return true;  // X:\...
  return path.size() >= 2 && sep(path[0]) && sep(path[1]);             // \\server\share, \\?\...
}

char path_separator() { return '\\'; }

std::uint64_t image_end() {
  // The loaded image spans SizeOfImage bytes from the module's base address.
  const auto* base = reinterpret_cast<const unsigned char*>(GetModuleHandleW(nullptr));
  if (!base) return 0;
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  return reinterpret_cast<std::uint64_t>(base) + nt->OptionalHeader.SizeOfImage;
}

void fatal_box(const char* text) {
  if (shell.headless) {
    std::fprintf(stderr, "Tambril BASIC: %s\n", text);
    std::fflush(stderr);
    return;
  }
  MessageBoxW(nullptr, wide(text).c_str(), L"Tambril BASIC", MB_OK | MB_ICONERROR);
}

void host_beep(unsigned hz, unsigned ms) { Beep(hz, ms); }

}  // namespace host
