// A front end: the UI side of start-up, the message loop and shutdown. The
// shell drives every front end through the same sequence (host/startup.cpp).
#pragma once
#include <string>
#include <vector>

#include "host/ui.h"

namespace host {

class Frontend : public Ui {
 public:
  // Window class and window; false ends start-up with exit code 1, no message.
  virtual bool create_window() = 0;
  // The 1024x768 framebuffer and its presentation surfaces.
  virtual bool create_surfaces() = 0;
  virtual void show_window() = 0;
  virtual bool start_timer() = 0;
  virtual void stop_timer() = 0;
  // Runs until the window is gone; returns the quit parameter.
  virtual int run_message_loop() = 0;
  virtual void release_surfaces() = 0;
  virtual void destroy_window() = 0;
};

// The shared start-up, message loop and shutdown sequence. `words` is the
// split command line (word 0 the executable).
int run_system(Frontend& fe, const std::vector<std::u16string>& words);

}  // namespace host
