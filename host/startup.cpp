// The start-up order and the shutdown order, the same for every front end.
#include <vector>

#include "host/frontend.h"
#include "host/packed.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/framebuffer.h"

namespace host {

Ui* ui = nullptr;

void Ui::beep(unsigned hz, unsigned ms) { host_beep(hz, ms); }

int run_system(Frontend& fe, const std::vector<std::u16string>& words) {
  // Module directory, or the current one when the executable's path is unknown.
  shell.module_dir = directory_of(executable_path());
  if (shell.module_dir.empty()) shell.module_dir = current_directory();
  shell.start_dir = current_directory();
  // The windowed system runs in the temporary directory; headless sessions
  // stay where the user started them.
  shell.temp_dir = temp_directory();
  if (!shell.headless && !shell.temp_dir.empty()) set_current_directory(shell.temp_dir);
  shell.packed = detect_packed_program(executable_path());
  parse_command_words(words);

  ui = &fe;
  if (!fe.create_window()) return 1;
  auto fail = [&](const char* text) {
    fatal_box(text);
    fe.destroy_window();
    return 1;
  };
  if (!fe.create_surfaces()) return fail("Could not create the 1024x768 framebuffer.");
  if (!allocate_arenas()) {
    fe.destroy_window();
    return 1;
  }
  shell.thousands_separator = ',';
  start_tsc_calibration();
  fe.show_window();
  if (!fe.start_timer()) return fail("Could not start the display timer.");
  if (!start_interpreter_thread()) {
    fe.stop_timer();
    return fail("Could not start the BASIC interpreter thread.");
  }
  const int quit = fe.run_message_loop();

  fe.stop_timer();
  request_stop();
  const bool ended = wait_interpreter_thread(2000);
  if (ended) release_arenas();  // otherwise the thread may still be using them
  fe.release_surfaces();
  ui = ended ? nullptr : ui;
  return quit;
}

}  // namespace host
