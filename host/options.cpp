// Command-line switches.
#include "host/options.h"

#include "host/cp437.h"
#include "host/packed.h"
#include "host/platform.h"
#include "host/shell.h"

namespace host {

const char* const kUsage =
    "Usage: tambril [--headless] [--batch] [--no-banner] [--screenshot FILE] [--audio-out FILE.wav]\n"
    "               [--audio-format float32|pcm24|pcm16] [--audio-system] [file.bas [args...]]\n"
    "       tambril --version | --help\n"
    "\n"
    "  --headless         no window: at a terminal a full-screen text session;\n"
    "                     with pipes, console output to stdout, keys from stdin\n"
    "  --batch            no banner; exit when the program ends (exit code 1 after an\n"
    "                     untrapped error) instead of showing \"Ready.\"\n"
    "  --no-banner        skip the banner (the start-up \"Ready.\" still comes)\n"
    "  --screenshot FILE  at exit, write the framebuffer as PNG (or BMP by extension)\n"
    "  --audio-out FILE   the sound goes to a 48 kHz stereo WAV file, in real time\n"
    "  --audio-format F   the best format that WAV file takes (the engine tries float32,\n"
    "                     then pcm24, then pcm16)\n"
    "  --audio-system     use the sound card in a headless session too\n"
    "  --version          print the version\n"
    "  --help             print this text\n";

namespace {

// Without a file named, a batch run still has a program when the executable
// carries one or STARTUP.BAS stands beside it.
bool batch_program_exists() {
  const std::string exe = executable_path();
  if (detect_packed_program(exe)) return true;
  std::string dir = directory_of(exe);
  if (dir.empty()) return false;
  if (dir.back() != path_separator()) dir += path_separator();
  return file_readable(dir + "STARTUP.BAS");
}

}  // namespace

OptionResult take_options(std::vector<std::u16string>& words, std::string* message) {
  std::size_t i = 1;
  // A packed program owns its command line: only the switches that choose
  // how it runs are taken, and from the first other word on everything
  // (--help included) is the program's argument.
  const bool packed = detect_packed_program(executable_path());
  while (i < words.size() && words[i].size() > 2 && words[i][0] == u'-' && words[i][1] == u'-') {
    const std::string w = utf16_to_utf8(words[i]);
    if (packed && w != "--headless" && w != "--batch" && w != "--no-banner" && w != "--screenshot") break;
    if (w == "--headless") {
      shell.headless = true;
    } else if (w == "--batch") {
      shell.batch = true;
      shell.no_banner = true;
    } else if (w == "--no-banner") {
      shell.no_banner = true;
    } else if (w == "--screenshot") {
      if (i + 1 >= words.size()) {
        *message = "--screenshot needs a file name\n" + std::string(kUsage);
        return OptionResult::ExitUsage;
      }
      shell.screenshot = utf16_to_utf8(words[++i]);
    } else if (w == "--audio-out") {
      if (i + 1 >= words.size()) {
        *message = "--audio-out needs a file name\n" + std::string(kUsage);
        return OptionResult::ExitUsage;
      }
      shell.audio_out = utf16_to_utf8(words[++i]);
    } else if (w == "--audio-format") {
      const std::string f = i + 1 < words.size() ? utf16_to_utf8(words[i + 1]) : "";
      if (f != "float32" && f != "pcm24" && f != "pcm16") {
        *message = "--audio-format needs float32, pcm24 or pcm16\n" + std::string(kUsage);
        return OptionResult::ExitUsage;
      }
      shell.audio_best = f == "float32" ? 0 : f == "pcm24" ? 1 : 2;
      ++i;
    } else if (w == "--audio-system") {
      shell.audio_system = true;
    } else if (w == "--version") {
      *message = "Tambril BASIC 3.4.1\n";
      return OptionResult::ExitOk;
    } else if (w == "--help") {
      *message = kUsage;
      return OptionResult::ExitOk;
    } else {
      *message = "unknown option " + w + "\n" + kUsage;
      return OptionResult::ExitUsage;
    }
    ++i;
  }
  words.erase(words.begin() + 1, words.begin() + static_cast<std::ptrdiff_t>(i));
  if (shell.batch && words.size() < 2 && !batch_program_exists()) {
    // A batch run without a program would wait for nothing and succeed.
    *message = "--batch needs a program file to run\n" + std::string(kUsage);
    return OptionResult::ExitUsage;
  }
  return OptionResult::Run;
}

}  // namespace host
