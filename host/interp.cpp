// InterpreterThread: banner, autostart, STARTUP.BAS and the Ready loop.
#include <cstdio>
#include <cstring>
#include <string>

#include "core/direct.h"
#include "core/errors.h"
#include "core/statements.h"
#include "files/file_statements.h"
#include "files/file_table.h"
#include "host/cpu.h"
#include "host/net.h"
#include "host/packed.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/ui.h"
#include "net/net.h"
#include "sound/sound.h"
#include "screen/console.h"
#include "screen/graphics_statements.h"
#include "screen/lineedit.h"
#include "tools/tools.h"
#include "values/arena.h"

namespace host {

using screen::put_char;
using screen::put_line;

// Decimal with the thousands separator between groups of three digits.
std::string group_thousands(std::uint64_t v, char sep) {
  std::string digits = std::to_string(v), out;
  const int n = static_cast<int>(digits.size());
  for (int i = 0; i < n; ++i) {
    if (i > 0 && (n - i) % 3 == 0) out += sep;
    out += digits[static_cast<std::size_t>(i)];
  }
  return out;
}

static void print_ready() {
  screen::ensure_left_column();
  put_line("Ready.");
}

static void banner() {
  if (shell.packed || shell.no_banner) return;
  put_line("In the beginning was the line number,");
  put_line("and the line number was 10.");
  put_line("");
  put_line("Tambril BASIC v3.4.1");
  put_line("");
  put_line("Keyboard: Windows");
  put_line("KEYDOWN available, KEYREPEAT delay/rate available");
  put_line("");
  unsigned cpus = logical_processors();
  if (cpus < 1) cpus = 1;
  if (cpus > 32) cpus = 32;
  put_line(("CPU: " + std::to_string(cpus) + " threads available for PARFOR").c_str());
  put_line("");
  put_line(simd_info().avx2_usable ? "SIMD: AVX2 detected, enabled for JIT"
                                   : "SIMD: SSE2 fallback, AVX2 unavailable");
  put_line("");
  const std::uint64_t free_bytes = static_cast<std::uint64_t>(values::arena.himem - values::arena.freebot);
  put_line((group_thousands(free_bytes, shell.thousands_separator) + " bytes free.").c_str());
  put_line("");
}

static void run_direct(const std::string& command) { core::execute_direct(command.c_str()); }

// One pass per typed line until the stop flag is set.
static void ready_loop() {
  char line[257];
  for (;;) {
    core::AutoState& a = core::auto_numbering;
    std::uint32_t flags = screen::kEditReadyPrompt;
    bool marked = false;
    if (a.active) {
      if (!a.first) {
        if (a.number > core::kMaxLineNumber || a.step > core::kMaxLineNumber - a.number) {
          a.active = false;
          print_ready();
          continue;
        }
        a.number += a.step;
      }
      a.first = false;
      screen::put_text(std::to_string(a.number).c_str());
      marked = core::line_exists(a.number);
      put_char(marked ? '*' : ' ');
      flags |= screen::kEditFromLineStart;
    }
    if (core::edit_request) {
      // EDIT printed the line: the whole screen line is the text to change.
      core::edit_request = false;
      flags |= screen::kEditFromLineStart;
    }
    const int n = screen::line_edit(line, sizeof line, flags);
    if (stop_requested()) return;
    if (n < 0) {
      a.active = false;
      put_char(13);
      put_line("Ready.");
      continue;
    }
    if (a.active && marked) {
      std::size_t i = 0;
      while (line[i] == ' ') ++i;
      while (line[i] >= '0' && line[i] <= '9') ++i;
      if (line[i] == '*') {
        std::memmove(line + i, line + i + 1, std::strlen(line + i));
        std::size_t j = i;
        while (line[j] == ' ') ++j;
        if (line[j] == 0) continue;  // only the number: the stored line stays
      }
    }
    core::execute_direct(line);
    if (stop_requested()) return;
    if (!a.active) {
      if (core::suppress_prompt) {
        core::suppress_prompt = false;
      } else {
        const char* p = line;
        while (*p == ' ') ++p;
        if (!(*p >= '0' && *p <= '9')) print_ready();
      }
    }
  }
}

void interpreter_thread() {
  shell.tsc_reference = tsc_now();
  values::arena_init(shell.data_arena, shell.data_pages << 12);
  core::init_interpreter();
  files::install_hooks();
  net::install_hooks();
  sound::install_hooks();
  screen::install_graphics_hooks();
  tools::install_hooks();
  // Whatever way this thread ends, open files are closed and nothing written is lost.
  struct CloseFilesAtEnd {
    ~CloseFilesAtEnd() {
      files::close_all();
      net::close_all_slots();
      host::net_shutdown();
      sound::shutdown();
    }
  } close_files_at_end;
  screen::reset_console();
  banner();

  if (shell.packed) {
    // A malformed program ends the process without a word; with --batch the
    // exit code still tells a script that nothing ran.
    const bool loaded = load_packed_program();
    if (loaded) run_direct("RUN");
    if (shell.batch)
      shell.exit_code.store(!loaded || core::last_run_failed || core::last_run_interrupted ? 1 : 0);
    if (ui) ui->post_close();
    return;
  }
  if (shell.autostart_invalid) {
    put_line("Autostart filename is invalid or too long.");
    put_line("Ready.");
  } else if (!shell.autostart.empty()) {
    // LOAD "name" stays below 4112 bytes; a longer name is cut to fit.
    std::string name = shell.autostart;
    if (name.size() > 4100) name.resize(4100);
    run_direct("LOAD \"" + name + "\"");
    // A program that cannot be loaded fails a batch run (its message is out).
    if (core::err.flag) core::last_run_failed = true;
    else if (!stop_requested()) run_direct("RUN");
    if (!stop_requested() && !shell.batch) print_ready();
  } else {
    std::string startup = shell.module_dir;
    if (!startup.empty() && startup.back() != path_separator()) startup += path_separator();
    startup += "STARTUP.BAS";
    if (file_readable(startup)) {
      // By full name: the current directory is not the module directory.
      run_direct("LOAD \"" + startup + "\"");
      if (!core::err.flag && !stop_requested()) run_direct("RUN");
    }
    if (!stop_requested() && !shell.batch) print_ready();
  }
  if (shell.batch) {
    // Batch runs end with the program instead of reading more lines.
    // A run that STOP or a break interrupted did not finish: that fails too.
    shell.exit_code.store(core::last_run_failed || core::last_run_interrupted ? 1 : 0);
    if (ui) ui->post_close();
    return;
  }
  if (stop_requested()) return;
  ready_loop();
}

}  // namespace host
