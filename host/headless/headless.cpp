// Headless front end. Every byte the console puts goes to stdout (code page
// 437 converted to UTF-8); stdin bytes become key-queue entries.
#include "host/headless/headless.h"

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "host/cp437.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "screen/snapshot.h"

#ifdef _WIN32
#include <io.h>
#define read _read
#else
#include <unistd.h>
#endif

namespace host {
namespace {

// LF, CR and CR LF are Enter; 27 is Esc (break); UTF-8 becomes code page 437.
void stdin_reader() {
  Utf8Decoder dec;
  bool after_cr = false;
  unsigned char buf[4096];
  char32_t cps[2];
  // A broken sequence shows as "?" where it stood; a character without a
  // code page 437 counterpart is dropped.
  auto put = [](char32_t u) {
    if (u == 0xFFFD) {
      screen::keys.push(0, '?');
      return;
    }
    const int c = unicode_to_cp437(u);
    if (c >= 0) screen::keys.push(0, static_cast<std::uint16_t>(c));
  };
  for (;;) {
    const auto n = read(0, buf, sizeof buf);
    if (n <= 0) break;
    for (int i = 0; i < static_cast<int>(n); ++i) {
      const unsigned char b = buf[i];
      if (b == '\n' && after_cr) {
        after_cr = false;
        continue;
      }
      after_cr = b == '\r';
      if (b == '\n' || b == '\r' || b == 27) {
        // Every line starts with a clean decoder.
        if (dec.finish(cps)) put(cps[0]);
        screen::keys.push(b == 27 ? screen::kKeyEsc : 0, b == 27 ? 0 : 13);
        continue;
      }
      for (int k = 0, m = dec.feed(b, cps); k < m; ++k) put(cps[k]);
    }
  }
  if (dec.finish(cps)) put(cps[0]);
  screen::keys.set_input_ended();
}

}  // namespace

bool Headless::create_surfaces() { return screen::create_framebuffer(screen::kStartWidth, screen::kStartHeight); }

void Headless::start_input() { std::thread(stdin_reader).detach(); }  // blocks in read(); never joined

int Headless::run_message_loop() {
  start_input();
  std::unique_lock guard(lock_);
  for (;;) {
    if (want_w_) {
      answer_ = screen::create_framebuffer(want_w_, want_h_);
      want_w_ = want_h_ = 0;
      answered_ = true;
      cv_.notify_all();
    }
    if (closed_ || stop_requested()) break;
    guard.unlock();
    const std::chrono::milliseconds next = tick();
    guard.lock();
    if (woken_ || want_w_ || closed_) {
      woken_ = false;
      continue;
    }
    if (next.count() > 0) cv_.wait_for(guard, next);
    else cv_.wait(guard);
    woken_ = false;
  }
  guard.unlock();
  flush();
  return shell.exit_code.load();
}

void Headless::wake() {
  std::lock_guard guard(lock_);
  woken_ = true;
  cv_.notify_all();
}

void Headless::release_surfaces() {
  flush();
  if (!shell.screenshot.empty() && !screen::write_snapshot(shell.screenshot))
    std::fprintf(stderr, "Tambril BASIC: cannot write %s\n", shell.screenshot.c_str());
}

bool Headless::recreate_framebuffer(std::uint32_t w, std::uint32_t h) {
  std::unique_lock guard(lock_);
  want_w_ = w;
  want_h_ = h;
  answered_ = false;
  cv_.notify_all();
  while (!answered_) {
    if (closed_ || stop_requested()) return false;
    cv_.wait_for(guard, std::chrono::milliseconds(16));
  }
  return answer_;
}

void Headless::post_close() {
  std::lock_guard guard(lock_);
  closed_ = true;
  cv_.notify_all();
}

void Headless::console_echo(std::uint8_t c) {
  std::lock_guard guard(out_lock_);
  if (c == '\n') {
    out_ += '\n';
    flush_locked();
    return;
  }
  if (c >= 128) {
    append_utf8(out_, cp437_to_unicode(c));
  } else {
    out_ += static_cast<char>(c);
  }
  if (out_.size() >= 4096) flush_locked();
}

void Headless::flush() {
  std::lock_guard guard(out_lock_);
  flush_locked();
}

void Headless::flush_locked() {
  if (out_.empty()) return;
  std::fwrite(out_.data(), 1, out_.size(), stdout);
  std::fflush(stdout);
  out_.clear();
}

Frontend* make_headless_frontend() { return new Headless(); }

#ifdef _WIN32
// Windows keeps the byte stream; tambril-con.exe serves cmd.exe.
Frontend* make_terminal_frontend() { return nullptr; }
#endif

}  // namespace host
