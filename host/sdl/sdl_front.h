// The SDL2 window front end for Linux desktops.
#pragma once
#include "host/frontend.h"

namespace host {
// nullptr when SDL's video cannot start (no display).
Frontend* make_sdl_frontend();
// The sound card through SDL2 audio; nullptr when SDL finds none.
class AudioDevice;
AudioDevice* make_sdl_audio();
}
