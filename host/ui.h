// What the interpreter thread asks of the front end (SDL window, Win32 window
// or headless terminal). Exactly one front end is installed at start-up.
#pragma once
#include <cstdint>

namespace host {

class Ui {
 public:
  virtual ~Ui() = default;
  // Recreate the framebuffer at w x h on the UI thread and wait for the answer.
  virtual bool recreate_framebuffer(std::uint32_t w, std::uint32_t h) = 0;
  // Present now instead of waiting for the next 16 ms tick.
  virtual void repaint_now() {}
  // Ask the UI thread to close the window (packed programs, SYSTEM).
  virtual void post_close() = 0;
  // Every byte the console puts is offered here (headless writes it to stdout).
  virtual void console_echo(std::uint8_t) {}
  // Live state of a host key id (software key repeat and KEYDOWN).
  virtual bool key_is_down(int host_key) { (void)host_key; return false; }
  // BEL and BEEP while no audio engine runs.
  virtual void beep(unsigned hz, unsigned ms);
  // True when no window exists (headless mode).
  virtual bool headless() const { return false; }
};

extern Ui* ui;

}  // namespace host
