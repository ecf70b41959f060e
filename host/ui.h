// What the interpreter thread asks of the front end (SDL window, Win32 window
// or headless terminal). Exactly one front end is installed at start-up.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "host/display.h"

namespace host {

// Keys that KEYDOWN can ask about, numbered independently of any front end:
// '0'..'9' and 'A'..'Z' stand for themselves, the rest follow. Each front end
// maps these to its own key numbers in named_key_down.
enum KeyId : int {
  kKeyIdSpace = 32,
  kKeyIdUp = 128, kKeyIdDown, kKeyIdLeft, kKeyIdRight, kKeyIdHome, kKeyIdEnd, kKeyIdPageUp,
  kKeyIdPageDown, kKeyIdInsert, kKeyIdDelete, kKeyIdEsc, kKeyIdEnter, kKeyIdTab, kKeyIdBackspace,
  kKeyIdShift, kKeyIdCtrl, kKeyIdAlt,
  kKeyIdF1 = 160,  // F1..F12 are 160..171
};

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
  // Live state of a KeyId (KEYDOWN). Either Shift, Ctrl or Alt key counts.
  virtual bool named_key_down(int key_id) { (void)key_id; return false; }
  // The clipboard's text converted to code page 437 (CLIPBOARD$); false when
  // there is none or it cannot be read or converted.
  virtual bool clipboard_text(std::string* out) { (void)out; return false; }
  // SCREEN MODES, VIDEOMODE, VIDEOMODES(): the monitor's modes. Headless has
  // no monitor, so a session behaves the same on every machine.
  virtual std::vector<DisplayMode> video_modes() { return {}; }
  // BEL and BEEP while no audio engine runs.
  virtual void beep(unsigned hz, unsigned ms);
  // True when no window exists (headless mode).
  virtual bool headless() const { return false; }
};

extern Ui* ui;

}  // namespace host
