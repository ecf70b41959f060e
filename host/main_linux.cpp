// Linux entry point: switches, then the SDL window or the headless terminal.
#include <csignal>
#include <memory>
#include <cstdio>
#include <string>
#include <vector>

#include "host/audio.h"
#include "host/cp437.h"
#include "host/frontend.h"
#include "host/headless/headless.h"
#include "host/options.h"
#include "host/packed.h"
#include "host/platform.h"
#include "host/sdl/sdl_front.h"
#include "host/shell.h"

int main(int argc, char** argv) {
  std::vector<std::u16string> words;
  for (int i = 0; i < argc; ++i) words.push_back(host::utf8_to_utf16(argv[i]));
  std::string message;
  switch (host::take_options(words, &message)) {
    case host::OptionResult::ExitOk:
      std::fputs(message.c_str(), stdout);
      return 0;
    case host::OptionResult::ExitUsage:
      std::fputs(message.c_str(), stderr);
      return 2;
    case host::OptionResult::Run:
      break;
  }
  std::signal(SIGPIPE, SIG_IGN);
  host::make_system_audio = host::make_sdl_audio;
  std::unique_ptr<host::Frontend> fe;
  if (!host::shell.headless) {
    fe.reset(host::make_sdl_frontend());
    if (!fe) {
      std::fputs("Tambril BASIC: no display available, running headless\n", stderr);
      host::shell.headless = true;
    }
  }
  if (host::shell.headless) {
    // A person at a terminal gets the terminal front end; pipes, files and
    // batch runs keep the byte stream.
    if (!host::shell.batch) fe.reset(host::make_terminal_frontend());
    if (!fe) fe.reset(host::make_headless_frontend());
  } else if (!host::packed_image().packed && words.size() > 1 && !words[1].empty()) {
    // The window runs in the temporary directory: a relative autostart name is
    // made absolute against the directory the user started from.
    const std::string name = host::utf16_to_utf8(words[1]);
    if (!host::is_absolute_path(name)) {
      const std::string cwd = host::current_directory();
      if (!cwd.empty()) words[1] = host::utf8_to_utf16(cwd + "/" + name);
    }
  }
  // SDL keeps its error text per thread and never frees it for threads it did
  // not make: the sound card is probed here, on the main thread, which lives
  // to the end.
  if (host::shell.audio_out.empty() && (!host::shell.headless || host::shell.audio_system)) (void)host::audio_device();
  const int code = host::run_system(*fe, words);
  // An interpreter thread that did not end may still call the front end.
  if (host::ui) (void)fe.release();
  return code;
}
