// The Win32 window front end: window class, GDI presentation, message loop
// and the keyboard pre-filter.
#pragma once
#include "host/frontend.h"

namespace host {
// Declares the process DPI-aware first, so every later size is in real pixels.
// show_command is the entry point's show-command (0 means SW_SHOWDEFAULT).
Frontend* make_win32_frontend(int show_command);
// The waveOut device; nullptr when the system has no output device.
class AudioDevice;
AudioDevice* make_waveout_audio();
}  // namespace host
