// Windows entry point: the switches, then the window or the headless console.
// The same source is linked twice: tambril.exe (GUI subsystem, wWinMain) and
// tambril-con.exe (console subsystem, wmain); see README.md beside this file.
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "host/audio.h"
#include "host/cp437.h"
#include "host/frontend.h"
#include "host/headless/headless.h"
#include "host/options.h"
#include "host/shell.h"
#include "host/win32/win32_front.h"

namespace {

bool usable(DWORD which) {
  const HANDLE h = GetStdHandle(which);
  return h != nullptr && h != INVALID_HANDLE_VALUE;
}

// A GUI-subsystem process started from a console gets no standard handles
// unless they were redirected; it borrows the parent's console instead. Pipes
// (the usual case for scripts and tests) are inherited and used as they are.
void connect_std_streams() {
  const bool in = usable(STD_INPUT_HANDLE), out = usable(STD_OUTPUT_HANDLE), err = usable(STD_ERROR_HANDLE);
  if ((!in || !out || !err) && AttachConsole(ATTACH_PARENT_PROCESS)) {
    if (!in && std::freopen("CONIN$", "rb", stdin) && _fileno(stdin) != 0) _dup2(_fileno(stdin), 0);
    if (!out && std::freopen("CONOUT$", "wb", stdout) && _fileno(stdout) != 1) _dup2(_fileno(stdout), 1);
    if (!err && std::freopen("CONOUT$", "wb", stderr) && _fileno(stderr) != 2) _dup2(_fileno(stderr), 2);
  }
  // The headless protocol is bytes: UTF-8 out, LF line ends, no CR LF rewriting.
  if (_fileno(stdin) >= 0) _setmode(_fileno(stdin), _O_BINARY);
  if (_fileno(stdout) >= 0) _setmode(_fileno(stdout), _O_BINARY);
  if (_fileno(stderr) >= 0) _setmode(_fileno(stderr), _O_BINARY);
}

// A console shows our UTF-8 only in code page 65001; the old pages come back at exit.
struct ConsoleCodePages {
  UINT in = 0, out = 0;
  ConsoleCodePages() {
    DWORD mode;
    if (GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode)) {
      out = GetConsoleOutputCP();
      SetConsoleOutputCP(CP_UTF8);
    }
    if (GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode)) {
      in = GetConsoleCP();
      SetConsoleCP(CP_UTF8);
    }
  }
  ~ConsoleCodePages() {
    if (out) SetConsoleOutputCP(out);
    if (in) SetConsoleCP(in);
  }
};

// --version, --help and usage errors: to the console when there is one, else
// in a message box (a GUI process started from Explorer has nowhere to print).
void show_message(const std::string& text, bool error) {
  connect_std_streams();
  std::FILE* f = error ? stderr : stdout;
  if (usable(error ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE) && _fileno(f) >= 0) {
    std::fputs(text.c_str(), f);
    std::fflush(f);
    return;
  }
  const std::u16string w = host::utf8_to_utf16(text);
  MessageBoxW(nullptr, reinterpret_cast<const wchar_t*>(w.c_str()), L"Tambril BASIC",
              MB_OK | (error ? MB_ICONERROR : MB_ICONINFORMATION));
}

int run(int show_command) {
  const auto* raw = reinterpret_cast<const char16_t*>(GetCommandLineW());
  std::vector<std::u16string> words = host::split_command_line(raw ? std::u16string(raw) : std::u16string());
  std::string message;
  switch (host::take_options(words, &message)) {
    case host::OptionResult::ExitOk:
      show_message(message, false);
      return 0;
    case host::OptionResult::ExitUsage:
      show_message(message, true);
      return 2;
    case host::OptionResult::Run:
      break;
  }
  host::make_system_audio = host::make_waveout_audio;
  if (host::shell.headless) {
    connect_std_streams();
    ConsoleCodePages pages;
    return host::run_system(*host::make_headless_frontend(), words);
  }
  return host::run_system(*host::make_win32_frontend(show_command), words);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int show_command) { return run(show_command); }

int wmain() { return run(SW_SHOWDEFAULT); }
