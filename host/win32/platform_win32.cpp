// Windows implementation of the platform interface. File names are UTF-8
// inside the system and UTF-16 at the Win32 calls.
#include <windows.h>

#include <cstdio>
#include <string>

#include "host/cp437.h"
#include "host/platform.h"
#include "host/shell.h"

namespace host {

namespace {

std::wstring wide(const std::string& utf8) {
  const std::u16string u = utf8_to_utf16(utf8);
  return std::wstring(u.begin(), u.end());
}

std::string narrow(const wchar_t* s, std::size_t n) {
  return utf16_to_utf8(std::u16string(reinterpret_cast<const char16_t*>(s), n));
}

}  // namespace

void* reserve_memory(std::size_t bytes) {
  // Committed pages are zero-filled and backed only when first touched, so a
  // large arena costs nothing until it is used.
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void release_memory(void* base, std::size_t bytes) {
  (void)bytes;  // MEM_RELEASE frees the whole reservation and wants size 0
  if (base) VirtualFree(base, 0, MEM_RELEASE);
}

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
