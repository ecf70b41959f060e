// The headless front end: console output to stdout, keys from stdin. On a
// terminal (both ends interactive, no --batch) the terminal front end takes
// over: raw keys and the text grid drawn in place.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "host/frontend.h"

namespace host {

class Headless : public Frontend {
 public:
  bool create_window() override { return true; }
  bool create_surfaces() override;
  void show_window() override {}
  bool start_timer() override { return true; }
  void stop_timer() override {}
  void destroy_window() override {}
  bool headless() const override { return true; }
  void beep(unsigned, unsigned) override {}  // BEL writes nothing
  int run_message_loop() override;
  void release_surfaces() override;
  bool recreate_framebuffer(std::uint32_t w, std::uint32_t h) override;
  void post_close() override;
  void repaint_now() override { flush(); }  // before every key wait
  void console_echo(std::uint8_t c) override;

 protected:
  // The thread that turns input into keys.
  virtual void start_input();
  // Each pass of the message loop; returns how long to wait for the next
  // (zero: until woken).
  virtual std::chrono::milliseconds tick() { return std::chrono::milliseconds(16); }
  // End the message loop's current wait early.
  void wake();
  void flush();

 private:
  void flush_locked();
  std::mutex out_lock_;  // the interpreter writes, the main thread flushes at exit
  std::string out_;
  std::mutex lock_;
  std::condition_variable cv_;
  std::uint32_t want_w_ = 0, want_h_ = 0;
  bool answered_ = false, answer_ = false, closed_ = false, woken_ = false;
};

Frontend* make_headless_frontend();
// The terminal front end, or null when stdin and stdout are not both
// terminals or the terminal cannot be switched to raw mode (POSIX only).
Frontend* make_terminal_frontend();

}  // namespace host
